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
lower case is "i" plus a combining dot.  The writer functions take a ``sqlite3`` cursor
inside the caller's transaction; the reader functions take the index ``Database``.
"""

from __future__ import annotations

import re
import sqlite3
from collections.abc import Collection, Iterable, Iterator, Sequence
from typing import Any, Literal

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

Chunk = tuple[int, int, str]

# The trigram index holds this much of its new entries in memory before it writes them out,
# half FTS5's default: its hash table puts most trigrams in a few thousand buckets, so the
# fewer it holds the shorter each lookup, and a bulk load goes about a tenth faster.
_PENDING_BYTES = 512 << 10

# A needle's trigrams past this many narrow the chunks little further, and each costs a
# lookup: a long needle is looked up by this many, spread over its length.
MAX_TRIGRAMS = 24

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


def fts_table(store: Layout) -> str:
    """The name of the layout's full-text table, the one ``matching_ids`` queries."""
    return TRIGRAM_TABLE if store == "compressed" else "code_chunks"


def chunk_table(store: Layout) -> tuple[str, str]:
    """The layout's table of chunk rows, and the name of its row-id column."""
    return ("code_chunks", "rowid") if store == "code_chunks" else (COMPRESSED_TABLE, "id")


def rows_per_file_sql(table: str, key: str, of: str = "COUNT(*)") -> str:
    """An SQL expression: how many rows of ``table`` (row ids in ``key``) belong to the
    ``files`` row in scope, or another aggregate ``of`` them (columns as ``c.name``)."""
    return (
        f"(SELECT {of} FROM {table} c WHERE c.{key} >= files.id * {CHUNK_STRIDE} "
        f"AND c.{key} < (files.id + 1) * {CHUNK_STRIDE})"
    )


# -- writer side ----------------------------------------------------------------------


def create_tables(cursor: sqlite3.Cursor, store: Layout, dictionary: bytes = b"") -> None:
    """Create the chunk tables of a layout (nothing happens for tables that exist).

    ``dictionary`` is the compressed layout's codec dictionary (``codec.train``); it is
    fixed for the life of the tables.
    """
    if store == "code_chunks":
        cursor.execute(CODE_CHUNKS_DDL)
        return
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


def drop_tables(cursor: sqlite3.Cursor) -> None:
    """Drop the chunk tables of both layouts."""
    for table in (COMPRESSED_TABLE, TRIGRAM_TABLE, DICTIONARY_TABLE, "code_chunks"):
        cursor.execute(f"DROP TABLE IF EXISTS {table}")


def dictionary(db) -> bytes:
    """The compressed layout's codec dictionary (empty when it has none)."""
    rows = db.fetchall(f"SELECT data FROM {DICTIONARY_TABLE} WHERE id = 1")
    return rows[0][0] if rows and rows[0][0] else b""


def set_dictionary(cursor: sqlite3.Cursor, data: bytes) -> None:
    """Replace the codec dictionary: only while the compressed table holds no chunk."""
    cursor.execute(f"UPDATE {DICTIONARY_TABLE} SET data = ? WHERE id = 1", (data,))


def encode_chunks(store: Layout, encoder: codec.Encoder | None, chunks: Sequence[Chunk]) -> list[tuple]:
    """A file's chunks as ``insert_encoded`` stores them.

    This is most of the work of storing a file and touches no database, so it can run on
    any thread (``encoder``, the compressed layout's, on one thread at a time).
    """
    if len(chunks) >= CHUNK_STRIDE:
        raise ValueError(f"{len(chunks)} chunks do not fit the row ids of one file")
    if store == "compressed":
        assert encoder is not None
        encode = encoder.encode
        return [(s, e, encode(t), _trigram_text(t)) for s, e, t in chunks]
    return [(s, e, _searchable(t), t if "\0" in t else None) for s, e, t in chunks]


def insert_encoded(cursor: sqlite3.Cursor, store: Layout, file_id: int, encoded: Sequence[tuple]) -> None:
    """Store a file's encoded chunks under consecutive row ids from ``file_id * CHUNK_STRIDE``."""
    first = file_id * CHUNK_STRIDE
    if store == "compressed":
        insert_rows(cursor, [(first + i, *row) for i, row in enumerate(encoded)])
    else:
        cursor.executemany(
            "INSERT INTO code_chunks (rowid, start_line, end_line, text, exact) "
            "VALUES (?, ?, ?, ?, ?)",
            [(first + i, *row) for i, row in enumerate(encoded)],
        )


def encoded_row(
    encoder: codec.Encoder, rowid: int, start: int, end: int, text: str
) -> tuple[int, int, int, bytes, str]:
    """One chunk ready for ``insert_rows``."""
    return rowid, start, end, encoder.encode(text), _trigram_text(text)


def insert_rows(cursor: sqlite3.Cursor, rows: Iterable[tuple[int, int, int, bytes, str]]) -> None:
    """Store rows made by ``encoded_rows`` in the compressed layout."""
    rows = list(rows)
    cursor.executemany(
        f"INSERT INTO {COMPRESSED_TABLE} (id, start_line, end_line, body) VALUES (?, ?, ?, ?)",
        [row[:4] for row in rows],
    )
    cursor.executemany(
        f"INSERT INTO {TRIGRAM_TABLE} (rowid, text) VALUES (?, ?)",
        [(row[0], row[4]) for row in rows],
    )


def store_chunks(
    cursor: sqlite3.Cursor, store: Layout, file_id: int, chunks: Sequence[Chunk]
) -> None:
    """Store a file's chunks under consecutive row ids from ``file_id * CHUNK_STRIDE``."""
    encoder = codec.Encoder(dictionary(_handle(cursor))) if store == "compressed" else None
    insert_encoded(cursor, store, file_id, encode_chunks(store, encoder, chunks))


