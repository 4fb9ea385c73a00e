"""The background server a search starts: found by the next search, answering it byte for
byte as the command would, private to its user, and gone with its index."""

from __future__ import annotations

import os
import signal
import shutil
import stat
import subprocess
import sys
import time

import live_server
from live_server import PACKAGES, make_repo
from velmora.serve.resident import ask

ENV = {k: v for k, v in os.environ.items() if k != "VELMORA_NO_SERVER"} | {"PYTHONPATH": PACKAGES}


def velmora(root, *argv: str) -> subprocess.CompletedProcess:
    return subprocess.run([sys.executable, "-m", "velmora.client", *argv], cwd=root, env=ENV,
                          capture_output=True)


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
