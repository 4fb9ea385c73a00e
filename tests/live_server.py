"""A `velmora serve` process on a free port, over small git repositories."""

from __future__ import annotations

import json
import os
import re
import shutil
import subprocess
import sys
import threading
import time
import urllib.error
import urllib.parse
import urllib.request
from collections.abc import Sequence
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


class Served(str):
    """A server's base URL, and its process id."""

    pid: int


@contextmanager
def serving(*repos: Path, timeout: float = 10, args: Sequence[str] = (), cwd: Path | None = None,
            launcher: Sequence[str] = ("-m", "velmora.cli")):
    """A server on a port of the system's choosing, found from the address it prints."""
    server = subprocess.Popen(
        [sys.executable, *launcher, "serve", *map(str, repos), "--port", "0",
         "--timeout", str(timeout), *args], env={**os.environ, "PYTHONPATH": PACKAGES},
        cwd=cwd, stderr=subprocess.PIPE, text=True, errors="backslashreplace",
    )
    try:
        assert server.stderr is not None
        first = server.stderr.readline()
        found = re.search(r" on (http://\S+:(\d+)/)$", first)
        assert found and found[2] != "0", first
        # The rest of its output goes where the test's goes.
        threading.Thread(target=shutil.copyfileobj, args=(server.stderr, sys.stderr),
                         daemon=True).start()
        base = Served(found[1])
        base.pid = server.pid
        while get(base + "api/status")[0] != 200:  # it answers once the trees are indexed
            assert server.poll() is None, "the server exited"
            time.sleep(0.1)
        yield base
    finally:
        server.terminate()
        server.wait(30)


def workers(pid: int) -> list[int]:
    """The search processes of the server ``pid``."""
    found = [int(child) for task in Path(f"/proc/{pid}/task").iterdir()
             for child in (task / "children").read_text().split()]
    return [child for child in found if b"spawn_main" in Path(f"/proc/{child}/cmdline").read_bytes()]


def get(url: str, headers: dict[str, str] | None = None, **params: object) -> tuple[int, bytes]:
    request = urllib.request.Request(f"{url}?{urllib.parse.urlencode(params, True)}",
                                     headers=headers or {})
    try:
        with urllib.request.urlopen(request, timeout=120) as answer:
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

