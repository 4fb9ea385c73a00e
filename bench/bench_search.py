"""`velmora search code` beside rg on the benchmark corpora, both layouts, and a chart of it.

For each corpus (bench/corpus.py) and layout, a copy of the tree is indexed once (kept with
--keep, so that later runs reuse it), then each query runs as a program, velmora and rg taking
turns, warm cache; the table gives the median wall time of each, their ratio against the goal
of the search-speed issue, the lines printed, and velmora's peak resident size (/usr/bin/time
-v). The regex without a literal also runs as `git grep -P`, its other yardstick. The ratios
are drawn as bench/search_ratios.png (matplotlib, from the bench extra).

With --lines, the queries that every line of the corpus costs (a common word, a pair, bare
regexes) run instead, with the CPU time (user + sys) of each command beside its wall time;
--before SRC runs the command of another source tree (its src/, modules built) beside this
one, for a before-and-after table in one interleaved run; --server sends velmora's searches
through the repository's background server instead (started by the first, stopped at the
end; the CPU time is then the client's alone). The load average is printed with every
table: the machine may be shared.
Usage: bench_search.py [--corpus stdlib|large ...] [--layout L ...] [--repeats N] [--keep DIR]
                       [--lines [--before SRC | --server]]
"""

from __future__ import annotations

import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

BENCH = Path(__file__).resolve().parent
CHART = BENCH / "search_ratios.png"

# label, the flags and pattern as rg takes them (velmora takes the same), goal on the large
# corpus (velmora / rg wall; None: measured against git grep -P instead).
QUERIES = [
    ("selective literal", ["-F", "TextWrapper"], 0.3),
    ("literal, ~200 hits", ["-F", "import textwrap"], 0.5),
    ("common literal", ["-F", "self"], 1.0),
    ("-i ASCII", ["-i", "-F", "textwrapper"], 0.5),
    ("non-ASCII literal", ["-F", "Größe"], 0.5),
    ("non-ASCII, -i", ["-i", "-F", "größe"], 0.5),
    ("two characters", ["-F", "xy"], 1.0),
    ("regex with a literal", [r"def \w+_cache\("], 0.5),
    ("regex without one", [r"\b[A-Z]{4,}\d\b"], None),
]
# The line-by-line queries: label, flags and pattern as rg takes them.
LINE_QUERIES = [
    ("common literal", ["-F", "self"]),
    ("two characters", ["-F", "ns"]),
    ("regex, no literal", [r"[A-Z]{4}_[0-9]{3}\b"]),
    ("regex with a literal", [r"def \w+_facts\("]),
    ("-i, ASCII", ["-i", "-F", "textwrapper"]),
]
GIT_GREP_GOAL = 1.5  # the regex without a literal, against git grep -P
STDLIB_GOAL = 1.5  # every query on the standard library


def program_env(source: Path = BENCH.parent) -> dict[str, str]:
    """The command's environment as an installed package has it: bytecode compiled once and
    kept, output buffered; the package from ``source``."""
    env = {k: v for k, v in os.environ.items() if k not in ("PYTHONDONTWRITEBYTECODE", "PYTHONUNBUFFERED")}
    env["PYTHONPATH"] = str(source / "src")
    env["PYTHONPYCACHEPREFIX"] = str(Path(tempfile.gettempdir()) / "velmora-bench-pycache" / source.name)
    return env


def run(argv: list[str], cwd: Path, env: dict[str, str] | None) -> tuple[float, int, int, float]:
    """Wall time, lines printed, peak resident size (MB) and CPU time (user + sys) of one run."""
    start = time.perf_counter()
    child = subprocess.Popen(
        ["/usr/bin/time", "-v", *argv], cwd=cwd, env=env,
        stdout=subprocess.PIPE, stderr=subprocess.PIPE,
    )
    lines = sum(block.count(b"\n") for block in iter(lambda: child.stdout.read(1 << 20), b""))
    report = child.stderr.read().decode(errors="replace")
    child.wait()
    elapsed = time.perf_counter() - start
    reported = {key.strip(): value.strip() for key, _, value in (line.partition(": ") for line in report.splitlines())}
    peak = int(reported.get("Maximum resident set size (kbytes)", 0))
    cpu = float(reported.get("User time (seconds)", 0)) + float(reported.get("System time (seconds)", 0))
    return elapsed, lines, peak // 1024, cpu


