"""An index of schema 3.0.x is migrated to the current form in one transaction, or not at all."""

from __future__ import annotations

import hashlib
import sqlite3
from pathlib import Path

from velmora import cli
from velmora.storage import schema
from velmora.storage import chunk_store, code_text
from velmora.storage import layouts

STRIDE = chunk_store.CHUNK_STRIDE
BIG_JSON = "[\n" + ",\n".join(f'  {{"id": {i}, "name": "needle {i}"}}' for i in range(1500)) + "\n]\n"
FILES = {
    1: ("big.json", "json", BIG_JSON),
    2: ("small.json", "json", '{"needle": true}\n'),
    3: ("big.py", "python", "needle = 1\n" * 4000),
}


def build_3_0_index(root: Path) -> sqlite3.Connection:
    """An index as velmora 3.0 wrote it: no ``files.text_on_disk``, every file in chunks."""
    for path, _, text in FILES.values():
        (root / path).write_text(text)
    db_path = schema.index_path(root)
    db_path.parent.mkdir(parents=True)
    con = sqlite3.connect(db_path)
    with con:
        con.execute(schema.META_DDL)
        con.execute(
            "CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT NOT NULL UNIQUE, "
            "language TEXT NOT NULL, size INTEGER NOT NULL, mtime_ns INTEGER NOT NULL, "
            "sha1 TEXT NOT NULL)"
        )
        con.execute("INSERT INTO meta VALUES ('schema_version', '3.0.4')")
        layouts.CODE_CHUNKS.create_tables(con.cursor())
        for file_id, (path, language, text) in FILES.items():
            stat = (root / path).stat()
            con.execute(
                "INSERT INTO files VALUES (?, ?, ?, ?, ?, ?)",
                (file_id, path, language, stat.st_size, stat.st_mtime_ns,
                 hashlib.sha1(text.encode()).hexdigest()),
            )
            layouts.CODE_CHUNKS.store_chunks(con.cursor(), file_id, code_text.code_chunks(text))
    return con


def state(con: sqlite3.Connection):
    columns = [row[1] for row in con.execute("PRAGMA table_info(files)")]
    version = con.execute("SELECT value FROM meta WHERE key = 'schema_version'").fetchone()[0]
    chunks = dict(con.execute(f"SELECT rowid / {STRIDE}, COUNT(*) FROM code_chunks GROUP BY 1"))
    return version, "text_on_disk" in columns, chunks


def test_a_3_0_index_is_migrated_and_searched(tmp_path, capsys, monkeypatch):
    monkeypatch.chdir(tmp_path)
    con = build_3_0_index(tmp_path)
    assert code_text.stored_text_bytes(BIG_JSON) > code_text.LARGE_DATA_TEXT_BYTES
    before = state(con)
    assert before[:2] == ("3.0.4", False) and before[2].keys() == FILES.keys()

    assert cli.main(["search", "code", "-l", "needle 1499"]) == 0
    assert capsys.readouterr() == ("big.json\n", "")

    version, has_column, chunks = state(con)
    assert (version, has_column) == (schema.SCHEMA_VERSION, True)
    assert chunks == {2: before[2][2], 3: before[2][3]}
    assert con.execute("SELECT text_on_disk, chunks FROM files").fetchall() == [(1, 0), (0, chunks[2]), (0, chunks[3])]
    # The migrated index keeps being updated in place.
    assert cli.main(["index", str(tmp_path)]) == 0
    assert "(0 added, 0 changed, 0 removed)" in capsys.readouterr().err


def test_a_failed_migration_leaves_the_old_index_as_it_was(tmp_path, capsys):
    con = build_3_0_index(tmp_path)
    before = state(con)
    # Fails after the column is added and the chunks are dropped: at the flag update.
    with con:
        con.execute("CREATE TRIGGER refuse BEFORE UPDATE ON files BEGIN SELECT RAISE(ABORT, 'disk full'); END")

    assert cli.main(["search", "code", "needle", str(tmp_path)]) == 2
    out, err = capsys.readouterr()
    assert out == "" and err == (
        "velmora: error: the index could not be updated (disk full); it is left as it was"
        " (`velmora index --rebuild` makes a new one)\n"
    )
    assert state(con) == before
