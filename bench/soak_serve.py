"""`velmora serve` soaked: clients mixing selective, broad and catastrophic searches for a
while, files changed under them and the index rebuilt once; every answer after a change is
checked to hold it.

Starts the server on a loopback port over a copy of the standard-library corpus (made once
in --tree), runs --clients clients for --minutes, and prints the errors (goal 0), the p50 and
p99 round trip of each kind of search, the resident size of the server and its workers at the
start and the end, and each change's freshness. Stops the server and its workers, whatever
happens.
Usage: soak_serve.py [--tree DIR] [--minutes N] [--clients N]
"""

from __future__ import annotations

import argparse
import http.client
import itertools
import json
import random
import re
import shutil
import subprocess
import sys
import threading
import time
import urllib.parse
from pathlib import Path

from bench_serve import rss_mb

QUERIES = {
    "selective": [{"q": "def dedent", "fixed": "1"}, {"q": r"class \w+Error\("}],
    "broad": [{"q": "import"}, {"q": "self", "case": "0"}],
    # Runs until the server's deadline stops it: a 422 is its right answer.
    "catastrophic": [{"q": r"(a+)+(?=\d)", "glob": "soak/*"}],
}
MIX = ["selective"] * 6 + ["broad"] * 3 + ["catastrophic"]
SLOW_TEXT = "a" * 64 + "\n"
CHANGE_SECONDS = 5.0
# The server's deadline, which stops the catastrophic searches, and its search processes.
TIMEOUT, WORKERS = 5, 4


def tree_copy(target: Path) -> Path:
    """A copy of the stdlib corpus that may be indexed and changed (the shared one is not)."""
    if not target.exists():
        made = subprocess.run([sys.executable, str(Path(__file__).with_name("corpus.py")), "stdlib"],
                              capture_output=True, text=True, check=True)
        shutil.copytree(made.stdout.split()[0], target, symlinks=True)
    (target / "soak").mkdir(exist_ok=True)
    (target / "soak" / "slow.txt").write_text(SLOW_TEXT)
    for stale in (target / "soak").glob("token_*.txt"):
        stale.unlink()
    return target


class Tally:
    """Every client's round trips and errors, by kind of search."""

    def __init__(self) -> None:
        self.lock = threading.Lock()
        self.times: dict[str, list[float]] = {kind: [] for kind in QUERIES}
        self.errors: list[str] = []

    def add(self, kind: str, seconds: float, error: str | None) -> None:
        with self.lock:
            self.times[kind].append(seconds)
            if error:
                self.errors.append(f"{kind}: {error}")


def ask(connection: http.client.HTTPConnection, params: dict[str, str]) -> tuple[int, list[dict]]:
    connection.request("GET", "/api/search?" + urllib.parse.urlencode(params))
    response = connection.getresponse()
    body = response.read()
    if response.status != 200:
        return response.status, [json.loads(body)]
    return 200, [json.loads(line) for line in body.splitlines()]


def client(port: int, until: float, tally: Tally, seed: int) -> None:
    pick = random.Random(seed)
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=120)
    while time.monotonic() < until:
        kind = pick.choice(MIX)
        params = pick.choice(QUERIES[kind])
        started = time.perf_counter()
        try:
            status, records = ask(connection, params)
            error = _wrong(kind, status, records)
        except (OSError, http.client.HTTPException, ValueError) as failure:
            error = f"{type(failure).__name__}: {failure}"
            connection.close()
            connection = http.client.HTTPConnection("127.0.0.1", port, timeout=120)
        tally.add(kind, time.perf_counter() - started, error)
    connection.close()


def _wrong(kind: str, status: int, records: list[dict]) -> str | None:
    if kind == "catastrophic":
        return None if status == 422 else f"{status} where 422 was due: {records[-1]}"
    if status != 200:
        return f"{status}: {records[-1]}"
    if records[-1].get("type") != "summary" or any(r.get("type") == "error" for r in records):
        return f"no summary, or an error record: {records[-1]}"
    return None