def medians(
    commands: list[tuple[list[str], dict | None]], cwd: Path, repeats: int
) -> list[tuple[float, int, int, float]]:
    """Per command: median wall time, lines printed, largest peak, median CPU time; the
    commands take turns."""
    runs: list[list[tuple[float, int, int, float]]] = [[] for _ in commands]
    for turn in range(repeats + 1):  # the first turn warms the cache
        for k, (argv, env) in enumerate(commands):
            result = run(argv, cwd, env)
            if turn:
                runs[k].append(result)
    return [
        (statistics.median(r[0] for r in rs), rs[-1][1], max(r[2] for r in rs), statistics.median(r[3] for r in rs))
        for rs in runs
    ]


def indexed_copy(corpus: str, layout: str, work: Path, env: dict[str, str]) -> Path:
    """A copy of the corpus indexed in the layout (the corpus itself is never written)."""
    source = Path(
        subprocess.run(
            [sys.executable, str(BENCH / "corpus.py"), corpus], capture_output=True, text=True, check=True
        ).stdout.split("\t")[0].strip()
    )
    tree = work / f"{corpus}-{layout}"
    if not (tree / ".velmora").exists():
        shutil.rmtree(tree, ignore_errors=True)
        shutil.copytree(source, tree, symlinks=True)
        started = time.perf_counter()
        subprocess.run(
            [sys.executable, "-m", "velmora.cli", "index", "--layout", layout, "."],
            cwd=tree, env=env, check=True, stdout=subprocess.DEVNULL,
        )
        print(f"indexed {corpus} ({layout}) in {time.perf_counter() - started:.0f} s", flush=True)
    return tree


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--corpus", action="append", choices=("stdlib", "large"))
    parser.add_argument("--layout", action="append", choices=("compressed", "code_chunks"))
    parser.add_argument("--repeats", type=int, default=5)
    parser.add_argument("--keep", type=Path, help="keep the indexed copies here, for later runs")
    parser.add_argument("--lines", action="store_true", help="the line-by-line queries, with CPU time")
    parser.add_argument("--before", type=Path, help="with --lines: the source tree to compare with")
    parser.add_argument("--server", action="store_true", help="with --lines: through the background server")
    args = parser.parse_args()
    if args.server and args.before:
        parser.error("--server and --before exclude one another: the two would share one server")
    if args.lines:
        line_table(args)
        return
    work = args.keep or Path(tempfile.mkdtemp(prefix="velmora-bench-"))
    env = program_env()
    rg, git = shutil.which("rg"), shutil.which("git")
    assert rg and git, "rg and git are needed"
    velmora = [sys.executable, "-m", "velmora.cli", "search", "code", "--no-server"]
    ratios: dict[str, list[float]] = {}
    print(f"{'corpus':<7} {'layout':<12} {'query':<21} {'velmora':>8} {'rg':>8} {'ratio':>6} "
          f"{'goal':>5}  {'lines':>15}  peak MB")
    try:
        for corpus in args.corpus or ["stdlib", "large"]:
            for layout in args.layout or ["compressed", "code_chunks"]:
                tree = indexed_copy(corpus, layout, work, env)
                column = ratios.setdefault(f"{corpus}, {layout}", [])
                for label, flags, goal in QUERIES:
                    commands = [
                        ([*velmora, *flags[:-1], "--", flags[-1]], env),
                        ([rg, "-n", "--column", *flags[:-1], "--", flags[-1]], None),
                    ]
                    if goal is None:
                        commands.append(([git, "grep", "-n", "--column", "-P", flags[-1]], None))
                    (ours, lines, peak, _), (theirs, their_lines, _, _), *grep = medians(
                        commands, tree, args.repeats
                    )
                    goal = STDLIB_GOAL if corpus == "stdlib" else goal
                    yardstick = grep[0][0] if goal is None else theirs
                    goal = GIT_GREP_GOAL if goal is None else goal
                    ratio = ours / yardstick
                    column.append(ratio)
                    mark = "" if ratio <= goal else " (goal not met)"
                    against = " vs git grep -P" if grep and corpus != "stdlib" else ""
                    print(f"{corpus:<7} {layout:<12} {label:<21} {ours:7.2f}s {theirs:7.2f}s "
                          f"{ratio:6.2f} {goal:5.1f}  {lines:>7}/{their_lines:<7}  {peak}{mark}{against}",
                          flush=True)
    finally:
        if not args.keep:
            shutil.rmtree(work, ignore_errors=True)
    chart(ratios)


