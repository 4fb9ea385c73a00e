"""The native scan of compressed chunks against the printer's output for the model's matches,
and a search printed from it against the same search through the Python path."""

from __future__ import annotations

import io
import shutil
import sqlite3
import subprocess
from contextlib import closing
from functools import partial
from itertools import accumulate
from pathlib import Path

import pytest
import zstandard
from hypothesis import assume, given
from hypothesis import strategies as st

import model
from strategies import lines, needles
from velmora import native
from velmora.api import Repository
from velmora.index import build as indexer
from velmora.output import printer
from velmora.output.line_format import Shape
from velmora.query.pattern import Query
from velmora.search import native_scan
from velmora.search.engine import Hit
from velmora.storage import chunk_reader, chunk_store, line_picks, schema

STRIDE = chunk_store.CHUNK_STRIDE
NO_DICTIONARY = native.FrameDictionary(b"")
MODES = ["lines", "count", "files"]
# Lines thick with the letters that lower-case into ASCII or grow, beside ASCII.
LINE = st.one_of(lines(surrogates=False), st.text(alphabet="abikKI\u0130\u212a\u00e9 ", max_size=8))
# Every layout a plain needle prints in (replacements aside).
SHAPES = st.builds(Shape, **{field: st.booleans() for field in (
    "filename", "heading", "line_number", "column", "only_matching", "vimgrep", "null")})
FILES = st.lists(st.lists(st.lists(LINE, min_size=1, max_size=5).map("\n".join), max_size=3), max_size=4)


def body(text: str | bytes) -> bytes:
    data = text.encode() if isinstance(text, str) else text
    return zstandard.ZstdCompressor(write_content_size=True).compress(data)


def group(files: list[list[str]]) -> tuple[list[tuple], list[tuple]]:
    """Rows and files of a group: file i is id 10 + i, its chunks numbered on from line 1."""
    rows, listed = [], []
    for position, chunks in enumerate(files):
        first = 1
        for k, text in enumerate(chunks):
            end = first + text.count("\n")
            rows.append(((10 + position) * STRIDE + k, first, end, body(text), 0))
            first = end + 1
        listed.append((10 + position, f"f{position}", f"./f{position}".encode()))
    return rows, listed


def expected(files: list[list[str]], query: Query, mode: str, max_count: int | None, shape: Shape,
             color: bool) -> list[tuple[int, bytes]]:
    out = []
    for position, chunks in enumerate(files):
        hits, first = [], 1
        for text in chunks:
            split = text.split("\n")
            for number, column in model.line_matches(split, query.needle, None, query.case_sensitive):
                hits.append(Hit(first + number - 1, column, [(first + number - 1, split[number - 1])]))
            first += len(split)
        hits = hits[:max_count] if max_count is not None else hits
        if hits:
            out.append((position, printer.plain_block(mode, f"./f{position}", hits, query, shape, color).encode()))
    return out


def by_file(scanned: tuple[bytes, list[tuple[int, int]], str | None]) -> tuple[list[tuple[int, bytes]], str | None]:
    """A scan's answer as [(position, output)] for each file, and its problem."""
    output, ends, problem = scanned
    begins = [0] + [end for _, end in ends]
    assert begins[-1] == len(output)
    return [(position, output[begin:end]) for begin, (position, end) in zip(begins, ends)], problem


@given(files=FILES, choice=st.data(), case_sensitive=st.booleans(), mode=st.sampled_from(MODES),
       max_count=st.one_of(st.none(), st.integers(0, 3)), shape=SHAPES, color=st.booleans())
