"""The documented behaviour of ``velmora.storage.code_text``, case by case, on both
implementations: the module surface, chunking and sizes, the large-data rule and its
migration, reading files from disk, line matching and context, and the two text sources."""

from __future__ import annotations

import ast
import os
import re
import subprocess
import sys
from pathlib import Path
from typing import Any

import pytest

from conftest import STRIDE as S
from conftest import FakeDatabase, RecordingCursor
from velmora.storage import chunk_store

TESTS_DIR = os.path.dirname(os.path.abspath(__file__))


def seg(impl: Any, first: int, lines: list[str], last: bool) -> Any:
    return impl.Segment(first, lines, last)


def numbered(count: int) -> list[str]:
    return [f"line {n}" for n in range(1, count + 1)]


def mixed_text(lines: list[str]) -> str:
    """The lines joined by every kind of boundary in turn, with a closing LF."""
    bounds = ["\n", "\r\n", "\x85", "\u2028", "\r", "\x0c"]
    return "".join(line + bounds[n % len(bounds)] for n, line in enumerate(lines))


# --- Module surface --------------------------------------------------------------------


def test_constants(impl):
    assert impl.CODE_CHUNK_LINES == 64
    assert impl.CODE_CHUNK_STRIDE == chunk_store.CHUNK_STRIDE
    assert impl.CODE_CHUNKS_DDL == chunk_store.CODE_CHUNKS_DDL
    assert impl.LARGE_DATA_TEXT_BYTES == 32768
    assert type(impl.LARGE_DATA_LANGUAGES) is frozenset
    assert impl.LARGE_DATA_LANGUAGES == {"json"}
    assert "JSON" not in impl.LARGE_DATA_LANGUAGES
    assert impl.FileRow == tuple[int, str, str, str | None]


def test_chunked_text_bytes_sql(impl):
    assert impl._CHUNKED_TEXT_BYTES_SQL == (
        "(SELECT coalesce(sum(length(CAST(coalesce(c.exact, c.text) AS BLOB)) + 1), 1) - 1"
        f" FROM code_chunks c WHERE c.rowid >= f.id * {S} AND c.rowid < (f.id + 1) * {S})"
    )


def load_in_child(impl: Any, prelude: str) -> subprocess.CompletedProcess[str]:
    """Import a fresh copy of the module in a child interpreter, after ``prelude`` ran."""
    code = (
        f"import sys; sys.path.insert(0, {TESTS_DIR!r})\n"
        "from velmora.storage import chunk_store\n"
        f"{prelude}\n"
        f"import {impl.__name__} as m\n"
        "print(m.CODE_CHUNK_STRIDE, m.file_rowids(2), m._CHUNKED_TEXT_BYTES_SQL, sep='|')\n"
    )
    return subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=60)


def test_stride_is_read_from_chunk_store_at_load(impl):
    done = load_in_child(impl, "chunk_store.CHUNK_STRIDE = 1000")
    assert done.returncode == 0, done.stderr
    stride, rowids, sql = done.stdout.strip().split("|")
    assert (stride, rowids) == ("1000", "(2000, 3000)")
    assert "c.rowid >= f.id * 1000 AND c.rowid < (f.id + 1) * 1000)" in sql


@pytest.mark.parametrize("missing", ["CHUNK_STRIDE", "CODE_CHUNKS_DDL", "Layout", "layout"])
def test_loading_fails_without_chunk_store_names(impl, missing):
    done = load_in_child(impl, f"del chunk_store.{missing}")
    assert done.returncode != 0
    # The host's own error: AttributeError, or ImportError for a name taken with "from".
    assert ("AttributeError" in done.stderr or "ImportError" in done.stderr) and missing in done.stderr


def test_segment_record(impl):
    segment = impl.Segment(1, ["a"], True)
    assert (segment.first, segment.lines, segment.last) == (1, ["a"], True)
    first, lines, last = segment
    assert (first, lines, last) == (1, ["a"], True)
    assert (segment[0], segment[1], segment[2]) == (1, ["a"], True)
    assert segment == impl.Segment(first=1, lines=["a"], last=True) == (1, ["a"], True)
    assert segment != impl.Segment(1, ["a"], False)
    assert isinstance(segment, tuple) and len(segment) == 3
    assert impl.Segment._fields == ("first", "lines", "last")
    with pytest.raises(AttributeError):
        segment.first = 2  # type: ignore[misc]
    with pytest.raises(TypeError):
        impl.Segment(1, ["a"])


def test_module_docstring(impl):
    assert impl.__doc__.split("\n")[0] == (
        "The text of the indexed files, as ``search code`` reads it: chunks in the index, or the disk."
    )


DOCSTRINGS = {
    "Segment": "Lines of a file in a row, where a text search looks for matches.",
    "DiskText": "The text of the files, read from disk when searched.",
    "ChunkText": (
        "The text of the files from the chunks of the index that may hold a match, and from disk\n"
        "    for the files whose text the index keeps there."
    ),
    "DiskText.segments": "The file whole, as one segment; none when it cannot hold a match.",
    "DiskText.lines": "Every line of the file (the last file read is kept).",
    "DiskText._load": "The lines of the file; None when it cannot be read or does not hold the needle.",
    "ChunkText.segments": "The chunks of the file that may hold a match, by line (the file whole from disk).",
    "ChunkText.lines": "Every line of the file, from all of its chunks (the last file read is kept).",
    "_file_text": (
        "The text of an indexed file on disk (UTF-8, undecodable bytes replaced); None when it\n"
        "    cannot be read, or is a symlink (``utils.fsio.read_bytes_no_follow``: a file replaced by a\n"
        "    symlink to one outside the repository is not read until the watcher indexes it again)."
    ),
    "_lines_holding": (
        "The lines of a file; None when it cannot be read or does not hold ``needle``.\n"
        "\n"
        "    Args:\n"
        "        path: The file.\n"
        "        needle: The text a plain search looks for (lower-case when the search ignores case);\n"
        "            None for a regex, which is matched line by line only.\n"
        "        case_sensitive: Whether ``needle`` keeps its case.\n"
        "    "
    ),
    "line_matches": (
        "The line number and column of the first match on each line that matches.\n"
        "\n"
        "    Args:\n"
        "        lines: The lines of a file.\n"
        "        needle: The text a plain search looks for (lower-case when the search ignores case).\n"
        "        pattern: The compiled regex of a regex search (``needle`` is then not used), or None.\n"
        "        case_sensitive: Whether ``needle`` keeps its case.\n"
        "    "
    ),
    "context": (
        "Lines ``first`` to ``last`` (1-based, clipped to ``lines``), each with its number.\n"
        "\n"
        "    Args:\n"
        "        lines: Lines of a file in a row: the whole file, or a chunk of it.\n"
        "        first: The first line wanted.\n"
        "        last: The last line wanted.\n"
        "        start: The number of the first of ``lines`` (1 for the whole file).\n"
        "    "
    ),
    "_chunk_state": (
        "How many indexed files that should have chunks have none (the indexer writes at least one\n"
        "    for every file whose text the index keeps), and the files whose text the index keeps on disk;\n"
        "    one row."
    ),
}


def member(impl: Any, dotted: str) -> Any:
    obj = impl
    for name in dotted.split("."):
        obj = getattr(obj, name)
    return obj


