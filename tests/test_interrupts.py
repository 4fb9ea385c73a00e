"""Ctrl-C stops a long scan within a fraction of a second.

Each scan runs in a child process, whose inputs (up to a few hundred MB) stay out of the
test process. The test sends the child SIGINT once the call has run DELAY seconds (not a
thread of the child: no thread runs while a long call holds the GIL), and the call must
end in KeyboardInterrupt within LATENCY of the signal, counted in the child's CPU time so
that a busy machine does not stretch it. Left alone, every scan here runs for seconds (see
SCANS), so one that does not look for signals fails the bound by far.
Memory stays modest: code_chunks gets 300 MB of ASCII rather than 1 GB, and the line
scans reuse one str object for their millions of lines.

Also here: a large file is read from disk a slice at a time (for the checks between
slices); its lines must be the lines of the whole text.
"""

from __future__ import annotations

import json
import os
import random
import signal
import subprocess
import sys
import time
from pathlib import Path
from typing import Any

import pytest

import model
from velmora.storage import code_text as native

DELAY = 0.3
LATENCY = 0.5

PRELUDE = """
import itertools, json, re, signal, time
from velmora.storage import code_text as n
# A child started in the background inherits SIGINT ignored; Ctrl-C must raise here.
signal.signal(signal.SIGINT, signal.default_int_handler)
S = n.CODE_CHUNK_STRIDE

class Rows:
    # A database handle that answers every fetchall with the same rows.
    db_path = "/r/x/y/index.db"
    def __init__(self, rows):
        self.rows = rows
    def fetchall(self, sql, parameters=()):
        return self.rows()
"""

# A signal that the scan never looks for is raised at the first call after it at the latest.
RUN = """
print("go", flush=True)
try:
    {call}
    time.perf_counter()
    outcome = "finished"
except KeyboardInterrupt:
    outcome = "interrupted"
print(json.dumps({{"outcome": outcome, "cpu": time.process_time()}}), flush=True)
"""

# (setup, call); the comment says how long the call runs uninterrupted on a 2-core machine.
SCANS = {
    # 300M empty lines in 300 MB of ASCII, the slowest text to chunk per byte: ~2 s.
    "code_chunks": ('text = "\\n" * 300_000_000', "n.code_chunks(text)"),
    # 3M lines of 10 kB without the needle, in one next(): 30 GB scanned, ~3 s.
    "line_matches plain": ('lines = ["x" * 10_000] * 3_000_000', 'next(n.line_matches(lines, "y", None, True), None)'),
    # 20M lines that the host lower-cases one by one: ~3 s.
    "line_matches lower-cased": ('lines = ["\\u03a9\\u03bc\\u03ad\\u03b3\\u03b1 \\u03b1\\u03b2\\u03b3"] * 20_000_000',
                                 'next(n.line_matches(lines, "\\u0436", None, False), None)'),
    # 10M lines, each asked of pattern.search (no literal to skip lines by): ~4 s.
    "line_matches regex": ('lines = ["abcdefgh" * 4] * 10_000_000; pattern = re.compile(r"\\d\\d\\d")',
                           "next(n.line_matches(lines, None, pattern, True), None)"),
    # 6M numbered records: ~2 s.
    "context": ('lines = ["a"] * 6_000_000', "n.context(lines, 1, 10**12)"),
    # 200M chunk rows of a file not searched, from a C iterator: ~3 s.
    "_candidate_chunks": ("db = Rows(lambda: itertools.repeat((5 * S, 1, 1, 'a', True), 200_000_000))",
                          'n._candidate_chunks(db, "code_chunks", [(1, "f", "c", None)], None, True)'),
    # 60M one-line chunks of one file: ~2 s.
    "ChunkText.lines": ("db = Rows(lambda: itertools.repeat((1, 1, 'a'), 60_000_000))",
                        'n.ChunkText(db, "code_chunks", {}, None, ()).lines(1, "f")'),
    # One chunk text of 120M line feeds, split at each: ~2 s.
    "_chunk_lines": ('text = "\\n" * 120_000_000', "n._chunk_lines(1, 2, text)"),
    # A 200 MB file of 100M lines, decoded and split: ~1.5 s (the reader is stood in for).
    "_lines_holding": ('data = b"a\\n" * 100_000_000; n.read_bytes_no_follow = lambda path: data',
                       'n._lines_holding("big", None, True)'),
}


def cpu_seconds(pid: int) -> float:
    """The user and system time a process has run, from /proc."""
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def interrupted(script: str) -> dict[str, Any]:
    """Runs the script, sends it SIGINT DELAY seconds after it says "go"; what it reports,
    with the CPU time from the signal to the end of the call."""
    child = subprocess.Popen(
        [sys.executable, "-c", script], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
    )
    try:
        assert child.stdout is not None and child.stdout.readline() == "go\n"
        time.sleep(DELAY)
        sent = cpu_seconds(child.pid)
        child.send_signal(signal.SIGINT)
        out, err = child.communicate(timeout=120)
    finally:
        child.kill()
        child.wait()
    assert out, err
    report = json.loads(out.splitlines()[0])
    report["latency"] = report["cpu"] - sent
    return report


@pytest.mark.parametrize("scan", list(SCANS))
def test_a_long_scan_stops_at_ctrl_c(scan: str) -> None:
    setup, call = SCANS[scan]
    report = interrupted(PRELUDE + setup + "\n" + RUN.format(call=call))
    assert report["outcome"] == "interrupted", f"the call ended before the signal: {report}"
    assert report["latency"] < LATENCY, f"{scan} went on {report['latency']:.2f} s after Ctrl-C"


# --- Large files, read a slice at a time -------------------------------------------------

SLICE = 1 << 22  # bytes of a slice: a larger file is decoded and split slice by slice
PIECES = [
    b"a", b"xyz", b"\n", b"\r", b"\r\n", b"\x0b", b"\x0c", b"\x1c", b"\x1e", b"\x00",
    "é".encode(), "😀".encode(), "\u2028".encode(), "\x85".encode(), "\u212a".encode(),
    b"\xff", b"\x85", b"\xe2\x82", b"\xe2\x85", b"\xf0\x9f\x98", b"\xed\xa0\x80", b"\xc2",
]
SEARCHES = [(None, True), ("", True), ("xyz", True), ("k", False)]


@pytest.mark.parametrize("seed", range(12))
def test_a_large_file_splits_as_a_whole(tmp_path: Path, seed: int) -> None:
    # One long line up to just before the end of the first slice, then random pieces, so
    # that the cut falls among every kind of byte; then more slices' worth of them.
    chooser = random.Random(seed)
    pieces = [chooser.choice(PIECES) for _ in range(40 + 1_500_000 * (seed % 2))]
    data = b"q" * (SLICE - 2 * chooser.randrange(30)) + b"".join(pieces) + b"\r"
    path = tmp_path / "big"
    path.write_bytes(data)
    needle, case_sensitive = SEARCHES[seed % len(SEARCHES)]
    got = native._lines_holding(path, needle, case_sensitive)
    assert got == model._lines_holding(path, needle, case_sensitive) and got is not None
