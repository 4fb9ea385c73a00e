"""Where the chunks of the indexed files' text are stored.

Two layouts hold the same chunks under the same row ids (a file's chunks from
``file_id * CHUNK_STRIDE`` on, one after another):

- ``code_chunks``: an FTS5 table with the trigram tokenizer that holds the text itself.
- ``compressed``: ``COMPRESSED_TABLE`` keeps each chunk's lines and its exact text
  zlib-compressed, beside a contentless FTS5 trigram index (``TRIGRAM_TABLE``) over the
  searchable text.  It needs far less room, but a contentless table can only forget a row
  when it is told the text it was given; SQLite 3.43 and later can delete from it
  directly (``contentless_delete``).

In both, the searchable text holds each NUL as a space: the trigram tokenizer stops at a
NUL.  The writer functions take a ``sqlite3`` cursor inside the caller's transaction; the
reader functions take the index ``Database``.
"""

from __future__ import annotations

import sqlite3
import zlib
from collections.abc import Collection, Iterator, Sequence
from typing import Any, Literal

# Row ids per file: a file's chunks take ids from id * stride, so the stride bounds the
# chunks of one file, and (id + 1) * stride must stay inside a signed 64-bit row id.
CHUNK_STRIDE = 1 << 20

CODE_CHUNKS_DDL = (
    "CREATE VIRTUAL TABLE IF NOT EXISTS code_chunks USING fts5("
    "start_line UNINDEXED, end_line UNINDEXED, text, exact UNINDEXED, tokenize='trigram')"
)

COMPRESSED_TABLE = "chunk_text"
TRIGRAM_TABLE = "chunk_trigrams"

Layout = Literal["compressed", "code_chunks"]

Chunk = tuple[int, int, str]

# Up to this many runs of consecutive file ids, the searched files' chunks are read run by
# run (by row-id range); beyond it one pass over the table is cheaper than many queries.
_RANGE_QUERIES = 512

_LAST_FLAG = f"NOT EXISTS (SELECT 1 FROM {COMPRESSED_TABLE} n WHERE n.id = c.id + 1)"


def contentless_delete_supported() -> bool:
    """Whether this SQLite can delete rows from a contentless FTS5 table by row id."""
    return sqlite3.sqlite_version_info >= (3, 43, 0)


def layout(db) -> Layout | None:
    """The layout of the index's chunks; None when it has no table of the files' text."""
    names = {
        row[0]
        for row in db.fetchall(
            "SELECT name FROM sqlite_master WHERE type = 'table' AND name IN (?, ?)",
            (COMPRESSED_TABLE, "code_chunks"),
        )
    }
    if COMPRESSED_TABLE in names:
        return "compressed"
    if "code_chunks" in names:
        return "code_chunks"
    return None


# -- writer side ----------------------------------------------------------------------


def create_tables(cursor: sqlite3.Cursor, store: Layout) -> None:
    """Create the chunk tables of a layout (nothing happens for tables that exist)."""
    if store == "compressed":
        cursor.execute(
            f"CREATE TABLE IF NOT EXISTS {COMPRESSED_TABLE} ("
            "id INTEGER PRIMARY KEY, start_line INTEGER NOT NULL, "
            "end_line INTEGER NOT NULL, body BLOB NOT NULL)"
        )
        delete_option = ", contentless_delete=1" if contentless_delete_supported() else ""
        cursor.execute(
            f"CREATE VIRTUAL TABLE IF NOT EXISTS {TRIGRAM_TABLE} USING fts5("
            f"text, content=''{delete_option}, tokenize='trigram')"
        )
    else:
        cursor.execute(CODE_CHUNKS_DDL)


def drop_tables(cursor: sqlite3.Cursor) -> None:
    """Drop the chunk tables of both layouts."""
    for table in (COMPRESSED_TABLE, TRIGRAM_TABLE, "code_chunks"):
        cursor.execute(f"DROP TABLE IF EXISTS {table}")


