"""`velmora index` and `velmora search code` on real trees, beside ripgrep.

Trees: the interpreter's standard library, and the same copied several times over.  Prints
the indexing rate and, per query, the best wall time of the command against `rg` (both run
as programs, warm cache).  Usage: bench_search.py [--copies N] [--layout L ...] [--keep DIR]
"""

from __future__ import annotations

import argparse
import shutil
import subprocess
import sys
import sysconfig
import tempfile
import time
from pathlib import Path

from velmora import indexer

QUERIES = [
    ("selective literal", [], "TextWrapper"),
    ("common literal", [], "return"),
    ("case-ignoring literal", ["-i"], "textwrapper"),
    ("regex", ["--regex"], r"def \w+_lock\("),
]


def copy_stdlib(target: Path) -> None:
    shutil.copytree(
        sysconfig.get_paths()["stdlib"], target,
        ignore=shutil.ignore_patterns("site-packages", "__pycache__", "*.pyc"),
    )


def best(argv: list[str], repeats: int) -> tuple[float, int]:
    """The best wall time of a command, and the number of lines it printed."""
    times, lines = [], 0
    for _ in range(repeats + 1):  # the first run warms the cache
        start = time.perf_counter()
        done = subprocess.run(argv, capture_output=True)
        times.append(time.perf_counter() - start)
        lines = done.stdout.count(b"\n")
    return min(times[1:]), lines


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--copies", type=int, default=4)
    parser.add_argument("--layout", action="append", choices=("code_chunks", "compressed"))
    parser.add_argument("--repeats", type=int, default=5)
    parser.add_argument("--keep", type=Path, help="build the trees here and keep them")
    args = parser.parse_args()
    layouts = args.layout or ["code_chunks", "compressed"]
    work = args.keep or Path(tempfile.mkdtemp(prefix="velmora-bench-"))
    rg = shutil.which("rg")

    trees = {"stdlib": work / "stdlib", f"stdlib x{args.copies}": work / "stdlib_copies"}
    if not trees["stdlib"].exists():
        copy_stdlib(trees["stdlib"])
    if not trees[f"stdlib x{args.copies}"].exists():
        for n in range(args.copies):
            copy_stdlib(trees[f"stdlib x{args.copies}"] / f"copy{n}")

    print(f"{'tree':<12} {'layout':<12} {'query':<22} {'velmora':>9} {'rg':>9} {'rg/velmora':>10}  lines")
    for layout in layouts:
        for name, root in trees.items():
            shutil.rmtree(root / ".velmora", ignore_errors=True)
            summary = indexer.index(root, layout, progress=False)
            print(f"{name:<12} {layout:<12} {'index':<22} {summary.seconds:8.1f}s "
                  f"{summary.bytes / 1e6 / summary.seconds:6.1f} MB/s ({summary.bytes / 1e6:.0f} MB)")
            for label, flags, query in QUERIES:
                ours, ours_lines = best(
                    [sys.executable, "-m", "velmora.cli", "search", "code", *flags, "--", query, str(root)],
                    args.repeats,
                )
                line = f"{name:<12} {layout:<12} {label:<22} {ours * 1e3:7.0f}ms"
                if rg:
                    rg_flags = [f for f in flags if f != "--regex"] + ([] if "--regex" in flags else ["-F"])
                    theirs, their_lines = best([rg, "-n", "--column", *rg_flags, "--", query, str(root)], args.repeats)
                    line += f" {theirs * 1e3:7.0f}ms {theirs / ours:9.2f}x  {ours_lines} / {their_lines}"
                print(line, flush=True)
    if not args.keep:
        shutil.rmtree(work)


if __name__ == "__main__":
    main()