@pytest.mark.parametrize("name", DOCSTRINGS)
def test_docstrings(impl, name):
    assert member(impl, name).__doc__ == DOCSTRINGS[name]


def test_text_source_and_candidate_docstrings(impl):
    doc = impl.text_source.__doc__
    assert doc.split("\n")[0] == "Where a text search reads the files: their chunks in the index, or the disk."
    entries = [line.split(":")[0] for line in doc.split("\n") if line.startswith(" " * 8) and not line.startswith(" " * 9)]
    assert entries[:5] == ["        " + name for name in ("db", "files", "needle", "case_sensitive", "store")]
    assert "        files: The files searched.\n" in doc
    assert doc.endswith(
        "\n    Returns:\n"
        "        The text, and why every file is read from disk (None when the index answers).\n    "
    )
    assert impl._candidate_chunks.__doc__.split("\n")[0] == (
        "The chunks of the searched files that may hold a match, per file, by line."
    )


SEGMENTS = {"file_id": "int", "path": "str", "return": "list[Segment]"}
ANNOTATIONS = {
    "_file_text": {"path": "Path", "return": "str | None"},
    "_lines_holding": {
        "path": "Path", "needle": "str | None", "case_sensitive": "bool", "return": "list[str] | None",
    },
    "line_matches": {
        "lines": "list[str]", "needle": "str", "pattern": "re.Pattern[str] | None",
        "case_sensitive": "bool", "return": "Iterator[tuple[int, int]]",
    },
    "context": {
        "lines": "list[str]", "first": "int", "last": "int", "start": "int",
        "return": "list[dict[str, Any]]",
    },
    "DiskText.__init__": {
        "repo_root": "Path", "needle": "str | None", "case_sensitive": "bool", "return": "None",
    },
    "DiskText.segments": SEGMENTS,
    "DiskText.lines": {**SEGMENTS, "return": "list[str]"},
    "DiskText._load": {**SEGMENTS, "return": "list[str] | None"},
    "ChunkText.__init__": {
        "db": "Database", "store": "Layout", "candidates": "dict[int, list[Segment]]",
        "disk": "DiskText", "on_disk": "Collection[int]", "return": "None",
    },
    "ChunkText.segments": SEGMENTS,
    "ChunkText.lines": {**SEGMENTS, "return": "list[str]"},
    "text_source": {
        "db": "Database", "files": "Sequence[FileRow]", "needle": "str | None",
        "case_sensitive": "bool", "store": "Layout | None",
        "return": "tuple[ChunkText | DiskText, str | None]",
    },
    "_chunk_state": {"db": "Database", "store": "Layout", "return": "tuple[int, frozenset[int]]"},
    "_candidate_chunks": {
        "db": "Database", "store": "Layout", "files": "Sequence[FileRow]", "needle": "str | None",
        "case_sensitive": "bool", "return": "dict[int, list[Segment]]",
    },
}


def stub_annotations(module: Any, dotted: str) -> dict[str, str]:
    """The annotations of a definition in the stub beside a compiled module, as text."""
    tree = ast.parse(Path(module.__file__).with_name("code_text.pyi").read_text())
    scope: list[ast.stmt] = tree.body
    for name in dotted.split("."):
        (node,) = [n for n in scope if isinstance(n, (ast.ClassDef, ast.FunctionDef)) and n.name == name]
        scope = node.body
    assert isinstance(node, ast.FunctionDef)
    arguments = node.args
    found = {
        arg.arg: ast.unparse(arg.annotation)
        for arg in [*arguments.posonlyargs, *arguments.args, *arguments.kwonlyargs]
        if arg.annotation is not None
    }
    found["return"] = ast.unparse(node.returns) if node.returns is not None else None
    return found


@pytest.mark.parametrize("name", ANNOTATIONS)
def test_annotations(impl, name):
    # A builtin function cannot hold annotations: the compiled module keeps them in its stub.
    obj = member(impl, name)
    if hasattr(obj, "__annotations__"):
        annotations = dict(obj.__annotations__)
    else:
        annotations = stub_annotations(impl, name)
    assert list(annotations.items()) == list(ANNOTATIONS[name].items())


def test_text_source_takes_store_by_name_only(impl, tmp_path):
    db = FakeDatabase(tmp_path / "x" / "y" / "index.db")
    with pytest.raises(TypeError):
        impl.text_source(db, [], "a", True, None)
    with pytest.raises(TypeError):
        impl.text_source(db, [], "a", True)
    assert db.calls == []


def test_parameters_by_name(impl, tmp_path):
    (tmp_path / "f").write_text("a\nb")
    assert impl._lines_holding(path=tmp_path / "f", needle="b", case_sensitive=True) == ["a", "b"]
    assert impl._file_text(path=tmp_path / "f") == "a\nb"
    assert list(impl.line_matches(lines=["ab"], needle="b", pattern=None, case_sensitive=True)) == [(1, 1)]
    assert impl.context(lines=["a", "b"], first=2, last=2) == [{"line": 2, "content": "b"}]
    disk = impl.DiskText(repo_root=tmp_path, needle=None, case_sensitive=False)
    assert disk.lines(file_id=1, path="f") == ["a", "b"]
    chunks = impl.ChunkText(db=FakeDatabase(), store="code_chunks", candidates={}, disk=disk, on_disk={1})
    assert chunks.segments(file_id=1, path="f") == [(1, ["a", "b"], True)]


# --- Chunking, stored size, row ids ----------------------------------------------------

SPLITTING = [
    pytest.param("", [(1, 0, "")], 0, id="empty"),
    pytest.param("a", [(1, 1, "a")], 1, id="a"),
    pytest.param("a\n", [(1, 1, "a")], 1, id="a-LF"),
    pytest.param("a\n\n", [(1, 2, "a\n")], 2, id="a-LF-LF"),
    pytest.param("\n", [(1, 1, "")], 0, id="LF"),
    pytest.param("\n\n", [(1, 2, "\n")], 1, id="LF-LF"),
    pytest.param("\r", [(1, 1, "")], 0, id="CR"),
    pytest.param("a\r\nb", [(1, 2, "a\nb")], 3, id="a-CRLF-b"),
    pytest.param("a\r\nb\r\n", [(1, 2, "a\nb")], 3, id="a-CRLF-b-CRLF"),
    pytest.param("a\n\rb", [(1, 3, "a\n\nb")], 4, id="a-LF-CR-b"),
    pytest.param("a\r\rb", [(1, 3, "a\n\nb")], 4, id="a-CR-CR-b"),
    pytest.param("\r\n\r", [(1, 2, "\n")], 1, id="CRLF-CR"),
    *[
        pytest.param(f"a{b}b", [(1, 2, "a\nb")], 3, id=f"a-U+{ord(b):04X}-b")
        for b in "\x0b\x0c\x1c\x1d\x1e\x85\u2028\u2029"
    ],
    pytest.param("a\x1fb", [(1, 1, "a\x1fb")], 3, id="unit-separator-is-no-boundary"),
    pytest.param("a\u200bb\x00", [(1, 1, "a\u200bb\x00")], 6, id="ZWSP-NUL"),
    pytest.param("\u00e9", [(1, 1, "\u00e9")], 2, id="e-acute"),
    pytest.param("\ud800", [(1, 1, "\ud800")], 1, id="lone-surrogate"),
    pytest.param("\u20ac\U0001f600", [(1, 1, "\u20ac\U0001f600")], 7, id="euro-astral"),
    pytest.param("\u00e9\u2028\U0001f600\r\n", [(1, 2, "\u00e9\n\U0001f600")], 7, id="multibyte-lines"),
]