def test_scan_prints_what_the_printer_prints(files, choice, case_sensitive, mode, max_count, shape, color):
    text = "\n".join(c for chunks in files for c in chunks)
    needle = choice.draw(st.one_of(needles(text), st.sampled_from(["", "k", "i", "ki", "\n", "\0"])))
    needle = needle if case_sensitive else needle.lower()
    # What a query can hold: UTF-8, and ASCII when case is ignored.
    assume(needle.isascii() or case_sensitive and not any("\ud800" <= c <= "\udfff" for c in needle))
    query = Query(needle, None, case_sensitive)
    rows, listed = group(files)
    want = expected(files, query, mode, max_count, shape, color)
    # A file left out of the list (one read from disk) is skipped, and the others renumbered.
    gone = choice.draw(st.sampled_from(range(len(listed)))) if listed and choice.draw(st.booleans()) else None
    if gone is not None:
        del listed[gone]
        want = [(position - (position > gone), block) for position, block in want if position != gone]
    got = native.scan_chunks(NO_DICTIONARY, rows, listed, STRIDE, needle, case_sensitive, mode, max_count,
                             shape, color)
    assert by_file(got) == (want, None)


@given(texts=st.lists(st.text(alphabet="ab\n\u00e9", max_size=4), max_size=8), needle=st.text(alphabet="ab\n", max_size=2))
def test_a_group_searched_whole_picks_every_line_that_holds_a_match(texts, needle):
    # The search finds a match in the texts laid end to end: one may start in one text and
    # end in the next, and an empty one starts at every line, the empty texts' too.
    data = [text.encode() for text in texts]
    found = line_picks.picks(b"".join(data), list(accumulate(map(len, data))), lambda data, start: data.find(needle.encode(), start))
    for text, pick in zip(texts, found):
        holding = [i for i, line in enumerate(text.split("\n")) if needle in line]
        assert pick == (text, sorted(set(pick[1]))) and set(holding) <= set(pick[1]) if pick else not holding


BAD = b"\xff needle"
# (chunk bodies of file 0 as (first, last, body), needle, case kept): what the scan answers.
DAMAGE = [
    ([(1, 1, b"not a frame")], "x", True, native.DamagedChunk),
    ([(1, 1, None)], "x", True, native.DamagedChunk),
    ([(1, 1, body(BAD))], "needle", True, native.DamagedChunk),
    ([(1, 1, body(BAD))], "zzz", True, ([], None)),  # never decoded: it lacks the needle
    ([(1, 1, body(BAD))], "zzz", False, native.DamagedChunk),  # case ignored: every body is
    ([(1, 5, body("a\nb"))], "a", True, ([], "a chunk of f0 numbers lines 1-5 but holds 2")),
    ([(1, 5, body("a\nb"))], "c", True, ([], None)),  # a chunk without a match is not split
    ([(3, 1, body("a"))], "a", True, ([], "a chunk of f0 numbers lines 3-1 but holds 0")),
    ([(2, 1, body("a"))], "a", True, ([], None)),  # no lines, and its numbers say so
]


@pytest.mark.parametrize("chunks, needle, case_sensitive, answer", DAMAGE)
def test_damage_is_named_as_the_host_names_it(chunks, needle, case_sensitive, answer):
    ok = (10 * STRIDE, 1, 1, body(needle), 0)  # a file before, which prints first
    rows = [ok] + [(11 * STRIDE + k, first, last, data, 0) for k, (first, last, data) in enumerate(chunks)]
    listed = [(10, "ok", b"ok"), (11, "f0", b"f0")]
    scan = partial(native.scan_chunks, NO_DICTIONARY, rows, listed, STRIDE, needle, case_sensitive, "files", None)
    if isinstance(answer, type):
        with pytest.raises(answer):
            scan()
    else:
        assert by_file(scan()) == ([(0, b"ok\n")] + answer[0], answer[1])


@pytest.fixture(scope="module")
def tree(tmp_path_factory) -> Path:
    """A real tree big enough for a trained dictionary, beside awkward files: a json file the
    index keeps on disk, and a file changed since it was indexed."""
    root = tmp_path_factory.mktemp("scan")
    subprocess.run(["git", "init", "-q", str(root)], check=True)
    shutil.copytree(Path(shutil.__file__).parent / "email", root / "email")
    (root / "odd.txt").write_text("\u212aelvin \u0130i ki\ncr\rlf\r\nself\n", encoding="utf-8")
    (root / "big.json").write_text("[\n" + ",\n".join(f'"self {i}"' for i in range(4000)) + "\n]\n")
    (root / "stale.py").write_text("self = 1\n")
    indexer.index(root)
    (root / "stale.py").write_text("x = 1\nself = 2  # self\n")
    # A pass left unfinished: the changed file is read from disk, not indexed again.
    with closing(sqlite3.connect(schema.index_path(root))) as db, db:
        schema.set_meta(db.cursor(), schema.PASS_MARK, "1")
    return root


