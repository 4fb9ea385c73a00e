"""`velmora serve` on the large corpus: latency alone and under load, and memory over time.

Starts the server on a loopback port over an indexed copy of the large corpus and prints,
per query, the median time the search took inside the server and the median round trip of
one client, the p50/p99 round trip with 8 concurrent clients, and the same query's wall time
as a `velmora search code` command; then the resident size of the server and its workers
every 2,500 requests up to 10,000.
Usage: bench_serve.py [--tree DIR] [--requests N] [--clients N] [--rss-requests N]
"""

from __future__ import annotations

import argparse
import http.client
import json
import shutil
import socket
import statistics
import subprocess
import sys
import threading
import time
import urllib.parse
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

QUERIES = [
    ("selective literal", {"q": "def dedent", "fixed": "1"}, ["-F"]),
    ("literal, ~160 hits", {"q": "wrap_socket", "fixed": "1"}, ["-F"]),
    ("regex with a literal", {"q": r"def \w+_cache\("}, []),
]
BENCH = Path(__file__).resolve().parent


def corpus_copy(target: Path) -> Path:
    """A copy of the large corpus that may be indexed (the shared one stays as it is)."""
    if not target.exists():
        made = subprocess.run([sys.executable, str(BENCH / "corpus.py"), "large"],
                              capture_output=True, text=True, check=True)
        shutil.copytree(made.stdout.split()[0], target, symlinks=True)
    return target


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Client:
    """One keep-alive connection; ``search`` returns (round trip s, the server's summary)."""

    def __init__(self, port: int) -> None:
        self.connection = http.client.HTTPConnection("127.0.0.1", port, timeout=120)

    def search(self, params: dict[str, str]) -> tuple[float, dict]:
        started = time.perf_counter()
        self.connection.request("GET", "/api/search?" + urllib.parse.urlencode(params))
        response = self.connection.getresponse()
        body = response.read()
        elapsed = time.perf_counter() - started
        if response.status != 200:
            raise SystemExit(f"{params}: {response.status} {body[:200]!r}")
        return elapsed, json.loads(body.splitlines()[-1])["data"]


def rss_mb(pid: int) -> float:
    """The resident size of a process and all its descendants."""
    total, pending = 0, [pid]
    while pending:
        current = pending.pop()
        try:
            status = Path(f"/proc/{current}/status").read_text()
            children = Path(f"/proc/{current}/task/{current}/children").read_text().split()
        except OSError:
            continue
        total += next(int(line.split()[1]) for line in status.splitlines()
                      if line.startswith("VmRSS:"))
        pending += map(int, children)
    return total / 1024


def concurrent(port: int, params: dict[str, str], clients: int, each: int) -> list[float]:
    times: list[float] = []

    def run() -> None:
        client = Client(port)
        times.extend(client.search(params)[0] for _ in range(each))

    threads = [threading.Thread(target=run) for _ in range(clients)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return times


def memory(pid: int, client: Client, requests: int) -> None:
    step = max(requests // 4, 1)
    print(f"resident size of server and workers, {QUERIES[0][0]} and {QUERIES[1][0]} "
          "in turn:")
    print(f"  after {0:>6} requests: {rss_mb(pid):7.1f} MB")
    for done in range(step, requests + 1, step):
        for n in range(step):
            client.search(QUERIES[n % 2][1])
        print(f"  after {done:>6} requests: {rss_mb(pid):7.1f} MB", flush=True)


def cli_time(tree: Path, flags: list[str], query: str, repeats: int = 5) -> float:
    argv = [sys.executable, "-m", "velmora.cli", "search", "code", "--no-server", *flags, "--", query, str(tree)]
    best = float("inf")
    for _ in range(repeats):
        started = time.perf_counter()
        subprocess.run(argv, stdout=subprocess.DEVNULL, check=False)
        best = min(best, time.perf_counter() - started)
    return best


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--tree", type=Path, default=Path("/tmp/velmora-bench-serve/large"),
                        help="an indexed (or to be indexed) copy of the large corpus")
    parser.add_argument("--requests", type=int, default=200,
                        help="per query and measure; 0 skips to the memory figures")
    parser.add_argument("--clients", type=int, default=8)
    parser.add_argument("--rss-requests", type=int, default=10_000)
    args = parser.parse_args()
    tree = corpus_copy(args.tree)
    with serving(tree, QUERIES[0][1]) as (server, port):
        if args.requests:
            print(f"{'query':<22} {'server p50':>10} {'1 client p50':>12} "
                  f"{args.clients} clients p50 / p99 {'CLI best':>9}   hits")
        for label, params, flags in QUERIES if args.requests else ():
            client = Client(port)  # the last one idled past the server's keep-alive
            for _ in range(2):
                client.search(params)
            runs = [client.search(params) for _ in range(args.requests)]
            inside = statistics.median(
                summary["elapsed_total"]["secs"] * 1e3 + summary["elapsed_total"]["nanos"] / 1e6
                for _, summary in runs)
            alone = statistics.median(elapsed for elapsed, _ in runs) * 1e3
            loaded = sorted(concurrent(port, params, args.clients,
                                       max(args.requests // args.clients, 2)))
            p50, p99 = (loaded[int(len(loaded) * q) - 1] * 1e3 for q in (0.5, 0.99))
            cli = cli_time(tree, flags, params["q"]) * 1e3
            print(f"{label:<22} {inside:8.2f}ms {alone:10.2f}ms {p50:12.2f}ms / {p99:6.2f}ms "
                  f"{cli:7.0f}ms   {runs[0][1]['stats']['matches']}")
        if args.rss_requests:
            memory(server.pid, Client(port), args.rss_requests)


@contextmanager
def serving(tree: Path, first: dict) -> Iterator[tuple[subprocess.Popen, int]]:
    """`velmora serve` of ``tree`` and its port, once it has answered ``first``; stopped at
    the end, whatever happened."""
    port = free_port()
    # A deadline past the slowest query's time: the figures are of searches that finish.
    server = subprocess.Popen([sys.executable, "-m", "velmora.cli", "serve", str(tree),
                               "--port", str(port), "--timeout", "300"])
    try:
        for _ in range(36_000):  # it listens once the tree is indexed
            try:
                Client(port).search(first)
                break
            except OSError:
                time.sleep(0.1)
        yield server, port
    finally:
        server.terminate()
        server.wait(30)


if __name__ == "__main__":
    main()
