"""Shared pieces of the benchmarks: real inputs, timing, and the model beside the module."""

from __future__ import annotations

import os
import sys
import sysconfig
import time
from pathlib import Path
from typing import Callable, Iterable

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests"))  # the plain-Python model

import model  # noqa: E402
from velmora.storage import code_text as native  # noqa: E402


def stdlib_files() -> list[Path]:
    """Every .py file of the running interpreter's standard library, site-packages left out."""
    stdlib = Path(sysconfig.get_paths()["stdlib"])
    return sorted(
        path
        for path in stdlib.rglob("*.py")
        if "site-packages" not in path.parts and path.is_file()
    )


def stdlib_texts() -> list[str]:
    return [path.read_bytes().decode("utf-8", errors="replace") for path in stdlib_files()]


def best_time(fn: Callable[[], object], repeats: int = 5) -> float:
    """The minimum wall time of several runs, in seconds."""
    best = float("inf")
    for _ in range(repeats):
        start = time.perf_counter()
        fn()
        best = min(best, time.perf_counter() - start)
    return best


def report(name: str, model_fn: Callable[[], object], native_fn: Callable[[], object],
           goal: float, repeats: int = 5) -> float:
    """Prints and returns the model's time over the module's for one workload."""
    # The two take turns, so that a change of load on the machine weighs on both alike.
    slow = fast = float("inf")
    for _ in range(repeats):
        slow = min(slow, best_time(model_fn, 1))
        fast = min(fast, best_time(native_fn, 1))
    ratio = slow / fast
    verdict = "met" if ratio >= goal else "NOT met"
    print(f"{name:<52} model {slow * 1e3:9.2f} ms  native {fast * 1e3:8.2f} ms  "
          f"{ratio:6.1f}x  (goal {goal:g}x: {verdict})")
    return ratio


def each(fn: Callable[[str], object], items: Iterable[str]) -> Callable[[], None]:
    items = list(items)

    def run() -> None:
        for item in items:
            fn(item)

    return run


def megabytes(texts: Iterable[str]) -> float:
    return sum(len(t.encode("utf-8", "surrogatepass")) for t in texts) / 1e6


__all__ = ["model", "native", "stdlib_files", "stdlib_texts", "best_time", "report", "each",
           "megabytes", "os"]