@pytest.mark.parametrize(("text", "chunks", "size"), SPLITTING)
def test_chunks_and_size(impl, text, chunks, size):
    assert impl.code_chunks(text) == chunks
    assert impl.stored_text_bytes(text) == size
    assert [line for chunk in chunks for line in impl._chunk_lines(*chunk)] == text.splitlines()


@pytest.mark.parametrize(
    ("count", "ranges"),
    [
        (1, [(1, 1)]),
        (63, [(1, 63)]),
        (64, [(1, 64)]),
        (65, [(1, 64), (65, 65)]),
        (128, [(1, 64), (65, 128)]),
        (129, [(1, 64), (65, 128), (129, 129)]),
        (130, [(1, 64), (65, 128), (129, 130)]),
    ],
)
def test_chunk_ranges(impl, count, ranges):
    lines = numbered(count)
    text = mixed_text(lines)
    chunks = impl.code_chunks(text)
    assert [(first, last) for first, last, _ in chunks] == ranges
    assert [chunk for _, _, chunk in chunks] == ["\n".join(lines[f - 1 : l]) for f, l in ranges]
    # The stored size is the chunks' bytes plus one separator between consecutive chunks.
    assert impl.stored_text_bytes(text) == sum(len(c.encode()) for _, _, c in chunks) + len(chunks) - 1
    assert [line for chunk in chunks for line in impl._chunk_lines(*chunk)] == lines


@pytest.mark.parametrize(
    ("chunk", "lines"),
    [
        ((1, 0, ""), []),
        ((1, 0, "a\nb"), []),
        ((5, 4, "x"), []),
        ((1, 1, ""), [""]),
        ((1, 2, "\n"), ["", ""]),
        ((3, 3, "a\nb"), ["a", "b"]),
        ((65, 66, "x\ny"), ["x", "y"]),
        ((-3, -3, "a"), ["a"]),
        ((1, 1, "a\rb\x0cc\u2028d\x85e"), ["a\rb\x0cc\u2028d\x85e"]),
        ((1, 2, "a\r\nb"), ["a\r", "b"]),
    ],
)
def test_chunk_lines(impl, chunk, lines):
    assert impl._chunk_lines(*chunk) == lines


@pytest.mark.parametrize("file_id", [0, 1, 7, -1, 1 << 40])
def test_file_rowids(impl, file_id):
    assert impl.file_rowids(file_id) == (file_id * S, (file_id + 1) * S)


# --- Large-data rule and its migration ---------------------------------------------------


@pytest.mark.parametrize(
    ("language", "size", "kept"),
    [
        ("json", 32768, False),
        ("json", 32769, True),
        ("json", 0, False),
        ("json", 10**12, True),
        ("JSON", 10**12, False),
        ("Json", 32769, False),
        (" json", 32769, False),
        ("json ", 32769, False),
        ("", 10**12, False),
        ("python", 10**12, False),
    ],
)
def test_text_kept_on_disk(impl, language, size, kept):
    assert impl.text_kept_on_disk(language, size) is kept


PROBE = "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'code_chunks'"
SELECT_LARGE = (
    "SELECT f.id, f.language, "
    "(SELECT coalesce(sum(length(CAST(coalesce(c.exact, c.text) AS BLOB)) + 1), 1) - 1"
    f" FROM code_chunks c WHERE c.rowid >= f.id * {S} AND c.rowid < (f.id + 1) * {S})"
    " FROM files f WHERE f.text_on_disk = 0 AND f.language IN (?)"
)
DELETE = "DELETE FROM code_chunks WHERE rowid >= ? AND rowid < ?"
UPDATE = "UPDATE files SET text_on_disk = 1 WHERE id = ?"

# Neighbours of file 2: the last row id of file 1's range and the first of file 3's.
NEIGHBOUR_ROWIDS = [1 * S, 2 * S - 1, 3 * S]


@pytest.mark.parametrize(
    ("language", "flag", "chunks", "marked"),
    [
        pytest.param("json", 0, ["x" * 32768], False, id="32768-bytes-stay"),
        pytest.param("json", 0, ["x" * 32769], True, id="32769-bytes-go"),
        pytest.param("json", 0, ["x" * 20000, "x" * 10000, "x" * 2766], False, id="three-chunks-32768"),
        pytest.param("json", 0, ["x" * 20000, "x" * 10000, "x" * 2767], True, id="three-chunks-32769"),
        pytest.param("json", 0, ["\u00e9" * 16384], False, id="bytes-not-characters-stay"),
        pytest.param("json", 0, ["\u00e9" * 16385], True, id="bytes-not-characters-go"),
        pytest.param("json", 0, [("x" * 10, "y" * 32769)], True, id="exact-measured"),
        pytest.param("json", 0, [("x" * 32769, "y" * 10)], False, id="exact-over-text"),
        pytest.param("json", 0, [], False, id="no-chunks"),
        pytest.param("python", 0, ["x" * 100000], False, id="other-language"),
        pytest.param("JSON", 0, ["x" * 100000], False, id="language-case"),
        pytest.param("json", 1, ["x" * 100000], False, id="already-on-disk"),
    ],
)
def test_keep_large_data_on_disk(impl, index, language, flag, chunks, marked):
    index.add_file(1)
    index.add_file(2, language=language, text_on_disk=flag)
    index.add_file(3)
    for offset, chunk in enumerate(chunks):
        text, exact = chunk if isinstance(chunk, tuple) else (chunk, None)
        index.add_chunk(2 * S + offset, 64 * offset + 1, 64 * offset + 64, text, exact)
    for rowid in NEIGHBOUR_ROWIDS:
        index.add_chunk(rowid, 1, 1, "x" * 40000)
    before = index.chunk_rowids()

    cursor = index.connection.cursor()
    assert impl.keep_large_data_on_disk(cursor) == int(marked)

    own = [rowid for rowid in before if 2 * S <= rowid < 3 * S]
    assert index.chunk_rowids() == [r for r in before if not (marked and r in own)]
    assert index.flags() == {1: 0, 2: 1 if marked else flag, 3: 0}
    # Nothing over the limit is left: a second run marks nothing.
    assert impl.keep_large_data_on_disk(index.connection.cursor()) == 0
    assert index.flags()[2] == (1 if marked else flag)