def changer(tree: Path, port: int, until: float, rebuild_at: float, tally: Tally,
            fresh: list[str]) -> None:
    """Adds a file with a new token every few seconds, removes the last, rebuilds the index
    once, and checks the answer asked for right after each change."""
    rebuilt = False
    for number in itertools.count():
        if time.monotonic() >= until:
            break
        token = f"soaktoken{number}x"
        (tree / "soak" / f"token_{number}.txt").write_text(f"{token}\n")
        gone = tree / "soak" / f"token_{number - 1}.txt"
        gone.unlink(missing_ok=True)
        what = f"change {number}"
        if not rebuilt and time.monotonic() >= rebuild_at:
            subprocess.run([sys.executable, "-m", "velmora.cli", "index", "--rebuild", str(tree)],
                           stderr=subprocess.DEVNULL, check=True)
            rebuilt, what = True, f"change {number} after a rebuild"
        started = time.perf_counter()
        # A connection of its own: the server closes one left idle between changes.
        connection = http.client.HTTPConnection("127.0.0.1", port, timeout=120)
        _, found = ask(connection, {"q": "soaktoken", "fixed": "1", "glob": "soak/*"})
        connection.close()
        paths = {r["data"]["path"]["text"] for r in found if r.get("type") == "begin"}
        right = paths == {f"soak/token_{number}.txt"}
        fresh.append(f"{what}: {'fresh' if right else f'STALE {sorted(paths)}'} "
                     f"({(time.perf_counter() - started) * 1e3:.0f} ms)")
        if not right:
            tally.add("selective", 0.0, f"{what} not seen: {sorted(paths)}")
        time.sleep(CHANGE_SECONDS)


def start(tree: Path) -> tuple[subprocess.Popen, int]:
    server = subprocess.Popen(
        [sys.executable, "-m", "velmora.cli", "serve", str(tree), "--port", "0",
         "--timeout", str(TIMEOUT), "--workers", str(WORKERS)],
        stderr=subprocess.PIPE, text=True,
    )
    assert server.stderr is not None
    line = server.stderr.readline()
    found = re.search(r"http://127\.0\.0\.1:(\d+)/", line)
    if not found:
        server.kill()
        raise SystemExit(f"the server did not start: {line}")
    threading.Thread(target=shutil.copyfileobj, args=(server.stderr, sys.stderr), daemon=True).start()
    port = int(found[1])
    try:
        for _ in range(36_000):  # it answers once the tree is indexed
            try:
                connection = http.client.HTTPConnection("127.0.0.1", port, timeout=600)
                if ask(connection, QUERIES["selective"][0])[0] == 200:
                    break
            except OSError:
                time.sleep(0.1)
    except BaseException:
        server.kill()
        raise
    return server, port


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--tree", type=Path, default=Path("/tmp/velmora-soak/stdlib"))
    parser.add_argument("--minutes", type=float, default=10.0)
    parser.add_argument("--clients", type=int, default=8)
    args = parser.parse_args()
    tree = tree_copy(args.tree)
    server, port = start(tree)
    try:
        rss_start = rss_mb(server.pid)
        began = time.monotonic()
        until = began + args.minutes * 60
        tally, fresh = Tally(), []
        threads = [threading.Thread(target=client, args=(port, until, tally, seed))
                   for seed in range(args.clients)]
        threads.append(threading.Thread(target=changer, args=(
            tree, port, until, began + args.minutes * 30, tally, fresh)))
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        rss_end = rss_mb(server.pid)
    finally:
        server.terminate()
        server.wait(30)
    print(f"{args.clients} clients for {args.minutes:g} min against {WORKERS} workers "
          f"(deadline {TIMEOUT} s), a change every {CHANGE_SECONDS:g} s, one rebuild half way")
    for kind, times in tally.times.items():
        times.sort()
        if times:
            p50, p99 = (times[max(int(len(times) * q) - 1, 0)] * 1e3 for q in (0.5, 0.99))
            print(f"  {kind:<13} {len(times):6} searches  p50 {p50:8.1f} ms  p99 {p99:8.1f} ms")
    print(f"errors: {len(tally.errors)}")
    for error in tally.errors[:20]:
        print(f"  {error}")
    print(f"resident size of server and workers: {rss_start:.1f} MB at the start, "
          f"{rss_end:.1f} MB at the end")
    stale = [line for line in fresh if "STALE" in line]
    print(f"freshness: {len(fresh) - len(stale)} of {len(fresh)} answers after a change held it")
    for line in fresh:
        if "STALE" in line or "rebuild" in line:
            print(f"  {line}")


if __name__ == "__main__":
    main()
