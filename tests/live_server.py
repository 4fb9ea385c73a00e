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
from contextlib import contextmanager
from pathlib import Path

import velmora
from velmora.serve.resident import ask

# The server runs the velmora that the tests import: src/, installed, or the sanitized copy.
PACKAGES = str(Path(velmora.__file__).resolve().parent.parent)


def make_repo(root: Path, files: dict[str, str]) -> Path:
    for name, text in files.items():
        (root / name).parent.mkdir(parents=True, exist_ok=True)
        (root / name).write_text(text)
    subprocess.run(["git", "init", "-q", str(root)], check=True)
    return root


@contextmanager
def serving(*repos: Path, timeout: float = 10):
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    server = subprocess.Popen(
        [sys.executable, "-m", "velmora.cli", "serve", *map(str, repos), "--port", str(port),
         "--timeout", str(timeout)], env={**os.environ, "PYTHONPATH": PACKAGES},
    )
    base = f"http://127.0.0.1:{port}/"
    try:
        while get(base + "api/status")[0] != 200:  # it listens once the trees are indexed
            assert server.poll() is None, "the server exited"
            time.sleep(0.1)
        yield base
    finally:
        server.terminate()
        server.wait(30)


def get(url: str, **params: object) -> tuple[int, bytes]:
    try:
        with urllib.request.urlopen(f"{url}?{urllib.parse.urlencode(params, True)}") as answer:
            return answer.status, answer.read()
    except urllib.error.HTTPError as error:
        return error.code, error.read()
    except urllib.error.URLError:
        return 0, b""


def records(url: str, **params: object) -> list[dict]:
    status, body = get(url + "api/search", **params)
    assert status == 200, body
    return [json.loads(line) for line in body.splitlines()]


@contextmanager
def background(root: Path):
    """The repository's background server, as a search starts it; stopped at the end."""
    server = subprocess.Popen(
        [sys.executable, "-m", "velmora.cli", "serve", "--background", str(root)],
        env={**os.environ, "PYTHONPATH": PACKAGES},
    )
    try:
        while ask(root, "status") is None:
            assert server.poll() is None, "the server exited"
            time.sleep(0.05)
        yield server
    finally:
        ask(root, "stop")
        try:
            server.wait(30)
        except subprocess.TimeoutExpired:
            server.kill()
            server.wait()

