"""What symbols cost and give on the large corpus: extraction per MB, and sym: and file-name
queries through the server.

First runs the extractor (one ctags process, as one indexing thread has) over every text
file of a copy of the large corpus and prints CPU time (this process and ctags) and wall
time per MB; then indexes the copy, serves it, and prints per query the median time the
search took inside the server and the median round trip of one client.
Usage: bench_symbols.py [--tree DIR] [--requests N]
"""

from __future__ import annotations

import argparse
import os
import resource
import statistics
import subprocess
import sys
import time
from pathlib import Path

from bench_serve import Client, corpus_copy, serving

from velmora.index import build as indexer, symbols
from velmora.utils.fsio import read_bytes_no_follow

QUERIES = [
    ("sym:, one name", {"q": "sym:^dedent$"}),
    ("sym:, a prefix", {"q": "sym:^wrap_"}),
    ("sym: and text", {"q": "sym:^open$ lang:py"}),
    ("file name", {"q": "type:file tokenize"}),
    ("file name, regex", {"q": "type:file /_test\\.py$/"}),
    ("text, the name ranks", {"q": "tokenize"}),
]


def cpu_seconds() -> float:
    own = resource.getrusage(resource.RUSAGE_SELF)
    children = resource.getrusage(resource.RUSAGE_CHILDREN)
    return own.ru_utime + own.ru_stime + children.ru_utime + children.ru_stime


def extraction(tree: Path) -> None:
    texts = 0
    found = files = 0
    extractor = symbols.Extractor()
    cpu, wall = cpu_seconds(), time.perf_counter()
    for path in indexer.list_files(tree):
        try:
            data = read_bytes_no_follow(tree / path)
        except OSError:
            continue
        if indexer.is_binary(data):
            continue
        texts += len(data)
        files += 1
        found += len(extractor.definitions(path, data))
    extractor.close()  # ctags's CPU time counts once it has been waited for
    cpu, wall = cpu_seconds() - cpu, time.perf_counter() - wall
    mb = texts / 1e6
    print(f"extraction: {files} files, {mb:.0f} MB of text, {found} definitions; "
          f"CPU {cpu:.1f} s ({cpu / mb * 1000:.0f} ms/MB), wall {wall:.1f} s "
          f"({wall / mb * 1000:.0f} ms/MB), load {os.getloadavg()[0]:.1f}", flush=True)


def latency(tree: Path, requests: int) -> None:
    started = time.perf_counter()
    subprocess.run([sys.executable, "-m", "velmora.cli", "index", str(tree)], check=True)
    print(f"index pass: {time.perf_counter() - started:.0f} s wall", flush=True)
    with serving(tree, QUERIES[0][1]) as (_, port):
        client = Client(port)
        print(f"{'query':<22} {'in server':>10} {'round trip':>11} {'files':>6}  (median of {requests})")
        for label, params in QUERIES:
            trips, inside = [], []
            for _ in range(requests):
                trip, summary = client.search(params)
                trips.append(trip)
                inside.append(summary["elapsed_total"]["secs"] + summary["elapsed_total"]["nanos"] / 1e9)
            files = summary["stats"]["searches_with_match"]
            print(f"{label:<22} {statistics.median(inside) * 1000:8.1f} ms "
                  f"{statistics.median(trips) * 1000:8.1f} ms {files:>6}", flush=True)
        print(f"load {os.getloadavg()[0]:.1f}")


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--tree", type=Path, default=Path("/tmp/velmora-bench-symbols/large"),
                        help="a copy of the large corpus that may be indexed")
    parser.add_argument("--requests", type=int, default=9)
    args = parser.parse_args()
    tree = corpus_copy(args.tree)
    extraction(tree)
    latency(tree, args.requests)


if __name__ == "__main__":
    main()
