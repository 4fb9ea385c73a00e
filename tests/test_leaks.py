"""No call leaks: every entry point of the bad-input table, with good values and with bad ones,
and the paths that only repeated calls on one object reach, each called thousands of times.

Each case is run a tenth of ROUNDS times to warm every cache, then twice ROUNDS times, the
allocated blocks (and, in a debug build, the total reference count) read after a full
collection before, between and after. A leak grows both runs by a block a call at least; a
cache that fills, or sqlite3's cursors and statements (up to a hundred or two blocks up and
down), do not.
"""

from __future__ import annotations

import gc
import itertools
import re
import sqlite3
import sys
from typing import Any, Callable, Iterator

import pytest
import zstandard

import workbench
from conftest import outcome
from velmora import native as host
from velmora.storage import code_text as native
from workbench import BY_KIND, TARGETS

ROUNDS = 250


def counters() -> tuple[int, int]:
    gc.collect()
    refs = sys.gettotalrefcount() if hasattr(sys, "gettotalrefcount") else 0
    return sys.getallocatedblocks(), refs


def growth(call: Callable[[], Any], rounds: int) -> tuple[int, ...]:
    """The smaller growth of blocks and of references over two runs of `rounds` calls."""
    for _ in range(rounds // 10):
        call()
    first = counters()
    for _ in range(rounds):
        call()
    second = counters()
    for _ in range(rounds):
        call()
    third = counters()
    return tuple(min(b - a, c - b) for a, b, c in zip(first, second, third))


def drain(iterator: Iterator[Any], count: int | None = None) -> None:
    """Takes `count` items (all when None); an error ends it, as a consumer would see it."""
    try:
        for _ in itertools.islice(iterator, count):
            pass
    except Exception:  # noqa: BLE001 - the error path is what is measured
        pass


def table_cases(bench: workbench.Workbench) -> dict[str, Callable[[], Any]]:
    """Every entry point with good values, and with None and a value of its kind for each
    parameter in turn (the bad call, then a good one)."""
    made = {}
    for name, target in TARGETS.items():
        made[f"{name} good"] = (lambda name=name: workbench.run(bench, native, name, None, None))
        for param, (kind, _) in {**target.params, **target.fields}.items():
            for label, value in [("None", None), *list(BY_KIND[kind].items())[:1]]:
                made[f"{name} {param}={label}"] = (
                    lambda name=name, param=param, value=value: workbench.run(bench, native, name, param, value))
    return made


def repeated_cases(bench: workbench.Workbench) -> dict[str, Callable[[], Any]]:
    """Calls on one object: its one-file cache missed and hit, a sequence left half read or
    read from inside its own search, a migration that marks a file each time."""
    ids = itertools.count()
    disk = native.DiskText(bench.repo, "key", True)
    db = bench.index["code_chunks"]
    chunks = native.ChunkText(db, "code_chunks", native._candidate_chunks(db, "code_chunks", workbench.FILES, "key", True),
                              disk, frozenset(workbench.ON_DISK))
    packed = native.ChunkText(bench.index["compressed"], "compressed", {}, disk, ())
    lines = ["Alpha", "\u0130 beta \u212a", "gamma \u03a3", "", "x"] * 4
    nested: list[Any] = []
    reenters = type("Reenters", (), {"search": lambda self, line: next(nested[-1])})()

    def alternate(source: Any, method: str) -> Callable[[], Any]:
        # Ids 1, 3, 1, 3, ...: a miss of the one-file cache each time; then a hit.
        def call() -> None:
            file_id = 1 if next(ids) % 2 else 3
            for _ in range(2):
                getattr(source, method)(file_id, workbench.TEXTS[file_id][0])

        return call

    def reentered() -> None:
        nested.append(native.line_matches(["a"], None, reenters, True))
        drain(nested[-1])
        nested.clear()

    connection = sqlite3.connect(":memory:")
    connection.execute("CREATE TABLE files (id INTEGER PRIMARY KEY, language TEXT, text_on_disk INTEGER)")
    connection.execute(native.CODE_CHUNKS_DDL)
    cursor = connection.cursor()

    def migration() -> None:
        cursor.execute("INSERT INTO files VALUES (7, 'json', 0)")
        cursor.execute("INSERT INTO code_chunks (rowid, start_line, end_line, text) VALUES (?, 1, 1, ?)",
                       (7 * native.CODE_CHUNK_STRIDE, "x" * 40_000))
        assert native.keep_large_data_on_disk(cursor) == 1
        cursor.execute("DELETE FROM files")

    stride, frame = native.CODE_CHUNK_STRIDE, zstandard.ZstdCompressor().compress("key \u212a\nx".encode())
    dictionary, listed = host.FrameDictionary(b""), [(1, "a", b"a")]

    def scan(first: int, last: int, body: Any, needle: str = "key", mode: str = "lines") -> Callable[[], Any]:
        rows = [(stride, first, last, body, 0)]
        return lambda: outcome(lambda: host.scan_chunks(dictionary, rows, listed, stride, needle, True, mode, None))

    reader = host.ChunkReader(bench.index["compressed"].db_path, "chunk_text", 1)

    def read_and_scan(table: str = "chunk_text") -> Callable[[], Any]:
        return lambda: outcome(lambda: host.scan_chunks(
            dictionary, host.ChunkReader(bench.index["compressed"].db_path, table, 1).read([1, 2, 3], True, stride),
            listed, stride, "key", True, "lines", None))

    return {
        "ChunkReader.read": lambda: len(reader.read([stride, stride + 1, 3 * stride], False, stride)),
        "ChunkReader scanned": read_and_scan(),
        "ChunkReader no table": read_and_scan("no_table"),
        "ChunkReader.matching_ids": lambda: [outcome(lambda: reader.matching_ids("chunk_trigrams", match)) for match in ("key", '"')],
        "scan_chunks": scan(1, 2, frame),
        "scan_chunks count": scan(1, 2, frame, "x", "count"),
        "scan_chunks numbering": scan(1, 5, frame),
        "scan_chunks damaged": scan(1, 2, b"no frame"),
        "scan_chunks bad row": scan(1, "2", frame),
        "scan_chunks bad mode": scan(1, 2, frame, "key", "json"),
        "stat_changes": lambda: host.stat_changes(f"{bench.repo}/", [(workbench.BIG, 1, 2, 3), (5, 1, "x", 3), ("\udcff", 1, 2, 2**70)], 0),
        "stat_changes bad row": lambda: outcome(lambda: host.stat_changes("/", [("a", 1)], 0)),
        "decode_frames": lambda: host.decode_frames(dictionary, [frame, frame]),
        "decode_frames damaged": lambda: outcome(lambda: host.decode_frames(dictionary, [frame, b"no frame"])),
        "DiskText.segments": alternate(disk, "segments"),
        "DiskText.lines": alternate(disk, "lines"),
        "DiskText._load": alternate(native.DiskText(bench.repo, None, True), "_load"),
        "ChunkText.lines": alternate(chunks, "lines"),
        "ChunkText.lines compressed": alternate(packed, "lines"),
        "line_matches partly": lambda: drain(native.line_matches(lines, "a", None, False), 1),
        "line_matches regex partly": lambda: drain(native.line_matches(lines, None, re.compile("bet+a"), True), 1),
        "line_matches reentered": reentered,
        "keep_large_data_on_disk marking": migration,
        "_lines_holding of a big file": lambda: native._lines_holding(bench.repo / workbench.BIG, "line", True),
    }


@pytest.fixture(scope="module")
def bench(tmp_path_factory: pytest.TempPathFactory) -> Iterator[workbench.Workbench]:
    made = workbench.Workbench(tmp_path_factory.mktemp("leaks"))
    yield made
    made.close()


def test_every_public_name_has_a_case() -> None:
    imported = {"chunk_store", "Layout", "layout", "read_bytes_no_follow", "FileRow"}
    names = {name for name, value in vars(native).items() if callable(value) and name not in imported}
    methods = {
        f"{cls}.{name}" for cls in ("DiskText", "ChunkText") for name in vars(getattr(native, cls))
        if not name.startswith("__") and callable(getattr(getattr(native, cls), name))
    }
    assert names | methods <= {name.split()[0] for name in TARGETS}


def test_nothing_leaks(bench: workbench.Workbench) -> None:
    left: dict[str, tuple[int, ...]] = {}
    # What other tests left alive is set aside, so that each full collection only walks
    # what this test makes.
    gc.collect()
    gc.freeze()
    try:
        for name, call in {**table_cases(bench), **repeated_cases(bench)}.items():
            rounds = ROUNDS // 20 if name.endswith("big file") else ROUNDS
            if max(grown := growth(call, rounds)) >= max(rounds, 10):
                left[name] = grown
    finally:
        gc.unfreeze()
    assert not left, f"(blocks, references) left behind by {ROUNDS} calls: {left}"
