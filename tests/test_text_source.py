"""text_source and ChunkText end to end: a real tree indexed in each chunk layout must give
the same matches, with the same context, as reading every file from disk."""

from __future__ import annotations

import json
import re
import sqlite3
import sysconfig
from pathlib import Path
from typing import Any

import pytest

import model
from conftest import STRIDE as S
from conftest import FakeDatabase
from velmora.db import Database
from velmora.storage import chunk_store
from velmora.storage import code_text as native

CONTEXT = 2

SPECIAL_FILES: dict[str, bytes] = {
    "special/nul.txt": b"abc\x00def\nkey\x00word\nplain c d\n",
    "special/crlf.txt": b"one\r\ntwo\r\nKEY three\r\n\r\nlast",
    "special/cr_only.txt": b"a\rb key\rKey\r",
    "special/non_ascii.txt": "Straße\nÉté ÉTÉ été\nİstanbul\nσς Σ\n😀 key 😀\n日本語\n".encode(),
    # The Kelvin sign lower-cases to "k": only a search that reads the chunk finds "kelvin".
    "special/kelvin.txt": "\u212aELVIN only here\nnothing else\n".encode(),
    "special/dotted.txt": "x\u0130y\n".encode(),
    "special/empty.txt": b"",
    "special/bad_utf8.txt": b"bad \xff\xfe bytes\nkey \xc3\n\xed\xa0\x80 end\n",
    "special/boundaries.txt": "\n".join(
        f"row {n} key" if n in (1, 63, 64, 65, 66, 128, 129, 200) else f"row {n}" for n in range(1, 201)
    ).encode(),
    "special/form_feed.txt": "a\x0cb key\x1cc\u2028d key\x85e\n".encode(),
}

PLAIN = [
    "def __init_subclass__", "return NotImplemented", "zzz never there", "self", "import",
    "x", "if", "é", "日", "%s", "__init__", "a_b", "100%", "_", "Straße", "Été", "σ", "İ",
    "\x00", "c\x00d", "key", "KEY", "Kelvin", "😀", "",
]
REGEXES = [r"def \w+\(self", r"^\s*import\s", r"K", r"\x00", r"stra(ß|ss)e", r"^$", r"kelvin", r"\bkey\b"]