def drop_chunks(cursor: sqlite3.Cursor, store: Layout, file_id: int) -> None:
    """Delete every chunk of a file."""
    first, end = file_id * CHUNK_STRIDE, (file_id + 1) * CHUNK_STRIDE
    if store != "compressed":
        cursor.execute("DELETE FROM code_chunks WHERE rowid >= ? AND rowid < ?", (first, end))
        return
    # The index forgets a row only when handed the very text it was given; the exact
    # text gives it back.
    rows = cursor.execute(
        f"SELECT id, body FROM {COMPRESSED_TABLE} WHERE id >= ? AND id < ?", (first, end)
    ).fetchall()
    if not rows:
        return
    decode = _decoder(_handle(cursor))
    cursor.executemany(
        f"INSERT INTO {TRIGRAM_TABLE} ({TRIGRAM_TABLE}, rowid, text) VALUES ('delete', ?, ?)",
        [(rowid, _trigram_text(decode(body))) for rowid, body in rows],
    )
    cursor.execute(f"DELETE FROM {COMPRESSED_TABLE} WHERE id >= ? AND id < ?", (first, end))


def set_bulk_load(cursor: sqlite3.Cursor, store: Layout, bulk: bool) -> None:
    """Pause the trigram index's incremental merges for a bulk load, or resume them.

    Merging once at the end (``optimize``) costs far less than merging all along.
    """
    table = fts_table(store)
    cursor.execute(
        f"INSERT INTO {table} ({table}, rank) VALUES ('automerge', ?)", (0 if bulk else 4,)
    )


def optimize(cursor: sqlite3.Cursor, store: Layout) -> None:
    """Merge the trigram index into one b-tree."""
    table = fts_table(store)
    cursor.execute(f"INSERT INTO {table} ({table}) VALUES ('optimize')")


# -- reader side ----------------------------------------------------------------------


def trigram_query(needle: str) -> str | None:
    """The full-text query for chunks holding ``needle``; None below three characters.

    The trigram index cannot look up fewer than three characters, and None makes
    ``matching_rows`` read every chunk instead.  The query is an AND of the needle's
    distinct trigrams (at most ``MAX_TRIGRAMS``, spread over it), each a quoted string so
    that every character is taken literally.  A chunk holds all of them when it holds the
    needle, so the answer is a superset.  A needle ending in "i" leaves out its last
    trigram: in a lower-cased line that "i" may come from U+0130, which the index does not
    fold to "i".
    """
    if len(needle) < 3:
        return None
    starts = len(needle) - 2 - (needle[-1] in "iI")
    if starts <= 0:
        return None
    # A long needle is sampled at evenly spread places before its repeats are dropped, so
    # that its length costs nothing here.
    step = max(1.0, starts / (4 * MAX_TRIGRAMS))
    taken = range(0, starts) if step == 1.0 else (int(k * step) for k in range(4 * MAX_TRIGRAMS))
    trigrams = list(dict.fromkeys(needle[i : i + 3] for i in taken))
    if len(trigrams) > MAX_TRIGRAMS:
        trigrams = trigrams[:: -(-len(trigrams) // MAX_TRIGRAMS)]
    return " AND ".join('"' + t.replace('"', '""') + '"' for t in trigrams)


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


def matching_ids(db, match: str, store: Layout = "compressed") -> set[int]:
    """The row ids of the chunks that a full-text ``match`` expression selects.

    Any FTS5 query of the layout's table (``fts_table``) goes; the file of a row id is
    ``rowid // CHUNK_STRIDE``.  The compressed layout keeps no positions: a phrase of
    more than one trigram is refused there (``trigram_query`` gives an AND instead).
    """
    table = fts_table(store)
    return {row[0] for row in _stepped(db, f"SELECT rowid FROM {table} WHERE {table} MATCH ?", (match,))}


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
    if match is None:
        return _whole_files(db, ids)
    decode = _decoder(db)
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
    decode = _decoder(db)
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
    decode = _decoder(db)
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


def _searchable(text: str) -> str:
    return text.replace("\0", " ")


# A run of four spaces or more holds the same trigrams as a run of three, so the trigram
# index is handed runs of three: an eighth fewer trigrams to tokenize in indented code.
_SPACE_RUN = re.compile("    +")


def _trigram_text(text: str) -> str:
    # A line feed after the last line gives its last two characters a trigram of their own,
    # so that every pair of characters a chunk holds begins one of its trigrams
    # (``pair_terms``). An index written before that is handed the same text to forget a
    # row: the one trigram more is nothing to the index.
    return _SPACE_RUN.sub("   ", _searchable(text)) + "\n"


def _decoder(db) -> Any:
    """The function that turns a chunk body of ``db`` back into its text."""
    return _codec(db).decode


def _codec(db) -> codec.Decoder:
    """The decoder of ``db``'s chunk bodies.

    Kept on the database handle: making one loads the dictionary, and a handle's
    dictionary does not change while it is open for reading.
    """
    decoder = getattr(db, "_chunk_codec", None)
    if decoder is None:
        decoder = codec.Decoder(dictionary(db))
        try:
            db._chunk_codec = decoder
        except (AttributeError, TypeError):
            pass
    return decoder


def _handle(cursor: sqlite3.Cursor) -> Any:
    # The reader functions' view of a writer's cursor: its connection, whose statements
    # see the cursor's uncommitted writes.
    return _CursorHandle(cursor.connection)


class _CursorHandle:
    def __init__(self, connection: sqlite3.Connection) -> None:
        self.connection = connection

    def fetchall(self, sql: str, parameters: Sequence[Any] = ()) -> list[Any]:
        return self.connection.execute(sql, parameters).fetchall()