def store_chunks(
    cursor: sqlite3.Cursor, store: Layout, file_id: int, chunks: Sequence[Chunk]
) -> None:
    """Store a file's chunks under consecutive row ids from ``file_id * CHUNK_STRIDE``."""
    if len(chunks) >= CHUNK_STRIDE:
        raise ValueError(f"{len(chunks)} chunks do not fit the row ids of one file")
    first = file_id * CHUNK_STRIDE
    if store == "compressed":
        cursor.executemany(
            f"INSERT INTO {COMPRESSED_TABLE} (id, start_line, end_line, body) "
            "VALUES (?, ?, ?, ?)",
            [(first + i, s, e, _compress(t)) for i, (s, e, t) in enumerate(chunks)],
        )
        cursor.executemany(
            f"INSERT INTO {TRIGRAM_TABLE} (rowid, text) VALUES (?, ?)",
            [(first + i, _searchable(t)) for i, (_, _, t) in enumerate(chunks)],
        )
    else:
        cursor.executemany(
            "INSERT INTO code_chunks (rowid, start_line, end_line, text, exact) "
            "VALUES (?, ?, ?, ?, ?)",
            [
                (first + i, s, e, _searchable(t), t if "\0" in t else None)
                for i, (s, e, t) in enumerate(chunks)
            ],
        )


def drop_chunks(cursor: sqlite3.Cursor, store: Layout, file_id: int) -> None:
    """Delete every chunk of a file."""
    first, end = file_id * CHUNK_STRIDE, (file_id + 1) * CHUNK_STRIDE
    if store != "compressed":
        cursor.execute("DELETE FROM code_chunks WHERE rowid >= ? AND rowid < ?", (first, end))
        return
    if _has_contentless_delete(cursor):
        cursor.execute(
            f"DELETE FROM {TRIGRAM_TABLE} WHERE rowid >= ? AND rowid < ?", (first, end)
        )
    else:
        # Without contentless_delete, the index forgets a row only when handed the very
        # text it was given; the exact text gives it back.
        rows = cursor.execute(
            f"SELECT id, body FROM {COMPRESSED_TABLE} WHERE id >= ? AND id < ?", (first, end)
        ).fetchall()
        cursor.executemany(
            f"INSERT INTO {TRIGRAM_TABLE} ({TRIGRAM_TABLE}, rowid, text) "
            "VALUES ('delete', ?, ?)",
            [(rowid, _searchable(_decompress(body))) for rowid, body in rows],
        )
    cursor.execute(f"DELETE FROM {COMPRESSED_TABLE} WHERE id >= ? AND id < ?", (first, end))


def set_bulk_load(cursor: sqlite3.Cursor, store: Layout, bulk: bool) -> None:
    """Pause the trigram index's incremental merges for a bulk load, or resume them.

    Merging once at the end (``optimize``) costs far less than merging all along.
    """
    table = _fts_table(store)
    cursor.execute(
        f"INSERT INTO {table} ({table}, rank) VALUES ('automerge', ?)", (0 if bulk else 4,)
    )


def optimize(cursor: sqlite3.Cursor, store: Layout) -> None:
    """Merge the trigram index into one b-tree."""
    table = _fts_table(store)
    cursor.execute(f"INSERT INTO {table} ({table}) VALUES ('optimize')")


def _fts_table(store: Layout) -> str:
    return TRIGRAM_TABLE if store == "compressed" else "code_chunks"


# -- reader side ----------------------------------------------------------------------


def trigram_query(needle: str) -> str | None:
    """The full-text query for chunks holding ``needle``; None below three characters.

    The trigram index cannot look up fewer than three characters, and None makes
    ``matching_rows`` read every chunk instead.  The needle is one quoted phrase, so every
    character is taken literally.
    """
    if len(needle) < 3:
        return None
    return '"' + needle.replace('"', '""') + '"'


