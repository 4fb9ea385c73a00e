"""Where the chunks of the indexed files' text are stored.

Two layouts hold the same chunks under the same row ids (a file's chunks from
``file_id * CHUNK_STRIDE`` on, one after another):

- ``compressed`` (the default): ``COMPRESSED_TABLE`` keeps each chunk's lines and its exact
  text as a zstd frame (``codec``, with the dictionary kept in ``DICTIONARY_TABLE``), beside
  a contentless FTS5 trigram index without positions (``TRIGRAM_TABLE``, ``detail=none``).
  A needle is looked up as an AND of its trigrams, which finds every chunk holding it and
  sometimes a few more.  A contentless table forgets a row only when handed the text it
  was given, so a chunk is decoded again to be deleted.
- ``code_chunks``: an FTS5 table with the trigram tokenizer that holds the text itself.

In both, the searchable text holds each NUL as a space: the trigram tokenizer stops at a
NUL.  The trigram index folds case as SQLite's Unicode folding does (every ASCII letter,
U+212A KELVIN SIGN as "k", and most cased letters of other scripts), but not U+0130, whose
lower case is "i" plus a combining dot.

Here are what the module ``code_text`` calls and the compressed layout's own reading and
writing; the layout objects of ``layouts`` own every statement that depends on the layout.
The writer functions take a ``sqlite3`` cursor inside the caller's transaction; the reader
functions take the index ``Database``.
"""

from __future__ import annotations

import re
import sqlite3
from collections.abc import Collection, Iterator
from typing import Any, Literal
from weakref import WeakKeyDictionary

from velmora.query import trigrams
from velmora.storage import codec

# Row ids per file: a file's chunks take ids from id * stride, so the stride bounds the
# chunks of one file, and (id + 1) * stride must stay inside a signed 64-bit row id.
CHUNK_STRIDE = 1 << 20

CODE_CHUNKS_DDL = (
    "CREATE VIRTUAL TABLE IF NOT EXISTS code_chunks USING fts5("
    "start_line UNINDEXED, end_line UNINDEXED, text, exact UNINDEXED, tokenize='trigram')"
)

COMPRESSED_TABLE = "chunk_text"
TRIGRAM_TABLE = "chunk_trigrams"
DICTIONARY_TABLE = "chunk_dictionary"

Layout = Literal["compressed", "code_chunks"]

# The compressed layout's tables, which a conversion to the other layout drops.
COMPRESSED_TABLES = (COMPRESSED_TABLE, TRIGRAM_TABLE, DICTIONARY_TABLE)

# The trigram index holds this much of its new entries in memory before it writes them out,
# half FTS5's default: its hash table puts most trigrams in a few thousand buckets, so the
# fewer it holds the shorter each lookup, and a bulk load goes about a tenth faster.
_PENDING_BYTES = 512 << 10

# Up to this many runs of consecutive file ids, the searched files' chunks are read run by
# run (by row-id range); beyond it one pass over the table is cheaper than many queries.
_RANGE_QUERIES = 512

_LAST_FLAG = f"NOT EXISTS (SELECT 1 FROM {COMPRESSED_TABLE} n WHERE n.id = c.id + 1)"


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


def rows_per_file_sql(table: str, key: str, of: str = "COUNT(*)") -> str:
    """An SQL expression: how many rows of ``table`` (row ids in ``key``) belong to the
    ``files`` row in scope, or another aggregate ``of`` them (columns as ``c.name``)."""
    return (
        f"(SELECT {of} FROM {table} c WHERE c.{key} >= files.id * {CHUNK_STRIDE} "
        f"AND c.{key} < (files.id + 1) * {CHUNK_STRIDE})"
    )


# -- writer side ----------------------------------------------------------------------


def create_compressed_tables(cursor: sqlite3.Cursor, dictionary: bytes = b"") -> None:
    """Create the compressed layout's tables (nothing happens for tables that exist).

    ``dictionary`` is the codec dictionary (``codec.train``); it is fixed for the life of
    the tables.
    """
    cursor.execute(
        f"CREATE TABLE IF NOT EXISTS {COMPRESSED_TABLE} ("
        "id INTEGER PRIMARY KEY, start_line INTEGER NOT NULL, "
        "end_line INTEGER NOT NULL, body BLOB NOT NULL)"
    )
    cursor.execute(
        f"CREATE VIRTUAL TABLE IF NOT EXISTS {TRIGRAM_TABLE} USING fts5("
        "text, content='', detail=none, tokenize='trigram')"
    )
    cursor.execute(
        f"INSERT INTO {TRIGRAM_TABLE} ({TRIGRAM_TABLE}, rank) VALUES ('hashsize', ?)",
        (_PENDING_BYTES,),
    )
    cursor.execute(
        f"CREATE TABLE IF NOT EXISTS {DICTIONARY_TABLE} ("
        "id INTEGER PRIMARY KEY CHECK (id = 1), data BLOB NOT NULL)"
    )
    cursor.execute(f"INSERT OR IGNORE INTO {DICTIONARY_TABLE} VALUES (1, ?)", (dictionary,))


