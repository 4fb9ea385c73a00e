"""No call leaks: every public function and method, on every path, called thousands of times.

Each case is one call (or a few that belong together). It is run a tenth of ROUNDS times
to warm every cache (interned strings, free lists, statement caches, the regex literals),
then twice ROUNDS times, the interpreter's allocated blocks (and, in a debug build, its
total reference count) read after a full collection before, between and after the two
runs. A leak grows both runs by at least a block per call; a cache that fills, or a
bookkeeping list that is pruned now and then, does not. So the smaller growth of the two
must stay under SLACK.

The paths: normal results, None results, every error path, the one-file caches of
DiskText and ChunkText missed and hit, line_matches consumed fully, partly and ending in
an error, text_source's three outcomes on real SQLite indexes.
"""

from __future__ import annotations

import gc
import itertools
import re
import sqlite3
import sys
from typing import Any, Callable, Iterator

import pytest

import workbench
from workbench import FoundAt, Raises, Rows, Selected
from velmora.storage import code_text as native

ROUNDS = 2_000
SLACK = 10
S = native.CODE_CHUNK_STRIDE
CALLS_MADE = []  # calls per case, for the count in the report


def counters() -> tuple[int, int]:
    gc.collect()
    refs = sys.gettotalrefcount() if hasattr(sys, "gettotalrefcount") else 0
    return sys.getallocatedblocks(), refs