def stdlib_sample(count: int = 60) -> list[Path]:
    stdlib = Path(sysconfig.get_paths()["stdlib"])
    paths = sorted(p for p in stdlib.glob("*.py") if p.is_file())
    step = max(1, len(paths) // count)
    return paths[::step][:count]


def build_repo(root: Path, store: str) -> tuple[Database, list[tuple[int, str, str, None]]]:
    """The tree on disk and its index at ROOT/x/y/index.db, as an index pass leaves it."""
    contents = dict(SPECIAL_FILES)
    for path in stdlib_sample():
        contents["lib/" + path.name] = path.read_bytes()
    big = json.dumps({"items": [{"key": n, "name": "Kelvin \u212a"} for n in range(2000)]}, indent=1)
    contents["data/big.json"] = big.encode()

    (root / "x" / "y").mkdir(parents=True)
    db = Database(root / "x" / "y" / "index.db")
    files = []
    with db.transaction() as cursor:
        cursor.execute(
            "CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT, language TEXT,"
            " text_on_disk INTEGER NOT NULL DEFAULT 0)"
        )
        chunk_store.create_tables(cursor, store)
        for file_id, (path, data) in enumerate(sorted(contents.items()), start=1):
            (root / path).parent.mkdir(parents=True, exist_ok=True)
            (root / path).write_bytes(data)
            text = data.decode("utf-8", errors="replace")
            language = "json" if path.endswith(".json") else "text"
            on_disk = model.text_kept_on_disk(language, model.stored_text_bytes(text))
            cursor.execute(
                "INSERT INTO files (id, path, language, text_on_disk) VALUES (?, ?, ?, ?)",
                (file_id, path, language, int(on_disk)),
            )
            if not on_disk:
                chunk_store.store_chunks(cursor, store, file_id, model.code_chunks(text))
            files.append((file_id, path, language, None))
    assert any(path == "data/big.json" for _, path, _, _ in files)
    return db, files


@pytest.fixture(scope="module", params=["code_chunks", "compressed"])
def repo(request: pytest.FixtureRequest, tmp_path_factory: pytest.TempPathFactory) -> Any:
    root = tmp_path_factory.mktemp(request.param) / "repo"
    db, files = build_repo(root, request.param)
    yield request.param, root, db, files
    db.close()


def hits(source: Any, files: list[Any], needle: str | None, pattern: Any, case_sensitive: bool) -> dict:
    """Every match with its context, file by file, the way the search command cuts it."""
    found: dict[str, list[tuple[int, int, list[dict[str, Any]]]]] = {}
    for file_id, path, *_ in files:
        for segment in source.segments(file_id, path):
            end = segment.first + len(segment.lines) - 1
            for number, column in model.line_matches(segment.lines, needle, pattern, case_sensitive):
                line = segment.first + number - 1
                low, high = max(1, line - CONTEXT), line + CONTEXT
                if low >= segment.first and (high <= end or segment.last):
                    records = model.context(segment.lines, low, high, segment.first)
                else:
                    records = model.context(source.lines(file_id, path), low, high)
                found.setdefault(path, []).append((line, column, records))
    return found


def ascii_lower(text: str) -> str:
    return "".join(c.lower() if c.isascii() else c for c in text)


def _trigram_like_misses_short_multibyte() -> bool:
    """Whether this SQLite's trigram tokenizer answers LIKE wrongly for a pattern of fewer
    than three characters but three bytes or more (3.40 does: it looks such a pattern up
    as trigrams of bytes and finds nothing)."""
    connection = sqlite3.connect(":memory:")
    connection.execute("CREATE VIRTUAL TABLE t USING fts5(text, tokenize='trigram')")
    connection.execute("INSERT INTO t (rowid, text) VALUES (1, 'a \u00e9 b')")
    missed = connection.execute("SELECT rowid FROM t WHERE text LIKE '%\u00e9 %'").fetchall() == []
    connection.close()
    return missed


TRIGRAM_LIKE_BUG = _trigram_like_misses_short_multibyte()


def expected_miss(store: str, needle: str, case_sensitive: bool, line: str) -> bool:
    """A match the index may not give: a letter beyond ASCII that lower-cases to ASCII made it
    (LIKE and the trigram index cannot see that), or this SQLite's trigram LIKE bug."""
    if store == "code_chunks" and TRIGRAM_LIKE_BUG and len(needle) < 3 <= len(needle.encode()):
        return True
    if case_sensitive:
        return False
    return ("\u212a" in line or "\u0130" in line) and needle not in ascii_lower(line)


def compare(impl: Any, repo: Any, needle: str | None, pattern: Any, case_sensitive: bool) -> None:
    store, root, db, files = repo
    source, reason = impl.text_source(db, files, needle, case_sensitive, store=store)
    assert reason is None and type(source) is impl.ChunkText
    from_index = hits(source, files, needle, pattern, case_sensitive)
    from_disk = hits(model.DiskText(root, needle, case_sensitive), files, needle, pattern, case_sensitive)
    if needle is None:
        assert from_index == from_disk
        return
    assert set(from_index) <= set(from_disk)
    for path, disk_hits in from_disk.items():
        index_hits = {hit[0]: hit for hit in from_index.get(path, [])}
        for hit in disk_hits:
            line, _, records = hit
            if line in index_hits:
                assert index_hits.pop(line) == hit
            else:
                text = next(r["content"] for r in records if r["line"] == line)
                assert expected_miss(store, needle, case_sensitive, text), (path, line, text)
        assert not index_hits, path


@pytest.mark.parametrize("case_sensitive", [True, False])
@pytest.mark.parametrize("needle", PLAIN)
def test_plain_search_matches_the_disk(repo: Any, needle: str, case_sensitive: bool) -> None:
    compare(native, repo, needle if case_sensitive else needle.lower(), None, case_sensitive)


@pytest.mark.parametrize("case_sensitive", [True, False])
@pytest.mark.parametrize("regex", REGEXES)
def test_regex_search_matches_the_disk(repo: Any, regex: str, case_sensitive: bool) -> None:
    pattern = re.compile(regex, 0 if case_sensitive else re.IGNORECASE)
    compare(native, repo, None, pattern, case_sensitive)


def test_the_documented_misses_happen(impl: Any, repo: Any) -> None:
    """The Kelvin sign hides "kelvin" from LIKE in code_chunks; the disk sees it."""
    store, root, db, files = repo
    (kelvin,) = [row for row in files if row[1] == "special/kelvin.txt"]
    source, _ = impl.text_source(db, [kelvin], "kelvin", False, store=store)
    disk = model.DiskText(root, "kelvin", False)
    assert disk.segments(kelvin[0], kelvin[1]) != []
    if store == "code_chunks":
        assert source.segments(kelvin[0], kelvin[1]) == []


def test_every_line_of_every_file(impl: Any, repo: Any) -> None:
    store, root, db, files = repo
    source, _ = impl.text_source(db, files, None, True, store=store)
    disk = model.DiskText(root, None, True)
    for file_id, path, *_ in files:
        assert source.lines(file_id, path) == disk.lines(file_id, path), path


def test_unchunked_and_tableless_indexes_read_from_disk(impl: Any, tmp_path: Path) -> None:
    db, files = build_repo(tmp_path / "repo", "code_chunks")
    with db.transaction() as cursor:
        chunked = [row[0] for row in files if row[2] != "json"]
        cursor.execute("DELETE FROM code_chunks WHERE rowid IN (?, ?)", (chunked[0] * S, chunked[3] * S))
    source, reason = impl.text_source(db, files, "key", True, store="code_chunks")
    assert type(source) is impl.DiskText
    assert reason == (
        "read from the files on disk: 2 indexed file(s) have no chunks yet"
        " (the next index pass parses them)"
    )
    source, reason = impl.text_source(db, files, "key", True, store=None)
    assert type(source) is impl.DiskText
    assert reason == "read from the files on disk: this index has no table of the files' text"
    db.close()


# --- Call order -------------------------------------------------------------------------------


class Recorder:
    """Records the calls of a Database and of chunk_store's reading functions in one list."""

    def __init__(self, monkeypatch: pytest.MonkeyPatch, db: Any) -> None:
        self.calls: list[str] = []
        outer = self

        class Recorded:
            db_path = db.db_path

            def fetchone(self, sql: str) -> Any:
                outer.calls.append("fetchone")
                return db.fetchone(sql)

            def fetchall(self, sql: str, *parameters: Any) -> Any:
                outer.calls.append("fetchall")
                return db.fetchall(sql, *parameters)

        self.db = Recorded()
        for name in ("trigram_query", "matching_rows", "file_rows"):
            real = getattr(chunk_store, name)

            def recorded(*args: Any, _name: str = name, _real: Any = real) -> Any:
                outer.calls.append(_name)
                return _real(*args)

            monkeypatch.setattr(chunk_store, name, recorded)


@pytest.mark.parametrize(
    ("store", "needle", "expected"),
    [
        ("code_chunks", "key", ["fetchone", "fetchall"]),
        ("code_chunks", None, ["fetchone", "fetchall"]),
        ("compressed", "key", ["fetchone", "trigram_query", "matching_rows"]),
        ("compressed", "k\x00y", ["fetchone", "matching_rows"]),
        ("compressed", None, ["fetchone", "matching_rows"]),
    ],
)
def test_queries_in_order(impl: Any, tmp_path: Path, monkeypatch: pytest.MonkeyPatch,
                          store: str, needle: str | None, expected: list[str]) -> None:
    db, files = build_repo(tmp_path / "repo", store)
    recorder = Recorder(monkeypatch, db)

    def ours() -> list[str]:
        # In the compressed layout the statements are chunk_store's own business.
        return [c for c in recorder.calls if store == "code_chunks" or c != "fetchall"]

    searched = [row for row in files if row[2] != "json"][:3]
    source, reason = impl.text_source(recorder.db, searched, needle, True, store=store)
    assert reason is None
    assert ours() == expected
    recorder.calls.clear()
    file_id, path, *_ = searched[0]
    source.segments(file_id, path)
    assert recorder.calls == []
    source.lines(file_id, path)
    source.lines(file_id, "another path")
    assert ours() == (["file_rows"] if store == "compressed" else ["fetchall"])
    db.close()


@pytest.mark.parametrize("store", ["code_chunks", "compressed"])
def test_no_candidate_query_while_a_file_lacks_chunks(impl: Any, monkeypatch: pytest.MonkeyPatch,
                                                      store: str) -> None:
    recorder = Recorder(monkeypatch, FakeDatabase(one=(1, None)))
    source, reason = impl.text_source(recorder.db, [(1, "f", "c", None)], "key", True, store=store)
    assert type(source) is impl.DiskText and reason is not None
    assert recorder.calls == ["fetchone"]


def test_no_query_without_a_layout(impl: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    recorder = Recorder(monkeypatch, FakeDatabase(one=(0, None)))
    impl.text_source(recorder.db, [(1, "f", "c", None)], None, False, store=None)
    assert recorder.calls == []


# --- What passes through ---------------------------------------------------------------------


class Failing:
    db_path = Path("/r/x/y/index.db")

    def __init__(self, error: BaseException, *, one: Any = (0, None)) -> None:
        self.error, self.one = error, one

    def fetchone(self, sql: str) -> Any:
        return self.one

    def fetchall(self, sql: str, *parameters: Any) -> Any:
        raise self.error


def test_database_errors_pass_through_unchanged(impl: Any) -> None:
    error = sqlite3.OperationalError("no such table: code_chunks")
    with pytest.raises(sqlite3.OperationalError) as caught:
        impl.text_source(Failing(error), [(1, "f", "c", None)], "x", True, store="code_chunks")
    assert caught.value is error


def test_a_failed_read_keeps_the_file_held(impl: Any, tmp_path: Path) -> None:
    rows: list[Any] = [(1, 1, "a")]
    db = FakeDatabase(rows=lambda sql, params: rows)
    chunks = impl.ChunkText(db, "code_chunks", {}, model.DiskText(tmp_path, None, True), frozenset())
    held = chunks.lines(1, "f")
    rows[:] = [(1, 1, "b"), (2, 2, b"not text")]
    with pytest.raises(TypeError):
        chunks.lines(2, "g")
    assert chunks._read == (1, held) and chunks.lines(1, "f") is held


# --- ChunkText as the host sees it ----------------------------------------------------------


def test_fields_are_plain_attributes(impl: Any, tmp_path: Path) -> None:
    db, disk, candidates, on_disk = FakeDatabase(), model.DiskText(tmp_path, "a", True), {1: []}, {2}
    chunks = impl.ChunkText(db, "code_chunks", candidates, disk, on_disk)
    assert (chunks._db, chunks._store, chunks._candidates, chunks._disk, chunks._on_disk, chunks._read) == (
        db, "code_chunks", candidates, disk, on_disk, None
    )
    assert chunks._candidates is candidates and chunks._on_disk is on_disk
    chunks._read = (5, ["held"])
    assert chunks.lines(5, "anything") == ["held"]
    chunks._on_disk = frozenset({5})
    (tmp_path / "f5").write_text("a on disk\n")
    assert chunks.lines(5, "f5") == ["a on disk"]
    del chunks._candidates
    with pytest.raises(AttributeError):
        chunks.segments(1, "f")
    chunks.__init__(db, "code_chunks", candidates, disk, on_disk)
    assert chunks._read is None and chunks.segments(1, "f") is candidates[1]
