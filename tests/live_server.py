"""A `velmora serve` process on a free loopback port, over small git repositories."""

from __future__ import annotations

import json
import os
import socket
import subprocess
import sys
import time
import urllib.error
import urllib.parse
import urllib.request
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import velmora

# The server runs the same velmora as the tests: a build in src/, an installed one, or the
# sanitized copy.
PACKAGES = str(Path(velmora.__file__).resolve().parent.parent)


def make_repo(root: Path, files: dict[str, str]) -> Path:
    for name, text in files.items():
        (root / name).parent.mkdir(parents=True, exist_ok=True)
        (root / name).write_text(text)
    subprocess.run(["git", "init", "-q", str(root)], check=True)
    return root


@contextmanager
def serving(*repos: Path, timeout: float = 10) -> Iterator[str]:
    """The base URL of a server over ``repos``, which it indexes first."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    env = {**os.environ, "PYTHONPATH": PACKAGES}
    server = subprocess.Popen(
        [sys.executable, "-m", "velmora.cli", "serve", *map(str, repos), "--port", str(port),
         "--timeout", str(timeout)], env=env, stderr=subprocess.DEVNULL,
    )
    base = f"http://127.0.0.1:{port}/"
    try:
        for _ in range(600):  # until it listens; indexing comes first
            assert server.poll() is None, "the server exited"
            try:
                get(base + "api/status")
                break
            except OSError:
                time.sleep(0.1)
        yield base
    finally:
        server.terminate()
        server.wait(30)


def get(url: str, **params: object) -> tuple[int, bytes]:
    if params:
        url += "?" + urllib.parse.urlencode(params, doseq=True)
    try:
        with urllib.request.urlopen(url, timeout=60) as response:
            return response.status, response.read()
    except urllib.error.HTTPError as error:
        return error.code, error.read()


def records(url: str, **params: object) -> list[dict]:
    status, body = get(url + "api/search", **params)
    assert status == 200, body
    return [json.loads(line) for line in body.splitlines()]
