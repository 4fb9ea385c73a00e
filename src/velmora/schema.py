"""The index database: where it lives, its tables, and its schema version."""

from __future__ import annotations

import sqlite3
from pathlib import Path

from velmora.db import Database
from velmora.storage import chunk_store, code_text

SCHEMA_VERSION = "3.1.0"

# The database lies two levels below the repository root: the search finds the root as
# the third parent of the database file.
INDEX_DIR = Path(".velmora") / "index"
INDEX_NAME = "index.db"

META_DDL = "CREATE TABLE IF NOT EXISTS meta (key TEXT PRIMARY KEY, value TEXT NOT NULL)"
FILES_DDL = (
    "CREATE TABLE IF NOT EXISTS files ("
    "id INTEGER PRIMARY KEY, path TEXT NOT NULL UNIQUE, language TEXT NOT NULL, "
    "size INTEGER NOT NULL, mtime_ns INTEGER NOT NULL, sha1 TEXT NOT NULL, "
    "text_on_disk INTEGER NOT NULL DEFAULT 0)"
)


class SchemaError(Exception):
    """The index cannot be used by this version of velmora."""


def index_path(root: Path) -> Path:
    return root / INDEX_DIR / INDEX_NAME


def create(db: Database, store: chunk_store.Layout) -> None:
    """Lay out a new, empty index."""
    with db.transaction() as cursor:
        cursor.execute(META_DDL)
        cursor.execute(FILES_DDL)
        chunk_store.create_tables(cursor, store)
        set_meta(cursor, "schema_version", SCHEMA_VERSION)


def open_index(path: Path) -> Database:
    """Open an existing index, migrating an older schema; refuse one this version can't read.

    Nothing is written unless a migration runs, and a failed migration leaves the index as
    it was.
    """
    db = Database(path)
    try:
        version = _version(db)
        if version[:2] == (3, 0):
            migrate_to_3_1(db)
        elif version[:2] != (3, 1):
            newer = version > _parse(SCHEMA_VERSION)
            raise SchemaError(
                f"{path}: the index has schema {'.'.join(map(str, version))}, "
                + ("newer than" if newer else "older than")
                + f" this velmora reads ({SCHEMA_VERSION}); "
                + ("upgrade velmora" if newer else f"delete {path.parent} and index again")
            )
    except BaseException:
        db.close()
        raise
    return db


def migrate_to_3_1(db: Database) -> int:
    """Add ``files.text_on_disk`` and keep large data files on disk, in one transaction.

    Returns how many files now keep their text on disk.
    """
    with db.transaction() as cursor:
        cursor.execute("ALTER TABLE files ADD COLUMN text_on_disk INTEGER NOT NULL DEFAULT 0")
        moved = code_text.keep_large_data_on_disk(cursor)
        set_meta(cursor, "schema_version", SCHEMA_VERSION)
    return moved


def get_meta(db: Database, key: str) -> str | None:
    row = db.fetchall("SELECT value FROM meta WHERE key = ?", (key,))
    return row[0][0] if row else None


def set_meta(cursor: sqlite3.Cursor, key: str, value: str) -> None:
    cursor.execute("INSERT OR REPLACE INTO meta (key, value) VALUES (?, ?)", (key, value))


def _version(db: Database) -> tuple[int, ...]:
    try:
        text = get_meta(db, "schema_version")
    except sqlite3.DatabaseError as error:
        raise SchemaError(f"{db.db_path}: not a velmora index ({error})") from None
    if text is None:
        raise SchemaError(f"{db.db_path}: not a velmora index (no schema version)")
    try:
        return _parse(text)
    except ValueError:
        raise SchemaError(f"{db.db_path}: unknown schema version {text!r}") from None


def _parse(version: str) -> tuple[int, ...]:
    return tuple(int(part) for part in version.split("."))