def test_migration_statements_in_order(impl, index):
    for file_id, size in [(2, 33000), (3, 10), (5, 40000)]:
        index.add_file(file_id, language="json")
        index.add_chunk(file_id * S, 1, 1, "x" * size)
    index.add_file(4, language="python")
    index.add_chunk(4 * S, 1, 1, "x" * 50000)
    cursor = RecordingCursor(index.connection.cursor())

    assert impl.keep_large_data_on_disk(cursor) == 2

    (rows,) = [call[1] for call in cursor.calls if call[0] == "fetchall"]
    assert sorted(tuple(row) for row in rows) == [(2, "json", 33000), (3, "json", 10), (5, "json", 40000)]
    marked = [row[0] for row in rows if row[2] > 32768]
    probe, fetched, select, selected, *rest = cursor.calls
    assert probe[:2] == ("execute", PROBE) and probe[2] in (None, ())
    assert fetched == ("fetchone", (1,))
    assert select == ("execute", SELECT_LARGE, ("json",))
    assert selected[0] == "fetchall"
    assert rest == [
        *[("execute", DELETE, (f * S, (f + 1) * S)) for f in marked],
        ("executemany", UPDATE, [(f,) for f in marked]),
    ]
    assert index.flags() == {2: 1, 3: 0, 4: 0, 5: 1}
    assert index.chunk_rowids() == [3 * S, 4 * S]


def test_migration_without_code_chunks_only_probes(impl, db_factory):
    index = db_factory(code_chunks=False)
    index.add_file(1, language="json")
    cursor = RecordingCursor(index.connection.cursor())
    assert impl.keep_large_data_on_disk(cursor) == 0
    assert [call[:2] for call in cursor.calls] == [("execute", PROBE), ("fetchone", None)]
    assert index.flags() == {1: 0}


# --- Reading files from disk -------------------------------------------------------------

DECODING = [
    (b"", ""),
    (b"plain\n", "plain\n"),
    (b"\xef\xbb\xbfx", "\ufeffx"),
    (b"a\x00b", "a\x00b"),
    (b"\xff\xfe", "\ufffd\ufffd"),
    (b"\xe2\x82A", "\ufffdA"),
    (b"x\xf0\x9f\x98", "x\ufffd"),
    (b"\xed\xa0\x80", "\ufffd" * 3),
    (b"\xc0\xaf", "\ufffd" * 2),
    (b"\xf4\x90\x80\x80", "\ufffd" * 4),
    (b"\xe0\x80\x80", "\ufffd" * 3),
    (b"\xf0\x80\x80\x80", "\ufffd" * 4),
    (b"\xc3(", "\ufffd("),
    (b"\x80\xbfz", "\ufffd\ufffdz"),
    (b"\xf0\x9f\x98\x80\xe2\x82\xac\xc3\xa9", "\U0001f600\u20ac\u00e9"),
    (b"\xe2\x82\xe2\x82\xac", "\ufffd\u20ac"),
]


@pytest.mark.parametrize(("data", "text"), DECODING)
def test_file_text_decoding(impl, tmp_path, data, text):
    (tmp_path / "f").write_bytes(data)
    assert impl._file_text(tmp_path / "f") == text


HOLDING = [
    pytest.param("Foo", "foo", False, ["Foo"], id="lower-needle-keeps-case"),
    pytest.param("Foo", "Foo", False, None, id="needle-not-lowered"),
    pytest.param("Foo", "foo", True, None, id="case-sensitive"),
    pytest.param("Foo\nbar", None, True, ["Foo", "bar"], id="regex-reads-all"),
    pytest.param("", None, False, [], id="empty-regex"),
    pytest.param("", "", False, [], id="empty-empty-needle"),
    pytest.param("", "x", True, None, id="empty-needle-x"),
    pytest.param("a\nb", "", True, ["a", "b"], id="empty-needle"),
    pytest.param("a\r\nb", None, True, ["a", "b"], id="CRLF"),
    pytest.param("a\rb", None, True, ["a", "b"], id="CR"),
    pytest.param("a\n", None, True, ["a"], id="no-empty-last-line"),
    pytest.param("a\u2028b\x85c\x0cd", None, True, ["a", "b", "c", "d"], id="other-boundaries"),
    pytest.param("a\nb", "a\nb", True, ["a", "b"], id="needle-spans-boundary"),
    pytest.param("Ab\nCd", "b\nc", False, ["Ab", "Cd"], id="lowered-whole-text"),
    pytest.param("\u0130x", "i\u0307x", False, ["\u0130x"], id="dotted-I-grows"),
    pytest.param("\u0130x", "ix", False, None, id="dotted-I-is-not-i"),
    pytest.param("\u0391\u03a3", "\u03b1\u03c2", False, ["\u0391\u03a3"], id="final-sigma"),
    pytest.param("\u0391\u03a3", "\u03b1\u03c3", False, None, id="final-sigma-not-medial"),
    pytest.param("\u03a3\u0391", "\u03c3\u03b1", False, ["\u03a3\u0391"], id="medial-sigma"),
    pytest.param("\u212a", "k", False, ["\u212a"], id="kelvin-lowers-to-k"),
    pytest.param("\u00df", "ss", False, None, id="lower-not-casefold"),
    pytest.param("\u1e9e", "\u00df", False, ["\u1e9e"], id="capital-sharp-s"),
    pytest.param(b"\xef\xbb\xbfx\ny", None, True, ["\ufeffx", "y"], id="BOM-stays"),
    pytest.param(b"a\xffb\n\xc0\xafc", "\ufffdb", True, ["a\ufffdb", "\ufffd\ufffdc"], id="invalid-UTF-8"),
    pytest.param(b"a\x00b", "\x00", True, ["a\x00b"], id="NUL"),
]


@pytest.mark.parametrize(("content", "needle", "case_sensitive", "lines"), HOLDING)
def test_lines_holding(impl, tmp_path, content, needle, case_sensitive, lines):
    path = tmp_path / "f"
    path.write_bytes(content if isinstance(content, bytes) else content.encode())
    assert impl._lines_holding(path, needle, case_sensitive) == lines


def unreadable(tmp_path: Path, kind: str) -> Path:
    target = tmp_path / "target.txt"
    target.write_text("x\n")
    if kind == "symlink":
        (tmp_path / "link").symlink_to(target)
        return tmp_path / "link"
    if kind == "dangling-symlink":
        (tmp_path / "link").symlink_to(tmp_path / "nowhere")
        return tmp_path / "link"
    if kind == "directory":
        return tmp_path
    if kind == "missing":
        return tmp_path / "missing"
    return Path(str(target) + "\x00")  # a NUL in the path: ValueError


@pytest.mark.parametrize("kind", ["symlink", "dangling-symlink", "directory", "missing", "nul-in-path"])
@pytest.mark.parametrize("needle", [None, "", "x"])
def test_unreadable_files(impl, tmp_path, kind, needle):
    path = unreadable(tmp_path, kind)
    assert impl._file_text(path) is None
    assert impl._lines_holding(path, needle, True) is None


def test_other_read_errors_propagate(impl):
    with pytest.raises(TypeError):
        impl._file_text(3.5)
    with pytest.raises(TypeError):
        impl._lines_holding(3.5, None, True)


# --- Line matching and context -------------------------------------------------------------