def dictionary(db) -> bytes:
    """The compressed layout's codec dictionary (empty when it has none)."""
    rows = db.fetchall(f"SELECT data FROM {DICTIONARY_TABLE} WHERE id = 1")
    return rows[0][0] if rows and rows[0][0] else b""


def set_dictionary(cursor: sqlite3.Cursor, data: bytes) -> None:
    """Replace the codec dictionary: only while the compressed table holds no chunk."""
    cursor.execute(f"UPDATE {DICTIONARY_TABLE} SET data = ? WHERE id = 1", (data,))


# -- reader side ----------------------------------------------------------------------


def trigram_query(needle: str) -> str | None:
    """The full-text query for chunks holding ``needle``; None where the index cannot narrow
    (below three characters, say), which makes ``matching_rows`` read every chunk.

    The needle is planned as a lower-cased one that ignores case: that query holds for every
    chunk holding the needle as it is too, since each character's own form is among the
    forms it takes, and the index folds ASCII letters itself.
    """
    return trigrams.needle_query(needle, case_sensitive=False)


_TERMS_TABLE = "chunk_trigram_terms"


def pair_terms(db, pair: str) -> list[str]:
    """The trigrams in the compressed layout's index that begin with ``pair``, two ASCII
    characters in lower case (as the index holds its trigrams)."""
    connection = db.connection
    if not connection.execute("SELECT 1 FROM temp.sqlite_master WHERE name = ?", (_TERMS_TABLE,)).fetchone():
        # The index's own list of its trigrams, as a table of the connection's temp schema:
        # nothing is written to the index, but a read-only connection refuses even that.
        (query_only,) = connection.execute("PRAGMA query_only").fetchone()
        connection.execute("PRAGMA query_only = 0")
        try:
            connection.execute(
                f"CREATE VIRTUAL TABLE temp.{_TERMS_TABLE} USING fts5vocab(main, {TRIGRAM_TABLE}, row)"
            )
        finally:
            connection.execute(f"PRAGMA query_only = {int(query_only)}")
    after = pair[0] + chr(ord(pair[1]) + 1)
    rows = connection.execute(
        f"SELECT term FROM temp.{_TERMS_TABLE} WHERE term >= ? AND term < ?", (pair, after)
    )
    return [term for (term,) in rows]


def matching_rows(
    db, match: str | None, ids: Collection[int]
) -> Iterator[tuple[int, int, int, str, bool]]:
    """The chunks of the files in ``ids`` that may hold a match, as five-value rows.

    Each row: row id, first line, last line, exact text, and whether the chunk is its
    file's last.  With ``match`` None every chunk of those files; with a query at least
    every chunk whose text holds the needle (ASCII letters in any case, as
    ``trigram_query`` explains), and maybe more.  The rows are read as they are taken: one
    chunk's text is held at a time.
    """
    if not ids:
        return iter(())  # a search that reads its candidates itself hands over no file
    if match is None:
        return _whole_files(db, ids)
    decode = decoder(db).decode
    rows = _stepped(
        db,
        f"SELECT c.id, c.start_line, c.end_line, c.body, {_LAST_FLAG} "
        f"FROM {COMPRESSED_TABLE} c WHERE c.id IN "
        f"(SELECT rowid FROM {TRIGRAM_TABLE} WHERE {TRIGRAM_TABLE} MATCH ?)",
        (match,),
    )
    return (
        (rowid, start, stop, decode(body), bool(last))
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
    decode = decoder(db).decode
    held = next(rows, None)
    while held is not None:
        after = next(rows, None)
        rowid, start, stop, body = held
        yield rowid, start, stop, decode(body), after is None or after[0] != rowid + 1
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
    decode = decoder(db).decode
    return [
        (start, stop, decode(body))
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


def searchable(text: str) -> str:
    """A chunk's text as the trigram tokenizer can read all of it."""
    return text.replace("\0", " ")


# A run of four spaces or more holds the same trigrams as a run of three, so the trigram
# index is handed runs of three: an eighth fewer trigrams to tokenize in indented code.
_SPACE_RUN = re.compile("    +")


def trigram_text(text: str) -> str:
    """The text the compressed layout's trigram index is handed for a chunk's text.

    A line feed after the last line gives its last two characters a trigram of their own,
    so that every pair of characters a chunk holds begins one of its trigrams
    (``pair_terms``). An index written before that is handed the same text to forget a
    row: the one trigram more is nothing to the index.
    """
    return _SPACE_RUN.sub("   ", searchable(text)) + "\n"


# Each open index's decoder: making one loads the dictionary, and an index's dictionary does
# not change while it is open for reading.
_DECODERS: WeakKeyDictionary[Any, codec.Decoder] = WeakKeyDictionary()


def decoder(db) -> codec.Decoder:
    """The decoder of ``db``'s chunk bodies, made once per database handle."""
    found = _DECODERS.get(db)
    if found is None:
        found = _DECODERS[db] = codec.Decoder(dictionary(db))
    return found
