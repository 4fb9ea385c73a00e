"""The background server a search starts: found by the next search, answering it byte for
byte as the command would, private to its user, and gone with its index."""

from __future__ import annotations

import os
import pty
import select
import signal
import shutil
import socket
import stat
import subprocess
import sys
import time
from pathlib import Path

import pytest

import live_server
from live_server import PACKAGES, make_repo
from velmora.serve import wire
from velmora.serve.resident import ask

ENV = {k: v for k, v in os.environ.items() if k != "VELMORA_NO_SERVER"} | {"PYTHONPATH": PACKAGES}


# The command as its installed script starts it.
COMMAND = [sys.executable, "-c", "from velmora.client import main; main()"]


def velmora(root, *argv: str) -> subprocess.CompletedProcess:
    # Read to the end of its output: an end that a worker kept open would never come.
    return subprocess.run([*COMMAND, *argv], cwd=root, env=ENV, capture_output=True, timeout=60)


def test_a_search_starts_the_server_that_answers_the_next(tmp_path):
    root = make_repo(tmp_path / "repo", {"a.py": "x = 'needle'\n", "sub/b.txt": "needle\r\nNEEDLE\n"})
    argv = ["search", "code", "--color", "always", "-C", "1", "-i", "needle"]
    alone = velmora(root, *argv, "--no-server")
    assert alone.returncode == 0 and not (root / ".velmora/server.sock").exists()
    first = velmora(root, *argv)  # answers by itself, then starts the server
    pid = None
    try:
        while (said := ask(root, "status")) is None:
            time.sleep(0.05)
        pid = int(said.split()[2])
        assert "started by a search" in said
        assert stat.S_IMODE((root / ".velmora/server.sock").stat().st_mode) == 0o600
        assert first.stdout == alone.stdout
        served = velmora(root / "sub", *argv, "..")
        assert served.stdout == velmora(root / "sub", *argv, "..", "--no-server").stdout
        assert served.returncode == 0 and b"../a.py" in served.stdout
        assert velmora(root, "search", "code", "absent").returncode == 1
        assert b"Server: process" in velmora(root, "status").stdout

        shutil.rmtree(root / ".velmora")  # the server goes with its index
        for _ in range(600):
            if not os.path.exists(f"/proc/{pid}") or "Z" in _state(pid):
                break
            time.sleep(0.05)
        assert not os.path.exists(f"/proc/{pid}") or "Z" in _state(pid)
    finally:
        ask(root, "stop")
        if pid is not None and os.path.exists(f"/proc/{pid}") and "Z" not in _state(pid):
            os.kill(pid, 9)


def _state(pid: int) -> str:
    try:
        with open(f"/proc/{pid}/stat") as status:
            return status.read().rsplit(")", 1)[1].split()[0]
    except OSError:
        return "Z"


def test_an_interrupted_search_frees_its_worker(tmp_path):
    root = make_repo(tmp_path / "repo", {"slow.txt": "a" * 40 + "b\n"})
    with live_server.background(root):
        # Each runs until stopped (catastrophic backtracking); the server has two workers.
        for _ in range(2):
            client = subprocess.Popen(
                [sys.executable, "-m", "velmora.client", "search", "code", "(a|aa)+$"],
                cwd=root, env=ENV, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            time.sleep(0.5)  # not a condition of the test: it passes however long this is
            client.send_signal(signal.SIGINT)
            assert client.communicate(timeout=60) == (b"", b"velmora: interrupted\n")
            assert client.returncode == 130
        assert velmora(root, "search", "code", "--column", "-F", "aab").stdout == b"slow.txt:1:39:" + b"a" * 40 + b"b\n"


@pytest.fixture(scope="module")
def served(tmp_path_factory):
    root = make_repo(tmp_path_factory.mktemp("served") / "repo", {"many.txt": "a needle\n" * 50_000})
    with live_server.background(root) as server:
        assert velmora(root, "search", "code", "needle").returncode == 0  # what a first search opens, opened
        yield root, server.pid


def printed(root: Path, sink: str, *argv: str) -> tuple[int, bytes, bytes]:
    """Status, output and errors of a search whose standard output is ``sink``: a pipe read
    to its end (or, "head", to its first line), a terminal, or a full disk."""
    reader, writer = (pty.openpty() if sink == "terminal" else
                      (-1, os.open(sink, os.O_WRONLY)) if sink.startswith("/") else os.pipe())
    client = subprocess.Popen([*COMMAND, "search", "code", *argv], cwd=root, env=ENV,
                              stdout=writer, stderr=subprocess.PIPE)
    os.close(writer)
    out = b""
    try:
        while reader >= 0 and (sink != "head" or b"\n" not in out):
            assert select.select([reader], [], [], 60)[0], "the output never ended"
            try:
                part = os.read(reader, 1 << 16)
            except OSError:  # a terminal whose every writer closed it
                part = b""
            if not part:
                break
            out += part
        if reader >= 0:
            os.close(reader)
        reader = -1
        return client.wait(60), out.split(b"\n", 1)[0] if sink == "head" else out, client.stderr.read()
    finally:
        client.kill()
        client.wait()
        client.stderr.close()
        if reader >= 0:
            os.close(reader)


def descriptors(pid: int, root: Path) -> list[str]:
    """What the process holds open, but the files of the repository's index."""
    held = (os.readlink(fd) for fd in Path(f"/proc/{pid}/fd").iterdir() if os.path.lexists(fd))
    return sorted(target for target in held if not target.startswith(str(root)))


@pytest.mark.parametrize("sink, argv", [
    ("pipe", ["needle"]),
    ("head", ["needle"]),  # ends quietly, status 0, as the command alone
    ("terminal", ["--color", "auto", "needle"]),  # the client's terminal decides colour and layout
    ("/dev/full", ["needle"]),  # the same one line as the command alone
    ("pipe", ["--bogus"]),
])
def test_the_worker_writes_to_the_clients_output_and_keeps_none_of_it(served, sink, argv):
    root, pid = served
    processes = [pid, *live_server.workers(pid)]
    alone = printed(root, sink, *argv, "--no-server")
    held = {process: descriptors(process, root) for process in processes}
    assert printed(root, sink, *argv) == alone
    # Freed, not killed, and holding no descriptor more than before the search.
    assert {process: descriptors(process, root) for process in [pid, *live_server.workers(pid)]} == held


@pytest.mark.parametrize("kind, count", [("search", 1), ("search", 3), ("search", 9), ("status", 1)])
def test_stray_descriptors_are_refused_and_closed(served, kind, count):
    root, _ = served
    reader, writer = os.pipe()
    fields = ["search", wire.PACKAGE, str(root), "utf-8", "strict", "search", "code", "a"]
    with socket.socket(socket.AF_UNIX) as sock:
        wire.at(str(root), sock.connect)
        try:
            wire.send(sock, wire.request(fields if kind == "search" else [kind]), [writer] * count)
            answered = sock.recv(1)
        except (BrokenPipeError, ConnectionResetError):  # refused before all was read
            answered = b""
        os.close(writer)
        assert answered == b""
    # The pipe ends once the server closed every copy it was sent.
    assert select.select([reader], [], [], 60)[0] and os.read(reader, 1) == b""
    os.close(reader)