MATCHING = [
    pytest.param(["abc", "xbx", "bb"], "b", None, True, [(1, 1), (2, 1), (3, 0)], id="first-match-per-line"),
    pytest.param(["abc", "xbx", "bb", ""], "", None, True, [(1, 0), (2, 0), (3, 0), (4, 0)], id="empty-needle"),
    pytest.param(["FOO foo"], "foo", None, False, [(1, 0)], id="case-ignored"),
    pytest.param(["FOO foo"], "foo", None, True, [(1, 4)], id="case-sensitive"),
    pytest.param(["FOO"], "FOO", None, False, [], id="needle-not-lowered"),
    pytest.param(["x", "aXbX", "y"], "x", None, False, [(1, 0), (2, 1)], id="numbers-from-1"),
    pytest.param(["\u0130ab"], "a", None, False, [(1, 2)], id="dotted-I-shifts-column"),
    pytest.param(["\u0130ab"], "a", None, True, [(1, 1)], id="dotted-I-case-sensitive"),
    pytest.param(["x\u0391\u03a3"], "\u03c2", None, False, [(1, 2)], id="final-sigma"),
    pytest.param(["ab\U0001f600c\u00e9d"], "d", None, True, [(1, 5)], id="code-point-columns"),
    pytest.param([], "a", None, True, [], id="no-lines"),
    pytest.param(["abbb"], None, "b+", True, [(1, 1)], id="regex"),
    pytest.param(["a", "", "b"], None, "x*", True, [(1, 0), (2, 0), (3, 0)], id="regex-empty-match"),
    pytest.param(["", "ab"], None, "b?$", True, [(1, 0), (2, 1)], id="regex-leftmost-empty"),
    pytest.param(["xa", "A", "b"], "b", "(?i)a", True, [(1, 1), (2, 0)], id="regex-ignores-needle"),
    pytest.param(["ab\U0001f600c"], None, "c", False, [(1, 3)], id="regex-code-point-columns"),
]


@pytest.mark.parametrize(("lines", "needle", "regex", "case_sensitive", "matches"), MATCHING)
def test_line_matches(impl, lines, needle, regex, case_sensitive, matches):
    pattern = re.compile(regex) if regex is not None else None
    assert list(impl.line_matches(lines, needle, pattern, case_sensitive)) == matches


class ScriptedPattern:
    """Matches where a line holds "x"; records every line it is asked about."""

    def __init__(self, fail_on: str | None = None) -> None:
        self.seen: list[str] = []
        self.fail_on = fail_on

    def search(self, line: str) -> Any:
        self.seen.append(line)
        if line == self.fail_on:
            raise RuntimeError("pattern failed")
        return re.search("x", line)


def test_line_matches_is_lazy(impl):
    pattern = ScriptedPattern()
    found = impl.line_matches(["ax", "b", "cx", "d"], None, pattern, True)
    assert pattern.seen == []
    assert iter(found) is found
    assert next(found) == (1, 1)
    assert pattern.seen == ["ax"]
    assert next(found) == (3, 1)
    assert pattern.seen == ["ax", "b", "cx"]
    assert list(found) == []
    assert pattern.seen == ["ax", "b", "cx", "d"]
    assert list(found) == []


def test_line_matches_fails_when_consumed(impl):
    pattern = ScriptedPattern(fail_on="b")
    found = impl.line_matches(["ax", "b"], None, pattern, True)
    assert next(found) == (1, 1)
    with pytest.raises(RuntimeError):
        next(found)
    plain = impl.line_matches(["a"], None, None, True)  # a plain search without a needle
    with pytest.raises(TypeError):
        next(plain)


THREE = ["a", "b", "c"]
CONTEXT = [
    pytest.param(THREE, 0, 10, 1, [(1, 0), (2, 1), (3, 2)], id="clipped-both-ends"),
    pytest.param(["p", "q", "r"], 60, 70, 65, [(65, 0), (66, 1), (67, 2)], id="chunk-at-65"),
    pytest.param(THREE, 3, 2, 1, [], id="inverted"),
    pytest.param(THREE, 4, 9, 1, [], id="first-past-end"),
    pytest.param(THREE, 3, 9, 1, [(3, 2)], id="first-is-last-line"),
    pytest.param(THREE, 2, 2, 1, [(2, 1)], id="one-line"),
    pytest.param(THREE, -5, 0, 1, [], id="before-start"),
    pytest.param(THREE, 2, 3, 2, [(2, 0), (3, 1)], id="start-2"),
    pytest.param(["a"], 1, 1, 0, [], id="start-0"),
    pytest.param(["a", "b"], -1, 0, 0, [(0, 0)], id="start-0-line-0"),
    pytest.param(THREE, 1, 10**18, 1, [(1, 0), (2, 1), (3, 2)], id="huge-last"),
    pytest.param([], 1, 5, 1, [], id="no-lines"),
]


@pytest.mark.parametrize(("lines", "first", "last", "start", "records"), CONTEXT)
def test_context(impl, lines, first, last, start, records):
    got = impl.context(lines, first, last, start)
    assert got == [{"line": number, "content": lines[at]} for number, at in records]
    for record, (_, at) in zip(got, records):
        assert type(record) is dict and list(record) == ["line", "content"]
        assert record["content"] is lines[at]


def test_context_start_defaults_to_1(impl):
    assert impl.context(["a", "b", "c"], 2, 2) == [{"line": 2, "content": "b"}]


# --- Disk text source -------------------------------------------------------------------------


def test_disk_text_reads_a_holding_file_once(impl, tmp_path):
    (tmp_path / "f.txt").write_text("one\ntwo foo\n")
    disk = impl.DiskText(tmp_path, "foo", True)
    segments = disk.segments(1, "f.txt")
    assert segments == [seg(impl, 1, ["one", "two foo"], True)]
    (tmp_path / "f.txt").write_text("changed foo\n")
    lines = disk.lines(1, "f.txt")
    assert lines == ["one", "two foo"]
    assert lines is segments[0].lines


def test_disk_text_keeps_a_miss(impl, tmp_path):
    (tmp_path / "f.txt").write_text("abc\n")
    disk = impl.DiskText(tmp_path, "foo", True)
    assert disk.segments(1, "f.txt") == []
    (tmp_path / "f.txt").write_text("foo\n")
    assert disk.lines(1, "f.txt") == []
    assert disk.segments(1, "f.txt") == []


@pytest.mark.parametrize("kind", ["symlink", "directory", "missing"])
@pytest.mark.parametrize("needle", [None, "x"])
def test_disk_text_unreadable(impl, tmp_path, kind, needle):
    path = unreadable(tmp_path, kind)
    disk = impl.DiskText(tmp_path, needle, False)
    assert disk.segments(1, str(path.relative_to(tmp_path))) == []
    assert disk.lines(1, str(path.relative_to(tmp_path))) == []


def test_disk_text_empty_file_in_regex_search(impl, tmp_path):
    (tmp_path / "empty").write_bytes(b"")
    disk = impl.DiskText(tmp_path, None, True)
    assert disk.segments(1, "empty") == [seg(impl, 1, [], True)]
    assert disk.lines(1, "empty") == []


def test_disk_text_cache_is_one_file_by_id(impl, tmp_path):
    (tmp_path / "a").write_text("a1\n")
    (tmp_path / "b").write_text("b1\n")
    disk = impl.DiskText(tmp_path, None, True)
    assert disk.lines(1, "a") == ["a1"]
    (tmp_path / "a").write_text("a2\n")
    assert disk.lines(1, "a") == ["a1"]  # A, A: read once
    assert disk.lines(1, "b") == ["a1"]  # the path is no part of the key
    assert disk.lines(2, "b") == ["b1"]
    assert disk.lines(1, "a") == ["a2"]  # A, B, A: read again


