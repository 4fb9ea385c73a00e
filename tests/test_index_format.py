"""The index's compressed form, its conversion from older forms, and the writer's safety."""

from __future__ import annotations

import json
import sqlite3
import subprocess
import zlib
from pathlib import Path

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from velmora import cli
from velmora.index import build as indexer
from velmora.storage import schema
from velmora.storage.database import Database
from velmora.storage import chunk_store
from velmora.storage import layouts

STRIDE = chunk_store.CHUNK_STRIDE
# Letters whose lower case is ASCII, the ASCII letters they become, others, and a run of spaces.
ALPHABET = [*"\u212a\u0130kKiIsS \"\u00e9\u00c9\u017f", "    "]
TEXT = st.lists(st.sampled_from(ALPHABET), max_size=12).map("".join)


def chunk_db(texts: list[str]) -> Database:
    db = Database(":memory:")
    with db.transaction() as cursor:
        layouts.COMPRESSED.create_tables(cursor)
        for file_id, text in enumerate(texts, 1):
            layouts.COMPRESSED.store_chunks(cursor, file_id, [(1, 1, text)])
    return db


@settings(max_examples=400, deadline=None)
@given(st.lists(TEXT, min_size=1, max_size=4), st.booleans(), st.data())
def test_matching_rows_finds_every_chunk_a_search_would_match(texts, ignore_case, data):
    fold = str.lower if ignore_case else str
    # Mostly a piece of a text as the search sees it, so that matches are common.
    source = fold(data.draw(st.sampled_from(texts)))
    start = data.draw(st.integers(0, len(source)))
    needle = data.draw(st.one_of(
        st.just(source[start : start + data.draw(st.integers(3, 6))]), st.text("".join(ALPHABET), min_size=3, max_size=6)
    ).map(fold)).rstrip("\u0307")  # ending at the "i" of a lower-cased U+0130, at times
    # A search ignoring case narrows only by an ASCII needle.
    if len(needle) < 3 or (ignore_case and not needle.isascii()):
        return
    db = chunk_db(texts)
    rows = chunk_store.matching_rows(db, chunk_store.trigram_query(needle), set(range(1, 5)))
    found = {rowid // STRIDE for rowid, *_ in rows}
    assert found >= {file_id for file_id, text in enumerate(texts, 1) if needle in fold(text)}


def make_repo(root: Path, files: dict[str, str]) -> Path:
    root.mkdir(exist_ok=True)
    for path, text in files.items():
        (root / path).parent.mkdir(parents=True, exist_ok=True)
        (root / path).write_text(text)
    subprocess.run(["git", "init", "-q", str(root)], check=True)
    return root


FILES = {"a.py": "def needle():\n    return 'NEEDLE'\n" * 100, "b/c.txt": "no match\n", "d.md": "needle\n"}


def run(capsys, *argv) -> tuple[int, str, str]:
    code = cli.main([str(a) for a in argv])
    out, err = capsys.readouterr()
    return code, out, err


def hits(capsys, root: Path) -> list[tuple[str, int]]:
    code, out, err = run(capsys, "search", "code", "--json", "-i", "needle", root)
    records = [json.loads(line) for line in out.splitlines()]
    return sorted(
        (Path(r["data"]["path"]["text"]).relative_to(root).as_posix(), r["data"]["line_number"])
        for r in records if r["type"] == "match"
    )


@pytest.mark.parametrize("version", ["3.1.0", "4.0.0"])
def test_a_compressed_index_of_an_older_schema_is_converted_in_place(tmp_path, capsys, version):
    root = make_repo(tmp_path / "r", FILES)
    assert run(capsys, "index", root)[0] == 0
    expected = hits(capsys, root)
    con = sqlite3.connect(schema.index_path(root))
    counts = dict(con.execute("SELECT id, chunks FROM files"))
    with con:
        if version == "3.1.0":  # zlib bodies, a positional trigram index, no inode
            rows = list(chunk_store.matching_rows(Database(schema.index_path(root)), None, {1, 2, 3}))
            for table in ("chunk_text", "chunk_trigrams", "chunk_dictionary"):
                con.execute(f"DROP TABLE {table}")
            con.execute("CREATE TABLE chunk_text (id INTEGER PRIMARY KEY, start_line INTEGER NOT NULL, "
                        "end_line INTEGER NOT NULL, body BLOB NOT NULL)")
            con.execute("CREATE VIRTUAL TABLE chunk_trigrams USING fts5(text, content='', tokenize='trigram')")
            for rowid, start, end, text, _ in rows:
                con.execute("INSERT INTO chunk_text VALUES (?, ?, ?, ?)", (rowid, start, end, zlib.compress(text.encode())))
                con.execute("INSERT INTO chunk_trigrams (rowid, text) VALUES (?, ?)", (rowid, text))
            con.execute("ALTER TABLE files DROP COLUMN inode")
            con.execute("DROP TABLE skipped")
        con.execute("DROP INDEX files_chunks")
        con.execute("ALTER TABLE files DROP COLUMN chunks")
        con.execute("UPDATE meta SET value = ? WHERE key = 'schema_version'", (version,))
    assert hits(capsys, root) == expected
    assert con.execute("SELECT value FROM meta WHERE key = 'schema_version'").fetchone()[0] == schema.SCHEMA_VERSION
    assert "detail=none" in con.execute("SELECT sql FROM sqlite_master WHERE name = 'chunk_trigrams'").fetchone()[0]
    assert dict(con.execute("SELECT id, chunks FROM files")) == counts
    assert run(capsys, "index", root)[2].startswith("indexed 3 files (0 added, 0 changed, 0 removed)")


@pytest.mark.parametrize("link", [".velmora", ".velmora/index", ".velmora/index/index.db", ".velmora/.gitignore"])
def test_nothing_is_written_through_a_symlink(tmp_path, capsys, link):
    root = make_repo(tmp_path / "r", FILES)
    outside = tmp_path / "outside"
    outside.mkdir()
    (outside / "index.db").write_text("keep")
    (root / link).parent.mkdir(parents=True, exist_ok=True)
    (root / link).symlink_to(outside / "index.db" if link.endswith((".db", "ignore")) else outside)
    code, out, err = run(capsys, "index", root)
    assert (code, out, err.count("\n")) == (2, "", 1) and "symbolic link" in err
    assert [p.name for p in outside.iterdir()] == ["index.db"] and (outside / "index.db").read_text() == "keep"


def test_the_index_is_private_and_git_runs_none_of_the_repositorys_commands(tmp_path, capsys):
    root = make_repo(tmp_path / "r", FILES)
    marker = tmp_path / "pwned"
    subprocess.run(["git", "-C", root, "config", "core.fsmonitor", f"touch {marker}; echo"], check=True)
    assert run(capsys, "index", root)[0] == 0
    assert not marker.exists()
    modes = {p.name: p.stat().st_mode & 0o777 for p in [root / ".velmora", *(root / ".velmora").rglob("*")]}
    assert modes == {".velmora": 0o700, "index": 0o700, "index.db": 0o600, "pass.lock": 0o600, ".gitignore": 0o600}


def test_an_interrupted_pass_is_marked_and_a_damaged_index_is_rebuilt(tmp_path, capsys, monkeypatch):
    root = make_repo(tmp_path / "r", FILES)
    real = indexer._prepare

    def fail_at_d(root, path, *args):
        if path == "d.md":
            raise KeyboardInterrupt
        return real(root, path, *args)

    monkeypatch.setattr(indexer, "_BATCH_FILES", 1)
    monkeypatch.setattr(indexer, "_prepare", fail_at_d)
    assert run(capsys, "index", root)[:2] == (130, "")
    db = Database(schema.index_path(root))
    assert schema.get_meta(db, schema.PASS_MARK) is not None
    assert {p for (p,) in db.fetchall("SELECT path FROM files")} == {"a.py", "b/c.txt"}
    monkeypatch.setattr(indexer, "_prepare", real)
    assert run(capsys, "index", root)[2].startswith("indexed 3 files (1 added,")
    assert schema.get_meta(db, schema.PASS_MARK) is None
    db.close()

    schema.index_path(root).write_bytes(b"")
    for argv in (["index", root], ["search", "code", "needle", root], ["status", root]):
        code, out, err = run(capsys, *argv)
        assert (code, out, err.count("\n")) == (2, "", 1) and "velmora index --rebuild" in err
    # A rebuild that fails leaves the old file; one that completes replaces it.
    monkeypatch.setattr(indexer, "_prepare", fail_at_d)
    assert run(capsys, "index", "--rebuild", root)[0] == 130
    assert schema.index_path(root).read_bytes() == b""
    monkeypatch.setattr(indexer, "_prepare", real)
    assert run(capsys, "index", "--rebuild", root)[0] == 0
    assert hits(capsys, root) == [("a.py", n) for n in range(1, 201)] + [("d.md", 1)]


def test_status_tells_what_was_left_out_and_why(tmp_path, capsys):
    root = make_repo(tmp_path / "r", {"one.py": "x = 1\n"})
    (root / "blob.bin").write_bytes(b"\0\xff" * 10)
    (root / "link.py").symlink_to(root / "one.py")
    assert run(capsys, "index", root)[2].startswith("indexed 1 file (1 added, 0 changed, 0 removed): 1 chunk,")
    code, out, _ = run(capsys, "status", root)
    assert code == 0
    assert "compressed layout" in out and "Indexed: 1 file, " in out
    assert "\tbinary:         blob.bin\n" in out and "\tsymlink:        link.py\n" in out