def growth(call: Callable[[], Any], rounds: int) -> tuple[int, int]:
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
    CALLS_MADE.append(rounds // 10 + 2 * rounds)
    return tuple(min(b - a, c - b) for a, b, c in zip(first, second, third))  # type: ignore[return-value]


def fails(fn: Callable[..., Any], *args: Any, **kwargs: Any) -> Callable[[], None]:
    """A call that must raise (anything but a grave error)."""

    def call() -> None:
        try:
            fn(*args, **kwargs)
        except Exception:  # noqa: BLE001 - the error path is what is measured
            return
        raise AssertionError(f"{fn} did not raise")

    return call


def drain(iterator: Iterator[Any], count: int | None = None) -> None:
    """Takes `count` items (all when None); an error ends it, as a consumer would see it."""
    try:
        for _ in itertools.islice(iterator, count):
            pass
    except Exception:  # noqa: BLE001
        pass


class Int(int):
    pass


class Subclassed(native.DiskText):
    def _load(self, file_id: int, path: str) -> Any:
        return ["from", "the", "subclass"] if file_id else None


@pytest.fixture(scope="module")
def bench(tmp_path_factory: pytest.TempPathFactory) -> Iterator[workbench.Workbench]:
    made = workbench.Workbench(tmp_path_factory.mktemp("leaks"))
    yield made
    made.close()


def migration() -> Callable[[], None]:
    """keep_large_data_on_disk marking one file each call: probe, select, delete, flag."""
    connection = sqlite3.connect(":memory:")
    connection.execute("CREATE TABLE files (id INTEGER PRIMARY KEY, language TEXT, text_on_disk INTEGER)")
    connection.execute(native.CODE_CHUNKS_DDL)
    cursor = connection.cursor()
    big = "x" * 40_000

    def call() -> None:
        cursor.execute("INSERT INTO files VALUES (7, 'json', 0)")
        cursor.execute("INSERT INTO code_chunks (rowid, start_line, end_line, text) VALUES (?, 1, 1, ?)", (7 * S, big))
        assert native.keep_large_data_on_disk(cursor) == 1
        cursor.execute("DELETE FROM files")

    return call


def cases(bench: workbench.Workbench) -> dict[str, tuple[Callable[[], Any], int]]:
    """name: (call, rounds)."""
    repo = bench.repo
    mixed = "naïve\r\nΩμέγα\u2028😀 x\n" * 70 + "\ud800"
    lines = ["Alpha", "\u0130 beta \u212a", "gamma \u03a3", "", "x"] * 4
    literal = re.compile("bet+a")
    bare_regex = re.compile(r"\w\s")
    bytes_regex = re.compile(b"a")
    disk = native.DiskText(repo, "key", True)
    regex_disk = native.DiskText(repo, None, True)
    ids = itertools.count()
    code_chunks_db = bench.index["code_chunks"]
    compressed_db = bench.index["compressed"]
    candidates = native._candidate_chunks(code_chunks_db, "code_chunks", workbench.FILES, "key", True)
    chunks = native.ChunkText(code_chunks_db, "code_chunks", candidates, disk, frozenset(workbench.ON_DISK))
    packed = native.ChunkText(compressed_db, "compressed", {}, disk, ())
    stuck = native.ChunkText(bench.locked, "code_chunks", {}, disk, ())
    odd = native.ChunkText(Rows([(1, 1, "a"), (2,)]), "code_chunks", {}, disk, ())
    no_read = native.ChunkText(Rows(), "code_chunks", {}, disk, ())
    del no_read._read
    no_root = native.DiskText(repo, "key", True)
    del no_root._root
    nested: list[Any] = []

    class Reenters:
        def search(self, line: str) -> Any:
            return next(nested[-1])

    def reentered() -> None:
        nested.append(native.line_matches(["a"], None, Reenters(), True))
        drain(nested[-1])
        nested.clear()

    def alternate(source: Any, method: str) -> Callable[[], Any]:
        # Ids 1, 3, 1, 3, ...: a miss of the one-file cache each time; then a hit.
        def call() -> None:
            file_id = 1 if next(ids) % 2 else 3
            path = workbench.TEXTS[file_id][0]
            getattr(source, method)(file_id, path)
            getattr(source, method)(file_id, path)

        return call

    table: dict[str, tuple[Callable[[], Any], int]] = {
        # Storage rules.
        "code_chunks": (lambda: native.code_chunks(mixed), ROUNDS),
        "code_chunks one line": (lambda: native.code_chunks("one line"), ROUNDS),
        "code_chunks empty": (lambda: native.code_chunks(""), ROUNDS),
        "code_chunks CR LF": (lambda: native.code_chunks("a\r\n" * 200), ROUNDS),
        "code_chunks bad text": (fails(native.code_chunks, b"a"), ROUNDS),
        "code_chunks bad call": (fails(native.code_chunks, "a", txt="a"), ROUNDS),
        "stored_text_bytes": (lambda: native.stored_text_bytes(mixed), ROUNDS),
        "stored_text_bytes ASCII": (lambda: native.stored_text_bytes("a\r\nb"), ROUNDS),
        "stored_text_bytes bad": (fails(native.stored_text_bytes, None), ROUNDS),
        "text_kept_on_disk": (lambda: native.text_kept_on_disk("json", 40_000), ROUNDS),
        "text_kept_on_disk other": (lambda: native.text_kept_on_disk("JSON", 40_000), ROUNDS),
        "text_kept_on_disk bad": (fails(native.text_kept_on_disk, "json", "big"), ROUNDS),
        "file_rowids": (lambda: native.file_rowids(2**70), ROUNDS),
        "file_rowids bad": (fails(native.file_rowids, "1"), ROUNDS),
        "_chunk_lines": (lambda: native._chunk_lines(1, 3, "a\nb\nc"), ROUNDS),
        "_chunk_lines none": (lambda: native._chunk_lines(1, 0, "a"), ROUNDS),
        "_chunk_lines bad": (fails(native._chunk_lines, "1", 2, "a"), ROUNDS),
        "keep_large_data_on_disk": (migration(), ROUNDS // 4),
        "keep_large_data_on_disk mapping rows": (
            lambda: native.keep_large_data_on_disk(Selected([{0: 7, 1: "json", 2: 10}, (8, "json", 40_000)])), ROUNDS),
        "keep_large_data_on_disk odd rows": (fails(native.keep_large_data_on_disk, Selected([(7, "json")])), ROUNDS),
        "keep_large_data_on_disk no table": (
            lambda: native.keep_large_data_on_disk(bench.bare.cursor), ROUNDS),
        "keep_large_data_on_disk no files": (
            fails(native.keep_large_data_on_disk, sqlite3.connect(":memory:").execute(native.CODE_CHUNKS_DDL)),
            ROUNDS),
        "keep_large_data_on_disk locked": (fails(native.keep_large_data_on_disk, bench.locked.cursor), ROUNDS),
        "keep_large_data_on_disk no cursor": (fails(native.keep_large_data_on_disk, object()), ROUNDS),
        # Reading from disk.
        "_file_text": (lambda: native._file_text(repo / "f1.py"), ROUNDS),
        "_file_text not UTF-8 name": (lambda: native._file_text(bytes(repo) + b"/" + workbench.NOT_UTF8_NAME), ROUNDS),
        "_file_text none": (lambda: native._file_text(repo / "link"), ROUNDS),
        "_file_text bad": (fails(native._file_text, 1.5), ROUNDS),
        "_lines_holding": (lambda: native._lines_holding(repo / "f1.py", "alpha", False), ROUNDS),
        "_lines_holding Kelvin": (lambda: native._lines_holding(repo / "f1.py", "k", False), ROUNDS),
        "_lines_holding kept case": (lambda: native._lines_holding(repo / "f3.txt", "y key", True), ROUNDS),
        "_lines_holding regex": (lambda: native._lines_holding(repo / "f3.txt", None, True), ROUNDS),
        "_lines_holding none": (lambda: native._lines_holding(repo / "f1.py", "absent", True), ROUNDS),
        "_lines_holding directory": (lambda: native._lines_holding(repo / "dir", "x", True), ROUNDS),
        "_lines_holding large": (lambda: native._lines_holding(repo / workbench.BIG, None, True), ROUNDS // 20),
        "_lines_holding bad": (fails(native._lines_holding, repo / "f1.py", b"x", True), ROUNDS),
        # Matching and context.
        "line_matches": (lambda: drain(native.line_matches(lines, "a", None, False)), ROUNDS),
        "line_matches kept case": (lambda: drain(native.line_matches(lines, "beta", None, True)), ROUNDS),
        "line_matches non-ASCII": (lambda: drain(native.line_matches(lines, "\u03c3", None, False)), ROUNDS),
        "line_matches iterable": (lambda: drain(native.line_matches(iter(lines), "x", None, True)), ROUNDS),
        "line_matches regex": (lambda: drain(native.line_matches(lines, None, literal, True)), ROUNDS),
        "line_matches regex bare": (lambda: drain(native.line_matches(lines, None, bare_regex, True)), ROUNDS),
        "line_matches partly": (lambda: drain(native.line_matches(lines, "a", None, False), 1), ROUNDS),
        "line_matches unread": (lambda: native.line_matches(lines, "a", None, False), ROUNDS),
        "line_matches bad needle": (lambda: drain(native.line_matches(lines, 5, None, True)), ROUNDS),
        "line_matches bad lines": (lambda: drain(native.line_matches(5, "a", None, True)), ROUNDS),
        "line_matches bad line": (lambda: drain(native.line_matches(["a", None], "b", None, False)), ROUNDS),
        "line_matches search raises": (lambda: drain(native.line_matches(lines, None, Raises(), True)), ROUNDS),
        "line_matches bad start": (lambda: drain(native.line_matches(lines, None, FoundAt("0"), True)), ROUNDS),
        "line_matches bytes pattern": (lambda: drain(native.line_matches(lines, None, bytes_regex, True)), ROUNDS),
        "line_matches case raises": (lambda: drain(native.line_matches(lines, "a", None, Raises())), ROUNDS),
        "line_matches reentered": (reentered, ROUNDS),
        "context": (lambda: native.context(lines, 2, 9), ROUNDS),
        "context huge": (lambda: native.context(lines, 10**30, 10**31, 10**30 - 3), ROUNDS),
        "context tuple": (lambda: native.context(tuple(lines), 0, 3, 1), ROUNDS),
        "context empty": (lambda: native.context(lines, 9, 2), ROUNDS),
        "context bad": (fails(native.context, lines, 1.5, 2), ROUNDS),
        "context int subclass": (lambda: native.context(lines, Int(2), Int(4), Int(1)), ROUNDS),
        "context float over nothing": (lambda: native.context(lines, 9, 2, 1.5), ROUNDS),
        "context bad lines": (fails(native.context, 5, 1, 2), ROUNDS),
        "Segment": (lambda: native.Segment(1, ["a"], True)._replace(first=2), ROUNDS),
        "Segment bad": (fails(native.Segment, 1, ["a"]), ROUNDS),
        # DiskText.
        "DiskText": (lambda: native.DiskText(repo, "key", True), ROUNDS),
        "DiskText bad": (fails(native.DiskText, repo, "key"), ROUNDS),
        "DiskText.segments": (alternate(disk, "segments"), ROUNDS),
        "DiskText.lines": (alternate(disk, "lines"), ROUNDS),
        "DiskText._load": (alternate(regex_disk, "_load"), ROUNDS),
        "DiskText none": (lambda: (disk.segments(9, "absent"), disk.lines(9, "absent")), ROUNDS),
        "DiskText bad path": (fails(native.DiskText(repo, "key", True).lines, 1, 5), ROUNDS),
        "DiskText no root": (fails(no_root.lines, 1, "f1.py"), ROUNDS),
        "DiskText subclass": (lambda: Subclassed(repo, None, True).segments(next(ids) % 2, "f"), ROUNDS),
        # ChunkText.
        "ChunkText": (lambda: native.ChunkText(code_chunks_db, "code_chunks", {}, disk, ()), ROUNDS),
        "ChunkText bad": (fails(native.ChunkText, code_chunks_db), ROUNDS),
        "ChunkText.segments": (lambda: [chunks.segments(i, "f") for i in (1, 2, 3, 4)], ROUNDS),
        "ChunkText.lines": (alternate(chunks, "lines"), ROUNDS),
        "ChunkText.lines on disk": (lambda: chunks.lines(2, "f2.json"), ROUNDS),
        "ChunkText.lines compressed": (alternate(packed, "lines"), ROUNDS),
        "ChunkText.lines locked": (fails(stuck.lines, 1, "f1.py"), ROUNDS),
        "ChunkText.lines odd rows": (fails(odd.lines, 1, "f"), ROUNDS),
        "ChunkText.lines no _read": (fails(no_read.lines, 1, "f"), ROUNDS),
        "ChunkText.segments bad id": (fails(chunks.segments, [1], "f"), ROUNDS),
        # The index side.
        "text_source": (lambda: native.text_source(code_chunks_db, workbench.FILES, "key", True, store="code_chunks"), ROUNDS),
        "text_source compressed": (
            lambda: native.text_source(compressed_db, workbench.FILES, None, False, store="compressed"), ROUNDS),
        "text_source unchunked": (
            lambda: native.text_source(bench.unchunked, workbench.FILES, "key", True, store="code_chunks"), ROUNDS),
        "text_source no table": (lambda: native.text_source(bench.bare, workbench.FILES, "key", True, store=None), ROUNDS),
        "text_source locked": (
            fails(native.text_source, bench.locked, workbench.FILES, "key", True, store="code_chunks"), ROUNDS),
        "text_source no path": (fails(native.text_source, object(), [], "k", True, store=None), ROUNDS),
        "text_source bad call": (fails(native.text_source, code_chunks_db, [], "k", True, "code_chunks"), ROUNDS),
        "_chunk_state": (lambda: native._chunk_state(code_chunks_db, "code_chunks"), ROUNDS),
        "_chunk_state odd": (lambda: native._chunk_state(Rows(one=(0, "3,,12345678901234567890123, 4")), "x"), ROUNDS),
        "_chunk_state none": (lambda: native._chunk_state(Rows(one=None), "x"), ROUNDS),
        "_chunk_state bad": (fails(native._chunk_state, Rows(one=(1, "3,x")), "x"), ROUNDS),
        "_chunk_state no table": (fails(native._chunk_state, bench.bare, "code_chunks"), ROUNDS),
        "_candidate_chunks": (
            lambda: native._candidate_chunks(code_chunks_db, "code_chunks", workbench.FILES, "key", True), ROUNDS),
        "_candidate_chunks all": (
            lambda: native._candidate_chunks(code_chunks_db, "code_chunks", workbench.FILES, "k\x00", False), ROUNDS),
        "_candidate_chunks compressed": (
            lambda: native._candidate_chunks(compressed_db, "compressed", workbench.FILES, "key", False), ROUNDS),
        "_candidate_chunks odd rows": (
            lambda: native._candidate_chunks(
                Rows([(S, 2, 1, "a", 1), [S + 1, 1, 1, b"x", 0], (2**90, 1, 1, "a", 1), (-S, 1, 1, "b", 0)]),
                "code_chunks", [(1,), (2**90 // S,), (-1,)], None, True), ROUNDS),
        "_candidate_chunks short row": (
            fails(native._candidate_chunks, Rows([(S, 1, 1, "a", 1), (S, 1)]), "x", [(1,)], None, True), ROUNDS),
        "_candidate_chunks bad row": (
            fails(native._candidate_chunks, Rows([(S, 1, 1, "a", 1), 7]), "x", [(1,)], None, True), ROUNDS),
        "_candidate_chunks db error": (
            fails(native._candidate_chunks, Rows(sqlite3.OperationalError), "x", [], "a", True), ROUNDS),
        "_candidate_chunks bad files": (fails(native._candidate_chunks, Rows(), "x", [5], "a", True), ROUNDS),
    }
    return table


def test_every_public_name_has_a_case(bench: workbench.Workbench) -> None:
    imported = {"chunk_store", "Layout", "layout", "read_bytes_no_follow", "FileRow"}
    names = {name for name, value in vars(native).items() if callable(value) and name not in imported}
    methods = {
        f"{cls}.{name}" for cls in ("DiskText", "ChunkText") for name in vars(getattr(native, cls))
        if not name.startswith("__") and callable(getattr(getattr(native, cls), name))
    }
    covered = {case.split()[0] for case in cases(bench)}
    assert names | methods <= covered


def test_nothing_leaks(bench: workbench.Workbench) -> None:
    left: dict[str, tuple[int, int]] = {}
    # What other tests left alive is set aside, so that each full collection only walks
    # what this test makes.
    gc.collect()
    gc.freeze()
    try:
        for name, (call, rounds) in cases(bench).items():
            blocks, refs = growth(call, rounds)
            if blocks >= SLACK or refs >= SLACK:
                left[name] = (blocks, refs)
    finally:
        gc.unfreeze()
    print(f"{sum(CALLS_MADE)} calls in {len(CALLS_MADE)} cases")
    assert not left, f"(blocks, references) left behind by {ROUNDS} calls: {left}"
