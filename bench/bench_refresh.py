"""The freshness check that runs before every search: its cost on an unchanged tree, and a
search with and without it.

The tree: the first 20,000 files under 64 KiB of the large corpus (bench/corpus.py), copied
into a fresh git work tree and indexed. Prints the median of interleaved runs for: the stat
check alone, a selective search through the Python API with and without it, the same as a
command, and a search after one file was edited (check plus the index brought up to date).
Usage: bench_refresh.py [--files N] [--runs N] [--keep DIR]
"""

from __future__ import annotations

import argparse
import os
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from velmora.index import build as indexer, freshness as refresh
from velmora.api import Repository
from velmora.query.pattern import Query

NEEDLE = "PyErr_SetString"


def corpus() -> Path:
    done = subprocess.run(
        [sys.executable, str(Path(__file__).with_name("corpus.py")), "large"],
        capture_output=True, text=True, check=True,
    )
    return Path(done.stdout.split("\t")[0].strip())


def make_tree(source: Path, target: Path, count: int) -> None:
    listed = subprocess.run(
        ["git", "ls-files", "-z"], cwd=source, capture_output=True, check=True
    ).stdout.split(b"\0")
    copied = 0
    for raw in listed:
        if copied == count:
            break
        path = os.fsdecode(raw)
        if not path or (source / path).is_symlink() or (source / path).stat().st_size >= 65536:
            continue
        (target / path).parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(source / path, target / path)
        copied += 1
    subprocess.run(["git", "init", "-q", str(target)], check=True)
    subprocess.run(["git", "-C", str(target), "add", "-A"], check=True)


def median_ms(runs: int, *steps) -> list[tuple[float, float]]:
    """Each step's median wall and CPU time (its own and its children's), the steps taken in
    turn so that load weighs on all; CPU time is the figure to trust on a busy machine."""
    times: list[list[tuple[float, float]]] = [[] for _ in steps]
    for _ in range(runs):
        for spent, step in zip(times, steps):
            started, cpu = time.perf_counter(), _cpu()
            step()
            spent.append((time.perf_counter() - started, _cpu() - cpu))
    return [
        (statistics.median(w for w, _ in spent) * 1000,
         statistics.median(c for _, c in spent) * 1000)
        for spent in times
    ]


def _cpu() -> float:
    own = resource.getrusage(resource.RUSAGE_SELF)
    children = resource.getrusage(resource.RUSAGE_CHILDREN)
    return own.ru_utime + own.ru_stime + children.ru_utime + children.ru_stime


def shown(figures: tuple[float, float]) -> str:
    return f"{figures[0]:.0f} ms wall ({figures[1]:.0f} ms CPU)"


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--files", type=int, default=20_000)
    parser.add_argument("--runs", type=int, default=15)
    parser.add_argument("--keep", type=Path, help="build the tree here and keep it")
    args = parser.parse_args()
    root = args.keep or Path(tempfile.mkdtemp(prefix="velmora-refresh-"))
    try:
        if not (root / ".velmora").exists():
            root.mkdir(parents=True, exist_ok=True)
            make_tree(corpus(), root, args.files)
            print(indexer.index(root, progress=False).line())
        query = Query.parse(NEEDLE)
        with Repository.open(root, create=False) as repo:
            repo.search(query)  # the first refresh records the listing
            files = repo._db.fetchone("SELECT COUNT(*) FROM files")[0]

            def api(fresh: bool):
                return lambda: sum(len(hits) for _, hits in repo.search(query, refresh=fresh)[0])

            prefix = f"{root}/"
            paths = [path for (path,) in repo._db.fetchall("SELECT path FROM files")]
            check, bare, fresh, stale = median_ms(
                args.runs,
                lambda: refresh.check(repo._db, root),
                lambda: [os.lstat(prefix + path) for path in paths],
                api(True),
                api(False),
            )
            print(f"{files} files, unchanged: stat check {shown(check)}; "
                  f"the bare lstat of every file {shown(bare)}")
            print(f"API search: {shown(fresh)} with the check, {shown(stale)} without")

            edited = root / subprocess.run(
                ["git", "ls-files"], cwd=root, capture_output=True, text=True, check=True
            ).stdout.splitlines()[0]

            def edit_and_search():
                with edited.open("a") as file:
                    file.write(f"\n{NEEDLE}\n")
                api(True)()

            (after_edit,) = median_ms(max(3, args.runs // 3), edit_and_search)
            print(f"one file edited: API search {shown(after_edit)} (check and index update)")

        command = [sys.executable, "-m", "velmora.cli", "search", "code", "--no-server", NEEDLE]
        # The package as this process imports it, wherever the command runs.
        env = {**os.environ, "PYTHONPATH": str(Path(refresh.__file__).parents[1])}
        fresh_cli, stale_cli = median_ms(
            args.runs,
            lambda: subprocess.run(command, cwd=root, env=env, capture_output=True, check=True),
            lambda: subprocess.run([*command, "--no-refresh"], cwd=root, env=env,
                                   capture_output=True, check=True),
        )
        print(f"command: {shown(fresh_cli)} with the check, {shown(stale_cli)} with --no-refresh")
    finally:
        if args.keep is None:
            shutil.rmtree(root, ignore_errors=True)


if __name__ == "__main__":
    main()