@pytest.mark.parametrize("needle, case_sensitive", [
    ("self", True), ("ns", True), ("Message", True), ("message", False), ("ki", False), ("i", False),
    ("\u00e9", True), ("", True), ("no such text", True),
])
@pytest.mark.parametrize("mode, max_count, shape, color", [
    ("lines", None, Shape(), False), ("lines", 2, Shape(), False), ("count", None, Shape(), False),
    ("files", 1, Shape(), False),
    ("lines", None, Shape(line_number=False, column=False), False),  # piped, as users get it
    ("lines", 3, Shape(heading=True, column=False), True),  # on a terminal: files apart
    ("count", None, Shape(only_matching=True, null=True), False),
])
def test_printed_search_is_the_python_paths(tree, needle, case_sensitive, mode, max_count, shape, color):
    query = Query(needle, None, case_sensitive)
    with Repository.open(tree) as repo:
        blocks, reason = repo.printed(query, mode=mode, max_count=max_count, shape=shape, color=color)
        got = native_scan.separator(mode, shape).join(blocks)
        results, _ = repo.search(query, max_count=max_count)
        want = io.StringIO()
        printer.Printer(query, want, mode=mode, color=color, shape=shape).print_all(results)
    assert "an index pass is running" in reason
    assert got.decode() == want.getvalue()


def printed_both_ways(repo: Repository, query: Query, monkeypatch) -> list[tuple]:
    """What a search prints read by the native reader, then by the handle's own connection:
    the output, and the error that ended it."""
    answers = []
    for native_reads in (True, False):
        with monkeypatch.context() as patch:
            if not native_reads:
                patch.setattr(chunk_reader, "of", lambda db: None)
            out = []
            try:
                blocks, _ = repo.printed(query, refresh=False)
                out.extend(blocks)
            except Exception as error:  # noqa: BLE001 - both ways must fail alike
                out.append((type(error), str(error)))
            answers.append(out)
    return answers


# What a tampered index holds; each is read by both ways of the same handle, among the
# chunks the trigrams select ("self") and reading every chunk ("e").
MESSAGE_PY = f"(SELECT id * {STRIDE} + 5 FROM files WHERE path = 'email/message.py')"  # a chunk of a class
TAMPERED = [
    f"DELETE FROM chunk_text WHERE id = {MESSAGE_PY}",
    f"UPDATE chunk_text SET body = x'00ff' WHERE id = {MESSAGE_PY}",
    f"UPDATE chunk_text SET body = 'text' WHERE id = {MESSAGE_PY}",
    f"UPDATE chunk_text SET end_line = 2.5 WHERE id = {MESSAGE_PY}",
    "UPDATE chunk_text SET start_line = start_line + 1",
]


@pytest.mark.parametrize("statement", TAMPERED)
@pytest.mark.parametrize("needle", ["self", "e"])
def test_the_native_reader_answers_as_the_connection_does(tree, tmp_path, monkeypatch, statement, needle):
    root = tmp_path / "copy"
    shutil.copytree(tree, root)
    with closing(sqlite3.connect(schema.index_path(root))) as db, db:
        db.execute(statement)
    with Repository.open(root) as repo:
        native_read, python_read = printed_both_ways(repo, Query(needle, None, True), monkeypatch)
    assert native_read == python_read and isinstance(native_read[-1], tuple)


def test_an_index_rebuilt_under_an_open_handle_is_not_read_through_it(tree, tmp_path, monkeypatch):
    root = tmp_path / "copy"
    shutil.copytree(tree, root)
    with Repository.open(root) as repo:
        (root / "email" / "added.py").write_text("self.added = 1\n")
        indexer.index(root, rebuild=True, progress=False)
        native_read, python_read = printed_both_ways(repo, Query("self", None, True), monkeypatch)
    assert native_read == python_read and b"added.py" not in b"".join(native_read)