def line_table(args: argparse.Namespace) -> None:
    """The line-by-line queries: velmora (and the tree --before) beside rg, wall and CPU."""
    work = args.keep or Path(tempfile.mkdtemp(prefix="velmora-bench-"))
    env = program_env()
    rg = shutil.which("rg")
    assert rg, "rg is needed"
    velmora = [sys.executable, "-m", "velmora.cli", "search", "code", *([] if args.server else ["--no-server"])]
    programs = [("velmora", env)] + ([("before", program_env(args.before.resolve()))] if args.before else [])
    print(f"load average {os.getloadavg()[0]:.2f}, {os.cpu_count()} cores; wall s (CPU s), "
          f"median of {args.repeats}; ratios are wall ÷ rg wall")
    print(f"{'corpus':<7} {'query':<21} " + " ".join(f"{name:>15}" for name, _ in programs)
          + f" {'rg':>15} " + " ".join(f"{'÷ rg ' + name:>14}" for name, _ in programs) + f"  {'lines':>15}  peak MB")
    try:
        for corpus in args.corpus or ["stdlib", "large"]:
            for layout in args.layout or ["compressed"]:
                tree = indexed_copy(corpus, layout, work, env)
                try:
                    for label, flags in LINE_QUERIES:
                        commands = [([*velmora, *flags[:-1], "--", flags[-1]], e) for _, e in programs]
                        commands.append(([rg, "-n", "--column", *flags[:-1], "--", flags[-1]], None))
                        *ours, theirs = medians(commands, tree, args.repeats)
                        times = " ".join(f"{wall:6.2f} ({cpu:5.2f})" for wall, _, _, cpu in [*ours, theirs])
                        ratios = " ".join(f"{wall / theirs[0]:14.2f}" for wall, *_ in ours)
                        print(f"{corpus:<7} {label:<21} {times} {ratios}  {ours[0][1]:>7}/{theirs[1]:<7}  "
                              f"{ours[0][2]}", flush=True)
                finally:
                    if args.server:
                        subprocess.run([sys.executable, "-m", "velmora.cli", "stop"], cwd=tree, env=env,
                                       capture_output=True)
        print(f"load average {os.getloadavg()[0]:.2f}")
    finally:
        if not args.keep:
            shutil.rmtree(work, ignore_errors=True)


def chart(ratios: dict[str, list[float]]) -> None:
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot

    labels = [label for label, _, _ in QUERIES]
    figure, axes = pyplot.subplots(figsize=(11, 4.5))
    width = 0.8 / max(1, len(ratios))
    for k, (name, values) in enumerate(ratios.items()):
        axes.bar([i + k * width for i in range(len(values))], values, width, label=name)
    axes.axhline(1.0, color="black", linewidth=0.8)
    axes.set_xticks([i + width * (len(ratios) - 1) / 2 for i in range(len(labels))], labels,
                    rotation=20, ha="right")
    axes.set_ylabel("velmora wall ÷ rg wall\n(large, last query: ÷ git grep -P)")
    axes.set_yscale("log")
    axes.legend()
    figure.tight_layout()
    figure.savefig(CHART, dpi=100)
    print(f"chart: {CHART}")


if __name__ == "__main__":
    main()
