"""`velmora index` and `velmora search code` on real trees, beside ripgrep.

Trees: the interpreter's standard library, and the same copied several times over.  Prints
the indexing rate and, per query, the best wall time of the command against `rg` (both run
as programs, warm cache, taking turns so that a change of load weighs on both alike), with
the command's peak resident size, and the time of an interpreter that does nothing, the
floor of any command written in Python.
Usage: bench_search.py [--copies N] [--layout L ...] [--keep DIR]
"""

from __future__ import annotations

import argparse
import os
import shutil
import subprocess
import sys
import sysconfig
import tempfile
import threading
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


def program_env(cache: Path) -> dict[str, str]:
    """The environment of the command as a user runs it from an installed package.

    An installed package comes with its bytecode compiled, and its output is buffered;
    a shell that says PYTHONDONTWRITEBYTECODE or PYTHONUNBUFFERED would otherwise make every
    run compile the package again and write each line with a system call of its own.
    """
    env = {k: v for k, v in os.environ.items() if k not in ("PYTHONDONTWRITEBYTECODE", "PYTHONUNBUFFERED")}
    env["PYTHONPYCACHEPREFIX"] = str(cache)
    return env


def run(argv: list[str], env: dict[str, str] | None = None) -> tuple[float, int, int]:
    """Wall time, lines printed and peak resident size (MB) of one run of a command."""
    start = time.perf_counter()
    child = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=env)
    peak = [0]
    watch = threading.Thread(target=_watch_peak, args=(child.pid, peak), daemon=True)
    watch.start()
    lines = sum(block.count(b"\n") for block in iter(lambda: child.stdout.read(1 << 20), b""))
    child.wait()
    elapsed = time.perf_counter() - start
    watch.join()
    return elapsed, lines, peak[0] // 1024


def _watch_peak(pid: int, peak: list[int]) -> None:
    # The child's own high-water mark (kB), read until it exits.  (The rusage of a child
    # would not do: its maximum counts the parent's pages from before the exec.)
    while True:
        try:
            with open(f"/proc/{pid}/status") as status:
                for line in status:
                    if line.startswith("VmHWM:"):
                        peak[0] = max(peak[0], int(line.split()[1]))
        except (OSError, ValueError):
            return
        if not os.path.exists(f"/proc/{pid}/status"):
            return
        time.sleep(0.002)


def best(commands: list[tuple[list[str], dict[str, str] | None]], repeats: int) -> list[tuple[float, int, int]]:
    """Per command: best wall time, lines printed, peak resident size; runs take turns."""
    runs: list[list[tuple[float, int, int]]] = [[] for _ in commands]
    for turn in range(repeats + 1):  # the first turn warms the cache
        for k, (argv, env) in enumerate(commands):
            result = run(argv, env)
            if turn:
                runs[k].append(result)
    return [(min(r[0] for r in rs), rs[-1][1], max(r[2] for r in rs)) for rs in runs]


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

    env = program_env(work / "pycache")
    floor, _, _ = best([([sys.executable, "-c", "pass"], env)], args.repeats)[0]
    print(f"interpreter start-up (python -c pass): {floor * 1e3:.0f}ms")
    print(f"{'tree':<12} {'layout':<12} {'query':<22} {'velmora':>9} {'rg':>9} {'rg/velmora':>10}  "
          "lines  peak MB")
    for layout in layouts:
        for name, root in trees.items():
            shutil.rmtree(root / ".velmora", ignore_errors=True)
            summary = indexer.index(root, layout, progress=False)
            print(f"{name:<12} {layout:<12} {'index':<22} {summary.seconds:8.1f}s "
                  f"{summary.bytes / 1e6 / summary.seconds:6.1f} MB/s ({summary.bytes / 1e6:.0f} MB)")
            for label, flags, query in QUERIES:
                commands = [([sys.executable, "-m", "velmora.cli", "search", "code", *flags, "--", query, str(root)], env)]
                if rg:
                    rg_flags = [f for f in flags if f != "--regex"] + ([] if "--regex" in flags else ["-F"])
                    commands.append(([rg, "-n", "--column", *rg_flags, "--", query, str(root)], None))
                (ours, ours_lines, peak), *theirs = best(commands, args.repeats)
                line = f"{name:<12} {layout:<12} {label:<22} {ours * 1e3:7.0f}ms"
                if theirs:
                    their_time, their_lines, _ = theirs[0]
                    line += f" {their_time * 1e3:7.0f}ms {their_time / ours:9.2f}x  {ours_lines} / {their_lines}"
                print(f"{line}  {peak}", flush=True)
    if not args.keep:
        shutil.rmtree(work)


if __name__ == "__main__":
    main()
