"""`velmora search code` beside rg on the benchmark corpora, both layouts, and a chart of it.

For each corpus (bench/corpus.py) and layout, a copy of the tree is indexed once (kept with
--keep, so that later runs reuse it), then each query runs as a program, velmora and rg taking
turns, warm cache; the table gives the median wall time of each, their ratio against the goal
of the search-speed issue, the lines printed, and velmora's peak resident size (/usr/bin/time
-v). The regex without a literal also runs as `git grep -P`, its other yardstick. The ratios
are drawn as bench/search_ratios.png (matplotlib, from the bench extra).

With --lines, the queries that every line of the corpus costs (a common word, a pair, bare
regexes, and the common word in the default layout) run instead. Every table gives the CPU time
(user + sys) of each command beside its wall time. --before SRC runs the command of another
source tree (its src/, modules built) beside this one, for a before-and-after table in one
interleaved run; --server sends velmora's searches through the repository's background server
(started by the first search, stopped at the end; the CPU time is then the client's alone),
each source tree with its own copy of the indexed tree, so that each has its own server. The
command runs as the installed `velmora` script runs it (`from velmora.client import main; main()`). The load average is
printed with every table: the machine may be shared.
Usage: bench_search.py [--corpus stdlib|large ...] [--layout L ...] [--repeats N] [--keep DIR]
                       [--lines] [--before SRC] [--server]
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
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import NamedTuple

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
    ("common literal", ["-n", "--column", "-F", "self"]),
    ("two characters", ["-n", "--column", "-F", "ns"]),
    ("regex, no literal", ["-n", "--column", r"[A-Z]{4}_[0-9]{3}\b"]),
    ("regex with a literal", ["-n", "--column", r"def \w+_facts\("]),
    ("-i, ASCII", ["-n", "--column", "-i", "-F", "textwrapper"]),
    ("common, default", ["-F", "self"]),  # the layout a pipe gets without flags: path:text
]
RG = shutil.which("rg") or "rg"
GIT_GREP_GOAL = 1.5  # the regex without a literal, against git grep -P
STDLIB_GOAL = 1.5  # every query on the standard library


def program_env(source: Path = BENCH.parent) -> dict[str, str]:
    """The command's environment as an installed package has it: bytecode compiled once and
    kept, output buffered; the package from ``source``."""
    env = {k: v for k, v in os.environ.items() if k not in ("PYTHONDONTWRITEBYTECODE", "PYTHONUNBUFFERED")}
    env["PYTHONPATH"] = str(source / "src")
    env["PYTHONPYCACHEPREFIX"] = str(Path(tempfile.gettempdir()) / "velmora-bench-pycache" / source.name)
    return env


class Program(NamedTuple):
    """A velmora to time: its name in the table and its environment (its source tree)."""

    name: str
    env: dict[str, str]


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
    commands: list[tuple[list[str], dict | None, Path]], repeats: int
) -> list[tuple[float, int, int, float]]:
    """Per command (argv, environment, directory): median wall time, lines printed, largest
    peak, median CPU time; the commands take turns."""
    runs: list[list[tuple[float, int, int, float]]] = [[] for _ in commands]
    for turn in range(repeats + 1):  # the first turn warms the cache (and starts the servers)
        for k, (argv, env, cwd) in enumerate(commands):
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


def trees(corpus: str, layout: str, work: Path, programs: list[Program], server: bool) -> list[Path]:
    """The indexed tree each program searches: the same one, or through servers a copy each
    (a repository has one server)."""
    tree = indexed_copy(corpus, layout, work, programs[0].env)
    if not server:
        return [tree] * len(programs)
    copies = [tree]
    for program in programs[1:]:
        copy = work / f"{tree.name}-{program.name}"
        if not (copy / ".velmora").exists():
            shutil.rmtree(copy, ignore_errors=True)
            subprocess.run(["cp", "-a", str(tree), str(copy)], check=True)
        # The copy's files have new inodes: its index takes them in before the first search.
        subprocess.run([sys.executable, "-m", "velmora.cli", "index", "."], cwd=copy, env=program.env,
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        copies.append(copy)
    return copies


@contextmanager
def searched_trees(args, work: Path, programs: list[Program], corpus: str, layout: str) -> Iterator[list[Path]]:
    """The trees the programs search (``trees``); their servers stopped at the end."""
    searched = trees(corpus, layout, work, programs, args.server)
    try:
        yield searched
    finally:
        for program, tree in zip(programs, searched if args.server else []):
            subprocess.run([sys.executable, "-m", "velmora.cli", "stop"], cwd=tree, env=program.env,
                           capture_output=True)


def velmora_argv(server: bool) -> list[str]:
    # As the installed script runs it: the client first, the full command behind it.
    return [sys.executable, "-c", "from velmora.client import main; main()", "search", "code", *([] if server else ["--no-server"])]


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--corpus", action="append", choices=("stdlib", "large"))
    parser.add_argument("--layout", action="append", choices=("compressed", "code_chunks"))
    parser.add_argument("--repeats", type=int, default=5)
    parser.add_argument("--keep", type=Path, help="keep the indexed copies here, for later runs")
    parser.add_argument("--lines", action="store_true", help="the line-by-line queries")
    parser.add_argument("--before", type=Path, help="the source tree to compare with")
    parser.add_argument("--server", action="store_true", help="through the background servers")
    args = parser.parse_args()
    work = args.keep or Path(tempfile.mkdtemp(prefix="velmora-bench-"))
    programs = [Program("velmora", program_env())]
    if args.before:
        programs.append(Program("before", program_env(args.before.resolve())))
    try:
        if args.lines:
            line_table(args, work, programs)
        else:
            query_table(args, work, programs)
    finally:
        if not args.keep:
            shutil.rmtree(work, ignore_errors=True)


def _header(programs: list[Program], first: str, tail: str) -> None:
    print(f"load average {os.getloadavg()[0]:.2f}, {os.cpu_count()} cores; wall s (CPU s), median of "
          f"runs taking turns; ratios are wall ÷ rg wall")
    print(first + " ".join(f"{p.name:>15}" for p in programs) + f" {'rg':>15} "
          + " ".join(f"{'÷ rg ' + p.name:>14}" for p in programs) + tail)


def _timed(flags: list[str], args, programs: list[Program], searched: list[Path], extra=()):
    """The medians of each program's search, rg's, and those of ``extra`` commands."""
    commands = [([*velmora_argv(args.server), *flags[:-1], "--", flags[-1]], p.env, tree)
                for p, tree in zip(programs, searched)]
    commands.append(([RG, *flags[:-1], "--", flags[-1]], None, searched[0]))
    commands += [(argv, None, searched[0]) for argv in extra]
    timed = medians(commands, args.repeats)
    return timed[: len(programs)], timed[len(programs)], timed[len(programs) + 1 :]


def _times(ours, theirs) -> str:
    return " ".join(f"{wall:6.2f} ({cpu:5.2f})" for wall, _, _, cpu in [*ours, theirs])


def query_table(args: argparse.Namespace, work: Path, programs: list[Program]) -> None:
    """The queries of every kind, each against its goal, and a chart of the ratios."""
    git = shutil.which("git")
    assert git, "git is needed"
    ratios: dict[str, list[float]] = {}
    _header(programs, f"{'corpus':<7} {'layout':<12} {'query':<21} ", f" {'goal':>5}  {'lines':>15}  peak MB")
    for corpus in args.corpus or ["stdlib", "large"]:
        for layout in args.layout or ["compressed", "code_chunks"]:
            column = ratios.setdefault(f"{corpus}, {layout}", [])
            with searched_trees(args, work, programs, corpus, layout) as searched:
                for label, flags, goal in QUERIES:
                    flags = ["-n", "--column", *flags]
                    extra = [[git, "grep", "-n", "--column", "-P", flags[-1]]] if goal is None else []
                    ours, theirs, grep = _timed(flags, args, programs, searched, extra)
                    goal = STDLIB_GOAL if corpus == "stdlib" else goal
                    yardstick = grep[0][0] if goal is None else theirs[0]
                    goal = GIT_GREP_GOAL if goal is None else goal
                    column.append(ours[0][0] / yardstick)
                    mark = "" if column[-1] <= goal else " (goal not met)"
                    against = " vs git grep -P" if grep and corpus != "stdlib" else ""
                    ratio = " ".join(f"{wall / yardstick:14.2f}" for wall, *_ in ours)
                    print(f"{corpus:<7} {layout:<12} {label:<21} {_times(ours, theirs)} {ratio} {goal:5.1f}  "
                          f"{ours[0][1]:>7}/{theirs[1]:<7}  {ours[0][2]}{mark}{against}", flush=True)
    print(f"load average {os.getloadavg()[0]:.2f}")
    chart(ratios)


def line_table(args: argparse.Namespace, work: Path, programs: list[Program]) -> None:
    """The line-by-line queries: each program beside rg."""
    _header(programs, f"{'corpus':<7} {'query':<21} ", f"  {'lines':>15}  peak MB")
    for corpus in args.corpus or ["stdlib", "large"]:
        for layout in args.layout or ["compressed"]:
            with searched_trees(args, work, programs, corpus, layout) as searched:
                for label, flags in LINE_QUERIES:
                    ours, theirs, _ = _timed(flags, args, programs, searched)
                    ratios = " ".join(f"{wall / theirs[0]:14.2f}" for wall, *_ in ours)
                    print(f"{corpus:<7} {label:<21} {_times(ours, theirs)} {ratios}  {ours[0][1]:>7}/{theirs[1]:<7}  "
                          f"{ours[0][2]}", flush=True)
    print(f"load average {os.getloadavg()[0]:.2f}")


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
