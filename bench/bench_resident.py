"""The background server behind `velmora search code`, on the benchmark corpora.

For each corpus (indexed first if it is not): starts its background server, then prints for
selective literals the server's latency to one client (a search sent over its socket, the
answer read to the end, no interpreter start-up) with a histogram; the p99 and searches per
second of 8 concurrent clients; the command with its server and with --no-server, each over
rg (wall and user+sys CPU, interleaved runs, the median of --runs); and the resident memory
of the server and its workers beside the index's size, before and after --searches searches.
Usage: bench_resident.py [--runs N] [--searches N] [--clients N] [CORPUS ...]
"""

from __future__ import annotations

import argparse
import os
import resource
import shutil
import statistics
import subprocess
import sys
import threading
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests"))

import live_server  # noqa: E402
from velmora.serve import wire  # noqa: E402
from velmora.serve.resident import ask  # noqa: E402

# Selective literals: a handful of hits in either corpus.
NEEDLES = ["def dedent", "class HTMLCalendar", "_PyLong_FromByteArray", "def getpwnam"]
CORPORA = ["/work/corpora/large", "/work/corpora/stdlib"]
PACKAGES = str(Path(wire.__file__).resolve().parents[2])
ENV = {**os.environ, "PYTHONPATH": PACKAGES}
ENV.pop("VELMORA_NO_SERVER", None)
DISCARDED = os.open(os.devnull, os.O_WRONLY)
BUCKETS_MS = [0.5, 1, 2, 3, 5, 8, 13, 25, 50, 100, 250, float("inf")]


def search(root: Path, needle: str) -> float:
    """One search over the server's socket, as the command sends it, its output discarded;
    its round trip in s."""
    started = time.perf_counter()
    sock = wire.connect(str(root))
    assert sock is not None, "no server"
    try:
        request = ["search", wire.PACKAGE, str(root), "utf-8", "strict", "search", "code", needle]
        wire.send(sock, wire.request(request), [DISCARDED, sys.stderr.fileno()])
        while (answer := wire.read_frame(sock)) is not None and answer[0] != wire.EXIT:
            assert answer[0] != wire.FALLBACK, "the server left the search to the command"
    finally:
        sock.close()
    return time.perf_counter() - started


def command(argv: list[str], cwd: Path) -> tuple[float, float]:
    """Wall and user+sys CPU seconds of one run of a command, its output discarded."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    started = time.perf_counter()
    subprocess.run(argv, cwd=cwd, env=ENV, stdout=subprocess.DEVNULL, check=False)
    wall = time.perf_counter() - started
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return wall, after.ru_utime - before.ru_utime + after.ru_stime - before.ru_stime


def rss_mb(pid: int) -> float:
    """The resident size of a process and its children, in MB."""
    total = 0
    pids = [pid, *map(int, Path(f"/proc/{pid}/task/{pid}/children").read_text().split())]
    for each in pids:
        for line in Path(f"/proc/{each}/status").read_text().splitlines():
            if line.startswith("VmRSS:"):
                total += int(line.split()[1])
    return total / 1024


def percentile(values: list[float], share: float) -> float:
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


def concurrent(root: Path, clients: int, each: int) -> tuple[list[float], float]:
    latencies: list[float] = []
    lock = threading.Lock()

    def client(number: int) -> None:
        mine = [search(root, NEEDLES[(number + k) % len(NEEDLES)]) for k in range(each)]
        with lock:
            latencies.extend(mine)

    started = time.perf_counter()
    threads = [threading.Thread(target=client, args=(n,)) for n in range(clients)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return latencies, time.perf_counter() - started


def histogram(latencies: list[float]) -> str:
    rows, low = [], 0.0
    for high in BUCKETS_MS:
        count = sum(low <= value * 1e3 < high for value in latencies)
        label = f"{low:g}-{high:g} ms" if high != float("inf") else f">= {low:g} ms"
        rows.append(f"    {label:<14} {count:6d} {'#' * round(60 * count / len(latencies))}")
        low = high
    return "\n".join(rows)


def bench(root: Path, runs: int, searches: int, clients: int) -> None:
    python = [sys.executable, "-c", "from velmora.client import main; main()"]
    rg = shutil.which("rg")
    assert rg, "rg is needed"
    index = root / ".velmora/index/index.db"
    if not index.exists():
        subprocess.run([*python, "index", str(root)], env=ENV, check=True)
    ask(root, "stop")  # one that runs other code than this
    with live_server.background(root) as server:
        for needle in NEEDLES:
            search(root, needle)  # the workers' first search opens what they read
        memory_before = rss_mb(server.pid)
        print(f"{root}: index {index.stat().st_size / 2**20:.0f} MB, load {os.getloadavg()[0]:.1f}")

        one = [search(root, NEEDLES[k % len(NEEDLES)]) for k in range(max(runs * 40, 200))]
        print(f"  server, one client: p50 {statistics.median(one) * 1e3:.2f} ms, "
              f"p99 {percentile(one, 0.99) * 1e3:.2f} ms over {len(one)} searches")
        latencies, took = concurrent(root, clients, max(runs * 40, 200) // clients * 2)
        print(f"  server, {clients} clients: p50 {statistics.median(latencies) * 1e3:.2f} ms, "
              f"p99 {percentile(latencies, 0.99) * 1e3:.2f} ms, {len(latencies) / took:.0f} searches/s")

        for needle in NEEDLES[:2]:
            timed: dict[str, list[tuple[float, float]]] = {"server": [], "no-server": [], "rg": []}
            for _ in range(runs):  # interleaved, so that a change of load weighs on all three
                timed["server"].append(command([*python, "search", "code", "-F", needle], root))
                timed["no-server"].append(
                    command([*python, "search", "code", "--no-server", "-F", needle], root))
                timed["rg"].append(command([rg, "-F", needle], root))
            wall = {name: statistics.median(w for w, _ in values) for name, values in timed.items()}
            cpu = {name: statistics.median(c for _, c in values) for name, values in timed.items()}
            print(f"  {needle!r}: rg {wall['rg'] * 1e3:.0f} ms (cpu {cpu['rg'] * 1e3:.0f})"
                  + "".join(f", {name} {wall[name] * 1e3:.0f} ms (cpu {cpu[name] * 1e3:.0f}) = "
                            f"{wall[name] / wall['rg']:.3f}x rg"
                            for name in ("server", "no-server")))

        many = [search(root, NEEDLES[k % len(NEEDLES)]) for k in range(searches)]
        print(f"  memory: {memory_before:.0f} MB before, {rss_mb(server.pid):.0f} MB after "
              f"{searches} searches ({rss_mb(server.pid) / (index.stat().st_size / 2**20):.2f}x the index)")
        print("  latency of those searches:\n" + histogram(many))


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("corpora", nargs="*", default=CORPORA)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--searches", type=int, default=10_000)
    parser.add_argument("--clients", type=int, default=8)
    args = parser.parse_args()
    for corpus in args.corpora:
        bench(Path(corpus), args.runs, args.searches, args.clients)


if __name__ == "__main__":
    main()