def test_disk_text_paths(impl, tmp_path):
    (tmp_path / "repo" / "sub").mkdir(parents=True)
    (tmp_path / "repo" / "sub" / "f.py").write_text("X = 1\n")
    (tmp_path / "outside.txt").write_text("out\n")
    disk = impl.DiskText(tmp_path / "repo", "x = 1", False)
    assert disk.segments(1, "sub/f.py") == [seg(impl, 1, ["X = 1"], True)]
    regex = impl.DiskText(tmp_path / "repo", None, False)
    assert regex.lines(2, str(tmp_path / "outside.txt")) == ["out"]  # absolute stands alone


def test_disk_text_does_not_touch_the_disk_when_made(impl, tmp_path):
    disk = impl.DiskText(tmp_path / "nowhere", "x", True)
    assert disk.lines(1, "f") == []


# --- Chunk state probe ----------------------------------------------------------------------


def probe_sql(table: str, key: str) -> str:
    return (
        "SELECT (SELECT COUNT(*) FROM files f WHERE f.text_on_disk = 0 AND NOT EXISTS (SELECT 1 FROM "
        f"{table} c WHERE c.{key} = f.id * {S})), (SELECT group_concat(id) FROM files WHERE text_on_disk = 1)"
    )


@pytest.mark.parametrize(
    ("store", "table", "key"),
    [
        ("code_chunks", "code_chunks", "rowid"),
        ("fts5", "code_chunks", "rowid"),
        ("", "code_chunks", "rowid"),
        ("Compressed", "code_chunks", "rowid"),
        ("compressed ", "code_chunks", "rowid"),
        ("compressed", "chunk_blobs", "id"),
    ],
)
def test_chunk_state_statement(impl, compressed, store, table, key):
    db = FakeDatabase(one=(0, None))
    assert impl._chunk_state(db, store) == (0, frozenset())
    assert db.calls == [("fetchone", probe_sql(table, key))]


def test_chunk_state_reads_compressed_table_name_each_call(impl, compressed, monkeypatch):
    db = FakeDatabase(one=(0, None))
    impl._chunk_state(db, "compressed")
    monkeypatch.setattr(chunk_store, "COMPRESSED_TABLE", "other_blobs")
    impl._chunk_state(db, "compressed")
    assert [sql for _, sql in db.calls] == [probe_sql("chunk_blobs", "id"), probe_sql("other_blobs", "id")]


@pytest.mark.parametrize(
    ("row", "state"),
    [
        (None, (0, set())),
        ((0, None), (0, set())),
        ((0, ""), (0, set())),
        ((0, 0), (0, set())),
        ((2, "3,17,42"), (2, {3, 17, 42})),
        ((0, "42,3,17"), (0, {3, 17, 42})),
        ((0, "7"), (0, {7})),
        ((0, 7), (0, {7})),
        ((1, "5,,5,"), (1, {5})),
        (("4", "10"), (4, {10})),
    ],
)
def test_chunk_state_reads_the_row(impl, row, state):
    got = impl._chunk_state(FakeDatabase(one=row), "code_chunks")
    assert got == (state[0], frozenset(state[1]))
    assert type(got) is tuple and type(got[0]) is int and type(got[1]) is frozenset


def test_chunk_state_on_a_real_index(impl, index):
    index.add_file(1)
    index.add_chunk(1 * S, 1, 1, "a")
    index.add_file(2)  # no chunk at all
    index.add_file(3)  # its first chunk is missing, a later one is there
    index.add_chunk(3 * S + 1, 65, 65, "b")
    index.add_file(4, text_on_disk=1)
    index.add_file(5, text_on_disk=1)  # on disk, with a stray chunk
    index.add_chunk(5 * S, 1, 1, "c")
    index.add_file(6, text_on_disk=2)  # neither counted nor listed
    index.add_file(17, text_on_disk=1)
    index.add_file(42, text_on_disk=1)
    assert impl._chunk_state(index.db, "code_chunks") == (2, frozenset({4, 5, 17, 42}))


def test_chunk_state_fully_chunked(impl, index):
    index.add_indexed(1, "a\nb\n")
    index.add_indexed(2, "")
    assert impl._chunk_state(index.db, "code_chunks") == (0, frozenset())


def test_chunk_state_compressed_on_a_real_index(impl, db_factory, compressed):
    index = db_factory(code_chunks=False)
    index.connection.execute(f"CREATE TABLE {compressed.TABLE} (id INTEGER PRIMARY KEY)")
    index.connection.execute(f"INSERT INTO {compressed.TABLE} (id) VALUES (?)", (1 * S,))
    index.add_file(1)
    index.add_file(2)
    index.add_file(3, text_on_disk=1)
    assert impl._chunk_state(index.db, "compressed") == (1, frozenset({3}))


# --- Candidate chunk selection ----------------------------------------------------------------

CANDIDATES_ALL = (
    "SELECT c.rowid, c.start_line, c.end_line, coalesce(c.exact, c.text),"
    " NOT EXISTS (SELECT 1 FROM code_chunks n WHERE n.rowid = c.rowid + 1) FROM code_chunks c"
)
CANDIDATES_LIKE = CANDIDATES_ALL + " WHERE c.text LIKE ?"

NARROWING = [
    pytest.param(None, True, False, id="regex"),
    pytest.param(None, False, False, id="regex-ignoring-case"),
    pytest.param("a\x00b", True, False, id="NUL"),
    pytest.param("a\x00b", False, False, id="NUL-ignoring-case"),
    pytest.param("\u00e9t\u00e9", False, False, id="non-ASCII-ignoring-case"),
    pytest.param("\u00e9t\u00e9", True, True, id="non-ASCII-case-sensitive"),
    pytest.param("abc", False, True, id="ASCII-ignoring-case"),
    pytest.param("Abc", True, True, id="ASCII-case-sensitive"),
    pytest.param("a_c", True, True, id="underscore"),
    pytest.param("50%", False, True, id="percent"),
    pytest.param("", False, True, id="empty"),
]


@pytest.mark.parametrize(("needle", "case_sensitive", "narrows"), NARROWING)
@pytest.mark.parametrize("store", ["code_chunks", "fts5"])
def test_candidate_statement(impl, store, needle, case_sensitive, narrows):
    db = FakeDatabase(rows=[])
    assert impl._candidate_chunks(db, store, [(1, "a", "python", None)], needle, case_sensitive) == {}
    if narrows:
        assert db.calls == [("fetchall", CANDIDATES_LIKE, ("%" + needle + "%",))]
    else:
        assert db.calls == [("fetchall", CANDIDATES_ALL, None)]


@pytest.mark.parametrize(("needle", "case_sensitive", "narrows"), NARROWING)
def test_candidate_calls_in_compressed_layout(impl, compressed, needle, case_sensitive, narrows):
    db = FakeDatabase()
    files = [(4, "a", "python", None), (2, "b", "go", "x"), (4, "a", "python", None)]
    assert impl._candidate_chunks(db, "compressed", files, needle, case_sensitive) == {}
    assert compressed.named("trigram_query") == ([((needle,), {})] if narrows else [])
    (args, kwargs), = compressed.named("matching_rows")
    assert kwargs == {}
    assert args[0] is db
    assert args[1] == (("trigram", needle) if narrows else None)
    assert set(args[2]) == {2, 4}
    assert db.calls == []


