"""Reading files from disk, line matching and context: the model's time over the module's,
over every .py file of the running interpreter's standard library, and the case-ignoring
scan's throughput beside `rg -i -F` on the same files.

Run from the repository root: PYTHONPATH=src python3 bench/bench_disk_matching.py
"""

from __future__ import annotations

import argparse
import os
import re
import shutil
import subprocess
import time
from collections import deque
from itertools import starmap
from pathlib import Path
from typing import Callable

from common import best_time, model, native, report, stdlib_files

ABSENT = "velmora_absent_needle"  # lower-case, so it is a valid case-ignoring needle
PLAIN = "return"
REGEX = re.compile(r"def \w+\(self")


def ripgrep() -> str | None:
    """The rg binary; installed from Debian's packages when missing and we may."""
    found = shutil.which("rg")
    if found or not hasattr(os, "geteuid") or os.geteuid() != 0 or not shutil.which("apt-get"):
        if not found:
            print("rg not found: install it with `apt-get install -y ripgrep` to compare.\n")
        return found
    print("rg not found: apt-get install -y ripgrep ...")
    quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
    if subprocess.run(["apt-get", "install", "-y", "ripgrep"], **quiet).returncode != 0:
        subprocess.run(["apt-get", "update"], **quiet)
        subprocess.run(["apt-get", "install", "-y", "ripgrep"], **quiet)
    return shutil.which("rg")


def command_time(argv: list[str], repeats: int) -> float:
    best = float("inf")
    for _ in range(repeats):
        start = time.perf_counter()
        done = subprocess.run(argv, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        best = min(best, time.perf_counter() - start)
        assert done.returncode in (0, 1), argv  # 1: nothing found
    return best


def each_file(fn: Callable[[Path], object], files: list[Path]) -> Callable[[], None]:
    def run() -> None:
        for path in files:
            fn(path)

    return run


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--repeats", type=int, default=5)
    repeats = parser.parse_args().repeats

    files = stdlib_files()
    size = sum(path.stat().st_size for path in files)
    lines = [model._lines_holding(path, None, True) or [] for path in files]
    for path in files:  # an absent needle must really be absent
        assert model._lines_holding(path, ABSENT, False) is None
    matches = [list(model.line_matches(file_lines, PLAIN, None, False)) for file_lines in lines]
    print(f"inputs: {len(files)} stdlib .py files, {size / 1e6:.1f} MB, {sum(map(len, lines))} lines, "
          f"{sum(map(len, matches))} lines holding {PLAIN!r}; best of {repeats}\n")

    for case_sensitive in (False, True):
        label = "case kept" if case_sensitive else "case ignored"
        report(
            f"_lines_holding, absent needle, {label}",
            each_file(lambda p: model._lines_holding(p, ABSENT, case_sensitive), files),
            each_file(lambda p: native._lines_holding(p, ABSENT, case_sensitive), files),
            goal=2, repeats=repeats,
        )
    # Both read every file through the host's reader: its time is the floor of either side.
    reading = kept = float("inf")
    for _ in range(repeats):
        reading = min(reading, best_time(each_file(native.read_bytes_no_follow, files), 1))
        kept = min(kept, best_time(each_file(lambda p: native._lines_holding(p, ABSENT, True), files), 1))
    print(f"  the host's read_bytes_no_follow alone: {reading * 1e3:.2f} ms, "
          f"beside native case kept {kept * 1e3:.2f} ms (the floor of both sides)")

    def matching(impl, needle, pattern):
        return lambda: [list(impl.line_matches(file_lines, needle, pattern, False)) for file_lines in lines]

    report(f"line_matches, plain {PLAIN!r}, case ignored", matching(model, PLAIN, None),
           matching(native, PLAIN, None), goal=8, repeats=repeats)
    report(f"line_matches, regex {REGEX.pattern!r}", matching(model, None, REGEX),
           matching(native, None, REGEX), goal=1.5, repeats=repeats)

    # The calls are laid out beforehand, so the loop around them costs next to nothing.
    requests = [(file_lines, number - 2, number + 2, 1)
                for file_lines, found in zip(lines, matches) for number, _ in found]

    def around(impl):
        return lambda: deque(starmap(impl.context, requests), maxlen=0)

    report("context, 5 lines around each match", around(model), around(native), goal=3, repeats=repeats)

    # Throughput of the case-ignoring scan: read, decode (or not), search, on every file.
    print("\ncase-ignoring scan for an absent needle over the same files:")
    for name, impl in (("model", model), ("native", native)):
        spent = best_time(each_file(lambda p: impl._lines_holding(p, ABSENT, False), files), repeats)
        print(f"  {name:<28} {size / 1e6 / spent:8.0f} MB/s  ({spent * 1e3:7.1f} ms)")
    rg = ripgrep()
    if rg:
        names = [str(path) for path in files]
        for threads in ("1", "0"):
            argv = [rg, "-i", "-F", "-l", "--no-ignore", "--no-config", "-j", threads, "--", ABSENT, *names]
            spent = command_time(argv, repeats)
            label = f"rg -i -F ({'one thread' if threads == '1' else 'all threads'})"
            print(f"  {label:<28} {size / 1e6 / spent:8.0f} MB/s  ({spent * 1e3:7.1f} ms, one process)")


if __name__ == "__main__":
    main()
