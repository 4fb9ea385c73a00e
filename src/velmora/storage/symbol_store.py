"""The index's table of symbol definitions: written with each file's chunks, looked up by name."""

from __future__ import annotations

import json
import re
import sqlite3
from collections.abc import Iterable

from velmora.query.name_filter import sql_filter
from velmora.storage.database import Database

TABLE_DDL = (
    "CREATE TABLE IF NOT EXISTS symbols (file_id INTEGER NOT NULL, line INTEGER NOT NULL, "
    "kind TEXT NOT NULL, name TEXT NOT NULL, scope TEXT)"
)
INDEX_DDL = (
    "CREATE INDEX IF NOT EXISTS symbols_file ON symbols (file_id)",
    "CREATE INDEX IF NOT EXISTS symbols_name ON symbols (name)",
)
# Present in ``meta`` once every indexed file's definitions are in the table: an index
# converted from an older form has none until its next pass reads every file again.
MARK = "symbols"

# (name, kind, line, scope), as the extractor gives them.
Definition = tuple[str, str, int, "str | None"]


def create_table(cursor: sqlite3.Cursor) -> None:
    cursor.execute(TABLE_DDL)
    for ddl in INDEX_DDL:
        cursor.execute(ddl)


def replace(cursor: sqlite3.Cursor, file_id: int, definitions: Iterable[Definition]) -> None:
    """The file's definitions become ``definitions``."""
    drop(cursor, file_id)
    cursor.executemany(
        "INSERT INTO symbols (file_id, name, kind, line, scope) VALUES (?, ?, ?, ?, ?)",
        [(file_id, *definition) for definition in definitions],
    )


def drop(cursor: sqlite3.Cursor, file_id: int) -> None:
    cursor.execute("DELETE FROM symbols WHERE file_id = ?", (file_id,))


def defining(db: Database, name: re.Pattern[str]) -> dict[int, list[tuple[int, str]]]:
    """The files that define a symbol whose name ``name`` finds, each with the (line, name)
    of those definitions, in order."""
    # Each distinct name is judged once, from the index on names, which SQLite narrows by a
    # literal that every match holds when there is one; the rows of those names follow.
    condition, parameters = sql_filter(name, "name") or ("1", [])
    names = [
        found
        for (found,) in db.fetchall(f"SELECT DISTINCT name FROM symbols WHERE {condition}", parameters)
        if name.search(found)
    ]
    found: dict[int, list[tuple[int, str]]] = {}
    for file_id, line, symbol in db.fetchall(
        "SELECT file_id, line, name FROM symbols WHERE name IN (SELECT value FROM json_each(?))",
        (json.dumps(names),),
    ):
        found.setdefault(file_id, []).append((line, symbol))
    return {file_id: sorted(set(lines)) for file_id, lines in found.items()}


def outline(db: Database, path: str) -> list[tuple[str, str, int, str | None]]:
    """The definitions of the file at ``path``, in the order of its lines, as (name, kind,
    line, scope)."""
    return db.fetchall(
        "SELECT name, kind, line, scope FROM symbols WHERE file_id = "
        "(SELECT id FROM files WHERE path = ?) ORDER BY line, rowid",
        (path,),
    )