def test_candidate_rows_in_compressed_layout(impl, compressed):
    compressed.rows = [
        (3 * S + 1, 65, 66, "c\nd", 1),
        (9 * S, 1, 1, "other file", 1),
        (3 * S, 1, 64, "a\nb", 0),
    ]
    got = impl._candidate_chunks(FakeDatabase(), "compressed", [(3, "p", "c", None)], "b", True)
    assert got == {3: [seg(impl, 1, ["a", "b"], False), seg(impl, 65, ["c", "d"], True)]}


def candidates(impl: Any, index: Any, ids: list[int], needle: str | None, case_sensitive: bool) -> Any:
    files = [(file_id, f"f{file_id}.txt", "python", None) for file_id in ids]
    return impl._candidate_chunks(index.db, "code_chunks", files, needle, case_sensitive)


def test_candidates_of_a_long_file(impl, index):
    lines = numbered(130)
    lines[9] += " needle"
    lines[69] += " needle"
    index.add_indexed(1, mixed_text(lines))
    first, second, third = (
        seg(impl, 1, lines[:64], False),
        seg(impl, 65, lines[64:128], False),
        seg(impl, 129, lines[128:], True),
    )
    assert candidates(impl, index, [1], "needle", True) == {1: [first, second]}
    assert candidates(impl, index, [1], "line 130", True) == {1: [third]}
    assert candidates(impl, index, [1], None, True) == {1: [first, second, third]}
    assert candidates(impl, index, [1], "", False) == {1: [first, second, third]}


def test_candidates_per_file(impl, index):
    index.add_indexed(1, "alpha\nHello World\n")
    index.add_indexed(2, "nothing here\n")
    index.add_indexed(3, "hello again\n")  # holds it, but is not searched
    index.add_indexed(4, "hello on disk\n", on_disk=True)
    index.add_indexed(5, "")
    got = candidates(impl, index, [1, 2, 4, 5], "hello", False)
    assert got == {1: [seg(impl, 1, ["alpha", "Hello World"], True)]}
    # LIKE folds ASCII case whatever the search asks: a superset, that line matching narrows.
    assert candidates(impl, index, [1, 2, 4, 5], "hello", True) == got
    assert candidates(impl, index, [5], None, False) == {5: [seg(impl, 1, [], True)]}
    assert candidates(impl, index, [], None, False) == {}


@pytest.mark.parametrize(
    ("text", "needle", "case_sensitive", "lines"),
    [
        pytest.param("axc\n", "a_c", True, ["axc"], id="underscore-wildcard"),
        pytest.param("a--c\n", "a%c", True, ["a--c"], id="percent-wildcard"),
        pytest.param("\u212aey\n", "key", False, None, id="kelvin-missed"),
        pytest.param("\u212aey key\n", "key", False, ["\u212aey key"], id="kelvin-with-ascii"),
        pytest.param("x\u0130\n", "i", False, None, id="dotted-I-missed"),
        pytest.param("\u00c9t\u00e9\n", "\u00e9t\u00e9", False, ["\u00c9t\u00e9"], id="non-ASCII-reads-all"),
        pytest.param("\u00c9t\u00e9\n", "\u00e9t\u00e9", True, None, id="non-ASCII-case-sensitive"),
        pytest.param("a\x00b\n", "a b", True, ["a\x00b"], id="NUL-as-space-exact-text"),
        pytest.param("a\x00b\n", "a\x00b", True, ["a\x00b"], id="NUL-needle-reads-all"),
    ],
)
def test_candidate_selection(impl, index, text, needle, case_sensitive, lines):
    index.add_indexed(1, text)
    expected = {} if lines is None else {1: [seg(impl, 1, lines, True)]}
    assert candidates(impl, index, [1], needle, case_sensitive) == expected


def test_candidate_rows_are_ordered_per_file(impl):
    f, g = 3, 8
    rows = [
        (g * S, 1, 1, "g", 1),
        (f * S + 2, 129, 130, "y\nz", 1),
        (f * S, 1, 64, "a", 0),
        (f * S + 1, 65, 128, "x", 0),
        (5 * S, 1, 1, "unsearched", 1),
    ]
    db = FakeDatabase(rows=rows)
    files = [(f, "f", "c", None), (g, "g", "c", None)]
    got = impl._candidate_chunks(db, "code_chunks", files, None, True)
    assert list(got) == [g, f]
    assert got[f] == [seg(impl, 1, ["a"], False), seg(impl, 65, ["x"], False), seg(impl, 129, ["y", "z"], True)]
    assert got[g] == [seg(impl, 1, ["g"], True)]
    for segment in got[f] + got[g]:
        assert type(segment) is impl.Segment
        assert type(segment.first) is int and type(segment.last) is bool


def test_candidate_row_of_other_than_five_values_fails(impl):
    db = FakeDatabase(rows=[(S, 1, 1, "a")])
    with pytest.raises((TypeError, ValueError)):
        impl._candidate_chunks(db, "code_chunks", [(1, "f", "c", None)], None, True)


# --- Chunk text source ----------------------------------------------------------------------

FILE_CHUNKS = "SELECT start_line, end_line, coalesce(exact, text) FROM code_chunks WHERE rowid >= ? AND rowid < ? ORDER BY rowid"


def test_chunk_text_on_disk_files_read_from_disk(impl, tmp_path, compressed):
    (tmp_path / "a.txt").write_text("one\ntwo\n")
    db = FakeDatabase()
    for store in ("code_chunks", "compressed"):
        chunks = impl.ChunkText(db, store, {7: []}, impl.DiskText(tmp_path, None, True), frozenset({7}))
        assert chunks.segments(7, "a.txt") == [seg(impl, 1, ["one", "two"], True)]
        assert chunks.lines(7, "a.txt") == ["one", "two"]
    assert db.calls == [] and compressed.calls == []


def test_chunk_text_segments_are_the_candidates(impl, tmp_path):
    listed = [seg(impl, 65, ["x"], False)]
    db = FakeDatabase()
    chunks = impl.ChunkText(db, "code_chunks", {1: listed}, impl.DiskText(tmp_path, "x", True), set())
    assert chunks.segments(1, "f") is listed
    assert chunks.segments(2, "g") == []
    assert db.calls == []


@pytest.mark.parametrize("store", ["code_chunks", "fts5", ""])
def test_chunk_text_lines_from_code_chunks(impl, index, store):
    lines = numbered(150)
    lines[100] = "with a \x00 NUL"
    index.add_indexed(3, mixed_text(lines))
    index.add_indexed(4, "neighbour\n")
    db = FakeDatabase(real=index.db)
    chunks = impl.ChunkText(db, store, {}, impl.DiskText(index.root, None, True), frozenset())
    assert chunks.lines(3, "f3.txt") == lines
    assert db.calls == [("fetchall", FILE_CHUNKS, (3 * S, 4 * S))]


def test_chunk_text_lines_use_exact_text(impl, index):
    index.add_file(1)
    index.add_chunk(1 * S, 1, 2, "a b\nc", "a\x00b\nc")
    index.add_chunk(1 * S + 1, 3, 3, "d")
    chunks = impl.ChunkText(index.db, "code_chunks", {}, impl.DiskText(index.root, None, True), ())
    assert chunks.lines(1, "f1.txt") == ["a\x00b", "c", "d"]