def matching_rows(
    db, match: str | None, ids: Collection[int]
) -> Iterator[tuple[int, int, int, str, bool]]:
    """The chunks of the files in ``ids`` that may hold a match, as five-value rows.

    Each row: row id, first line, last line, exact text, and whether the chunk is its
    file's last.  With ``match`` None every chunk of those files; with a query at least
    every chunk whose text holds the needle (ASCII letters in any case; the trigram index
    folds case), and maybe more.  The rows are read as they are taken: one chunk's text
    is held at a time.
    """
    if match is None:
        return _whole_files(db, ids)
    rows = _stepped(
        db,
        f"SELECT c.id, c.start_line, c.end_line, c.body, {_LAST_FLAG} "
        f"FROM {COMPRESSED_TABLE} c WHERE c.id IN "
        f"(SELECT rowid FROM {TRIGRAM_TABLE} WHERE {TRIGRAM_TABLE} MATCH ?)",
        (match,),
    )
    return (
        (rowid, start, stop, _decompress(body), bool(last))
        for rowid, start, stop, body, last in rows
        if rowid // CHUNK_STRIDE in ids
    )


def _whole_files(db, ids: Collection[int]) -> Iterator[tuple[int, int, int, str, bool]]:
    # Every chunk of the files, in row-id order.  Each file's chunks come all together, so
    # a chunk is its file's last when the next row is not the next row id: no lookup.
    runs = _runs(sorted(i for i in ids if isinstance(i, int)))
    if len(runs) > _RANGE_QUERIES:
        # Scattered files: one pass over the table beats a query per run.
        rows = (
            row
            for row in _stepped(
                db, f"SELECT id, start_line, end_line, body FROM {COMPRESSED_TABLE} ORDER BY id"
            )
            if row[0] // CHUNK_STRIDE in ids
        )
    else:
        rows = (
            row
            for first, last in runs
            for row in _stepped(
                db,
                f"SELECT id, start_line, end_line, body FROM {COMPRESSED_TABLE} "
                "WHERE id >= ? AND id < ? ORDER BY id",
                (first * CHUNK_STRIDE, (last + 1) * CHUNK_STRIDE),
            )
        )
    held = next(rows, None)
    while held is not None:
        after = next(rows, None)
        rowid, start, stop, body = held
        yield rowid, start, stop, _decompress(body), after is None or after[0] != rowid + 1
        held = after


def _runs(ids: list[int]) -> list[tuple[int, int]]:
    """Sorted ids as runs of consecutive ids, each (first, last); duplicates join a run."""
    runs: list[tuple[int, int]] = []
    for file_id in ids:
        if runs and file_id <= runs[-1][1] + 1:
            runs[-1] = (runs[-1][0], file_id)
        else:
            runs.append((file_id, file_id))
    return runs


def file_rows(db, first: int, end: int) -> list[tuple[int, int, str]]:
    """A file's chunks with row ids in [first, end), as (start_line, end_line, text)."""
    return [
        (start, stop, _decompress(body))
        for start, stop, body in _stepped(
            db,
            f"SELECT start_line, end_line, body FROM {COMPRESSED_TABLE} "
            "WHERE id >= ? AND id < ? ORDER BY id",
            (first, end),
        )
    ]


def _stepped(db, sql: str, parameters: tuple = ()) -> Iterator[Any]:
    # Rows as the statement is stepped, from a handle that offers it (``Database.rows``);
    # any other handle with the two operations of a database gives them all at once.
    rows = getattr(db, "rows", None)
    return rows(sql, parameters) if rows is not None else iter(db.fetchall(sql, parameters))


def _searchable(text: str) -> str:
    return text.replace("\0", " ")


def _compress(text: str) -> bytes:
    return zlib.compress(text.encode("utf-8"))


def _decompress(body: bytes) -> str:
    return zlib.decompress(body).decode("utf-8")


def _has_contentless_delete(cursor: sqlite3.Cursor) -> bool:
    row = cursor.execute(
        "SELECT sql FROM sqlite_master WHERE type = 'table' AND name = ?", (TRIGRAM_TABLE,)
    ).fetchone()
    return row is not None and "contentless_delete" in row[0]
