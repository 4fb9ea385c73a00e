"""The index database: where it lives, its tables, and its schema version.

The ``meta`` table's keys:

- ``schema_version``: the form of the index, ``SCHEMA_VERSION`` once converted.
- ``last_run_ns``: when the last complete pass of ``velmora index`` began (ns since epoch).
- ``pass_in_progress``: present while a pass is writing (its start, in ns): committed before
  its first batch and deleted in its last transaction.  While it is there the index may
  hold some files' old text, or none of it, and a search must not trust it alone.
- ``last_pass_seconds``: how long the last complete pass took.
- ``listed_dirs``: the freshness check's record of the tree's directories (``refresh``).
- ``pair_lookup``: present when the chunk tables were made by 4.2 or later, so that every
  chunk's indexed text ends in a line feed and the index can look up two characters
  (``chunk_store.pair_terms``); an older index reads every chunk for them until rebuilt.
- ``symbols``: present once the ``symbols`` table holds every indexed file's definitions
  (``symbol_store``).
"""

from __future__ import annotations

import sqlite3
from pathlib import Path

from velmora.storage.database import Database, is_busy
from velmora.storage import symbol_store
from velmora.storage.layouts import ChunkLayout

# 4.0: compressed chunks as zstd frames with a dictionary, a trigram index without
# positions, files.inode, and the skipped table.  4.1: files.chunks.  4.2: indexed texts
# end in a line feed (``pair_lookup``).  4.3: the symbols table.
SCHEMA_VERSION = "4.3.0"
# The forms that ``migration`` converts in place.
CONVERTED = ((3, 0), (3, 1), (4, 0), (4, 1), (4, 2))
PAIR_MARK = "pair_lookup"

# The database lies two levels below the repository root: the search finds the root as
# the third parent of the database file.
INDEX_DIR = Path(".velmora") / "index"
INDEX_NAME = "index.db"

# How many chunk rows the file has, written with them: a search that reads fewer knows
# the index lost some.
CHUNKS_COLUMN = "chunks INTEGER NOT NULL DEFAULT 0"
# Lets every search total the counts from a small b-tree instead of every row of files.
CHUNKS_INDEX_DDL = "CREATE INDEX IF NOT EXISTS files_chunks ON files (chunks)"
# Lets every search find the few files kept on disk without reading every row of files.
# Only a speed-up, made by every pass: an index without it reads them all.
ON_DISK_INDEX_DDL = "CREATE INDEX IF NOT EXISTS files_on_disk ON files (id) WHERE text_on_disk = 1"
META_DDL = "CREATE TABLE IF NOT EXISTS meta (key TEXT PRIMARY KEY, value TEXT NOT NULL)"
FILES_DDL = (
    "CREATE TABLE IF NOT EXISTS files ("
    "id INTEGER PRIMARY KEY, path TEXT NOT NULL UNIQUE, language TEXT NOT NULL, "
    "size INTEGER NOT NULL, mtime_ns INTEGER NOT NULL, sha1 TEXT NOT NULL, "
    "text_on_disk INTEGER NOT NULL DEFAULT 0, inode INTEGER NOT NULL DEFAULT 0, "
    + CHUNKS_COLUMN + ")"
)
# What a pass left out of the index and why (a word of ``SKIP_REASONS``), with the file's
# size, mtime and inode then, so that the next pass need not read it again.
SKIPPED_DDL = (
    "CREATE TABLE IF NOT EXISTS skipped (path TEXT PRIMARY KEY, reason TEXT NOT NULL, "
    "size INTEGER NOT NULL, mtime_ns INTEGER NOT NULL, inode INTEGER NOT NULL)"
)
# A file whose name is not UTF-8 is listed under its escaped name (``fsio.escaped_name``);
# a search reads it from disk.
NOT_UTF8 = "name not UTF-8"
SKIP_REASONS = ("binary", "symlink", "not a file", "unreadable", "too many lines", NOT_UTF8)
PASS_MARK = "pass_in_progress"


class SchemaError(Exception):
    """The index cannot be used by this version of velmora."""


def index_path(root: Path) -> Path:
    return root / INDEX_DIR / INDEX_NAME


def create(db: Database, layout: ChunkLayout) -> None:
    """Lay out a new, empty index."""
    # Lets a bulk load hand back the pages its final merge freed (``reclaim``); only takes
    # effect before the first table is made.
    db.connection.execute("PRAGMA auto_vacuum = INCREMENTAL")
    with db.transaction() as cursor:
        cursor.execute(META_DDL)
        cursor.execute(FILES_DDL)
        cursor.execute(CHUNKS_INDEX_DDL)
        cursor.execute(ON_DISK_INDEX_DDL)
        cursor.execute(SKIPPED_DDL)
        layout.create_tables(cursor)
        symbol_store.create_table(cursor)
        set_meta(cursor, "schema_version", SCHEMA_VERSION)
        set_meta(cursor, PAIR_MARK, "1")
    db.layout = layout


def open_index(path: Path, progress: bool = True) -> Database:
    """Open an existing index, converting an older form; refuse one this version can't read.

    Nothing is written unless a conversion runs, and a failed conversion leaves the index
    as it was.
    """
    db = Database(path)
    try:
        version = _version(db)
        if version[:2] in CONVERTED:
            from velmora.storage import migration  # only an old index needs it

            migration.migrate(db, version, progress)
        elif version[:2] != _parse(SCHEMA_VERSION)[:2]:
            newer = version > _parse(SCHEMA_VERSION)
            raise SchemaError(
                f"{path}: the index has schema {'.'.join(map(str, version))}, "
                + ("newer than" if newer else "older than")
                + f" this velmora reads ({SCHEMA_VERSION}); "
                + ("upgrade velmora" if newer else "run `velmora index --rebuild`")
            )
    except BaseException:
        db.close()
        raise
    return db


def get_meta(db: Database, key: str) -> str | None:
    row = db.fetchall("SELECT value FROM meta WHERE key = ?", (key,))
    return row[0][0] if row else None


def whole_number(text: str | None) -> int:
    """A number kept as text in the index; 0 when there is none, or it is not a number (a
    tampered row), which makes the next pass read every file again."""
    try:
        return int(text or 0)
    except ValueError:
        return 0


def set_meta(cursor: sqlite3.Cursor, key: str, value: str) -> None:
    cursor.execute("INSERT OR REPLACE INTO meta (key, value) VALUES (?, ?)", (key, value))


def delete_meta(cursor: sqlite3.Cursor, key: str) -> None:
    cursor.execute("DELETE FROM meta WHERE key = ?", (key,))


def _version(db: Database) -> tuple[int, ...]:
    try:
        text = get_meta(db, "schema_version")
    except sqlite3.DatabaseError as error:
        if is_busy(error):
            raise  # a writer's lock, not damage
        raise SchemaError(
            f"{db.db_path}: not a readable velmora index ({error}); "
            "run `velmora index --rebuild`"
        ) from None
    if text is None:
        raise SchemaError(
            f"{db.db_path}: not a velmora index (no schema version); "
            "run `velmora index --rebuild`"
        )
    try:
        return _parse(text)
    except ValueError:
        raise SchemaError(f"{db.db_path}: unknown schema version {text!r}") from None


def _parse(version: str) -> tuple[int, ...]:
    return tuple(int(part) for part in version.split("."))