def test_chunk_text_lines_in_compressed_layout(impl, tmp_path, compressed):
    compressed.file_rows_result = [(1, 2, "a\nb", "extra"), (3, 3, "c", "extra")]
    db = FakeDatabase()
    chunks = impl.ChunkText(db, "compressed", {}, impl.DiskText(tmp_path, None, True), frozenset())
    assert chunks.lines(2, "f") == ["a", "b", "c"]
    assert compressed.named("file_rows") == [((db, 2 * S, 3 * S), {})]
    assert db.calls == []


def test_chunk_text_keeps_the_last_file(impl, index):
    index.add_indexed(1, "a\n")
    index.add_indexed(2, "b\n")
    db = FakeDatabase(real=index.db)
    chunks = impl.ChunkText(db, "code_chunks", {}, impl.DiskText(index.root, None, True), frozenset())
    first = chunks.lines(1, "f1.txt")
    assert chunks.lines(1, "other path") is first
    assert len(db.calls) == 1
    assert chunks.lines(2, "f2.txt") == ["b"]
    assert chunks.lines(1, "f1.txt") == ["a"]
    assert [params for _, _, params in db.calls] == [(S, 2 * S), (2 * S, 3 * S), (S, 2 * S)]


def test_chunk_text_file_without_chunks(impl, index):
    db = FakeDatabase(real=index.db)
    chunks = impl.ChunkText(db, "code_chunks", {}, impl.DiskText(index.root, None, True), frozenset())
    assert chunks.lines(9, "f9.txt") == []
    assert chunks.lines(9, "f9.txt") == []
    assert len(db.calls) == 1


# --- Text source choice ----------------------------------------------------------------------

NO_TABLE = "read from the files on disk: this index has no table of the files' text"


def unchunked_reason(count: int) -> str:
    return (
        f"read from the files on disk: {count} indexed file(s) have no chunks yet"
        " (the next index pass parses them)"
    )


def test_text_source_without_chunk_table(impl, tmp_path):
    root = tmp_path / "r"
    (root / "a" / "b").mkdir(parents=True)
    (root / "f.txt").write_text("Foo\nbar\n")
    db = FakeDatabase(root / "a" / "b" / "index.db")
    source, reason = impl.text_source(db, [(1, "f.txt", "text", None)], "foo", False, store=None)
    assert reason == NO_TABLE
    assert type(source) is impl.DiskText
    assert source.segments(1, "f.txt") == [seg(impl, 1, ["Foo", "bar"], True)]
    assert db.calls == []


def test_text_source_root_of_a_relative_database_path(impl, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    (tmp_path / "f.txt").write_text("here\n")
    source, _ = impl.text_source(FakeDatabase("y/index.db"), [], None, True, store=None)
    assert source.lines(1, "f.txt") == ["here"]


def test_text_source_with_unchunked_files(impl, index):
    index.add_indexed(1, "one\n")
    index.add_file(2)
    index.write("f2.txt", "two\n")
    db = FakeDatabase(real=index.db)
    files = [(1, "f1.txt", "python", None), (2, "f2.txt", "python", None)]
    source, reason = impl.text_source(db, files, "o", True, store="code_chunks")
    assert reason == unchunked_reason(1)
    assert type(source) is impl.DiskText
    assert [call[0] for call in db.calls] == ["fetchone"]
    assert source.lines(1, "f1.txt") == ["one"]


@pytest.mark.parametrize("count", [3, 12345])
def test_text_source_unchunked_count_in_reason(impl, count):
    db = FakeDatabase(one=(count, "5"))
    source, reason = impl.text_source(db, [], "x", True, store="code_chunks")
    assert reason == unchunked_reason(count)
    assert type(source) is impl.DiskText
    assert [call[0] for call in db.calls] == ["fetchone"]


def test_text_source_from_the_index(impl, index):
    index.add_indexed(1, "a foo\nb\n")
    index.add_indexed(2, "FOO on disk\n", on_disk=True)
    index.add_indexed(3, "no match\n")
    db = FakeDatabase(real=index.db)
    files = [(1, "f1.txt", "python", None), (2, "f2.txt", "json", None), (3, "f3.txt", "python", None)]
    source, reason = impl.text_source(db, files, "foo", False, store="code_chunks")
    assert reason is None
    assert type(source) is impl.ChunkText
    assert [call[0] for call in db.calls] == ["fetchone", "fetchall"]
    assert db.calls[1][2] == ("%foo%",)
    assert source.segments(1, "f1.txt") == [seg(impl, 1, ["a foo", "b"], True)]
    assert source.segments(2, "f2.txt") == [seg(impl, 1, ["FOO on disk"], True)]
    assert source.segments(3, "f3.txt") == []
    assert source.lines(3, "f3.txt") == ["no match"]


def test_text_source_regex_search(impl, index):
    index.add_indexed(1, "x\ny\n")
    index.add_indexed(2, "on disk\n", on_disk=True)
    db = FakeDatabase(real=index.db)
    source, reason = impl.text_source(db, [(1, "f1.txt", "c", None), (2, "f2.txt", "c", None)], None, True, store="fts")
    assert reason is None
    assert db.calls[1] == ("fetchall", CANDIDATES_ALL, None)
    assert source.segments(1, "f1.txt") == [seg(impl, 1, ["x", "y"], True)]
    assert source.segments(2, "f2.txt") == [seg(impl, 1, ["on disk"], True)]


def test_text_source_empty_layout_value_is_a_layout(impl, index):
    index.add_indexed(1, "a\n")
    db = FakeDatabase(real=index.db)
    source, reason = impl.text_source(db, [(1, "f1.txt", "c", None)], "a", True, store="")
    assert reason is None and type(source) is impl.ChunkText
    assert [call[0] for call in db.calls] == ["fetchone", "fetchall"]


def test_text_source_with_no_files_still_selects(impl, index):
    index.add_indexed(1, "a\n")
    db = FakeDatabase(real=index.db)
    source, reason = impl.text_source(db, [], "a", True, store="code_chunks")
    assert reason is None and type(source) is impl.ChunkText
    assert [call[0] for call in db.calls] == ["fetchone", "fetchall"]
    assert source.segments(1, "f1.txt") == []


def test_text_source_compressed(impl, tmp_path, compressed):
    (tmp_path / "r" / "x" / "y").mkdir(parents=True)
    (tmp_path / "r" / "d.json").write_text('{"key": 1}\n')
    compressed.rows = [(1 * S, 1, 1, "the key", 1)]
    db = FakeDatabase(tmp_path / "r" / "x" / "y" / "index.db", one=(0, "9"))
    files = [(1, "a.py", "python", None), (9, "d.json", "json", None)]
    source, reason = impl.text_source(db, files, "key", True, store="compressed")
    assert reason is None and type(source) is impl.ChunkText
    assert db.calls == [("fetchone", probe_sql("chunk_blobs", "id"))]
    assert [name for name, _, _ in compressed.calls] == ["trigram_query", "matching_rows"]
    assert source.segments(1, "a.py") == [seg(impl, 1, ["the key"], True)]
    assert source.segments(9, "d.json") == [seg(impl, 1, ['{"key": 1}'], True)]
