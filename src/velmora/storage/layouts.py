"""The two chunk layouts as objects: each owns every statement about its chunks, and the index's
layout is chosen once, when its handle first needs it (``Database.layout``).

``chunk_store`` explains how each layout keeps its chunks; what the module ``code_text``
calls there stays there.  Everything else that depends on the layout (writing, converting,
counting, reading a group of files' chunks, and asking the module for its text source) is
a method here, so that no other module tests which layout it has.
"""

from __future__ import annotations

import sqlite3
import zlib
from array import array
from collections.abc import Callable, Iterable, Sequence
from concurrent.futures import Future
from itertools import accumulate
from pathlib import Path
from typing import TYPE_CHECKING, Any

from velmora.storage import chunk_counts, chunk_reader, chunk_store, code_text, codec, file_rows, line_picks
from velmora.utils.progress import Progress

if TYPE_CHECKING:
    from velmora.query.prefilter import Search
    from velmora.storage.database import Database
    from velmora.storage.file_rows import FileRow

STRIDE = chunk_store.CHUNK_STRIDE

# A chunk as the indexer cuts it: (first line, last line, its lines joined by LF).
Chunk = tuple[int, int, str]
# A chunk row as a group read gives it: (row id, first line, last line, text, last flag).
ChunkRow = tuple[int, int, int, str, bool]
# As a ``ChunkRow``, then the 0-based indexes of the lines a widened search picked in it.
PickedRow = tuple[int, int, int, str, bool, list[int]]
# The module's text sources.
TextSource = code_text.ChunkText | code_text.DiskText

_OLD_COMPRESSED_TABLE = "chunk_text_v3"
_CONVERTED_PER_STEP = 2000


class ChunkLayout:
    """What both layouts share: a table of chunk rows under one row-id numbering, and a
    trigram full-text table."""

    name: chunk_store.Layout
    table: str  # the table of chunk rows
    key: str  # its row-id column
    fts_table: str  # the full-text table that ``matching_ids`` queries

    # -- writing ------------------------------------------------------------------------

    def create_tables(self, cursor: sqlite3.Cursor, dictionary: bytes = b"") -> None:
        """Create the layout's tables (nothing happens for tables that exist)."""
        raise NotImplementedError

    def prepare_load(self, cursor: sqlite3.Cursor, samples: Callable[[], list[bytes]]) -> None:
        """Ready the tables for the chunks of a pass; ``samples`` gives texts to learn from."""

    def dictionary(self, db: Any) -> bytes:
        """What an ``encoder`` of this index is made from."""
        return b""

    def encoder(self, dictionary: bytes) -> codec.Encoder | None:
        """An encoder for ``encode_chunks``: one per thread."""
        return None

    def encode_chunks(self, encoder: codec.Encoder | None, chunks: Sequence[Chunk]) -> list[tuple]:
        """A file's chunks as ``insert`` stores them.

        This is most of the work of storing a file and touches no database, so it can run on
        any thread.
        """
        raise NotImplementedError

    def insert(self, cursor: sqlite3.Cursor, file_id: int, encoded: Sequence[tuple]) -> None:
        """Store a file's encoded chunks under consecutive row ids from ``file_id * STRIDE``."""
        raise NotImplementedError

    def store_chunks(self, cursor: sqlite3.Cursor, file_id: int, chunks: Sequence[Chunk]) -> None:
        """Encode and store a file's chunks, in the caller's transaction."""
        dictionary = self.dictionary(_CursorHandle(cursor.connection))
        self.insert(cursor, file_id, self.encode_chunks(self.encoder(dictionary), chunks))

    def drop_chunks(self, cursor: sqlite3.Cursor, file_id: int) -> None:
        """Delete every chunk of a file."""
        raise NotImplementedError

    def set_bulk_load(self, cursor: sqlite3.Cursor, bulk: bool) -> None:
        """Pause the trigram index's incremental merges for a bulk load, or resume them.

        Merging once at the end (``optimize``) costs far less than merging all along.
        """
        table = self.fts_table
        cursor.execute(f"INSERT INTO {table} ({table}, rank) VALUES ('automerge', ?)", (0 if bulk else 4,))

    def optimize(self, cursor: sqlite3.Cursor) -> None:
        """Merge the trigram index into one b-tree."""
        cursor.execute(f"INSERT INTO {self.fts_table} ({self.fts_table}) VALUES ('optimize')")

    def upgrade(self, cursor: sqlite3.Cursor, version: tuple[int, ...], progress: bool) -> None:
        """Bring chunks written by the index's schema ``version`` to the current form."""

    def rows_per_file_sql(self, of: str = "COUNT(*)") -> str:
        """An SQL expression: how many chunk rows belong to the ``files`` row in scope, or
        another aggregate ``of`` them (columns as ``c.name``)."""
        return chunk_store.rows_per_file_sql(self.table, self.key, of)

    # -- reading ------------------------------------------------------------------------

    def text_source(
        self, db: Database, root: Path, needle: str | None, case_sensitive: bool
    ) -> tuple[TextSource, str | None]:
        """The module's text source for a search that reads its candidate chunks itself
        (``group_rows``), and why every file is read from disk (None when the index answers)."""
        raise NotImplementedError

    def matching_ids(self, db: Database, match: str) -> array:
        """The row ids, in order, of the chunks that a full-text ``match`` expression selects;
        found by the handle's native reader where it has one (many ids for a common pair of
        letters, which Python would make an object of each).

        The compressed layout keeps no positions: a phrase of more than one trigram is
        refused there (``chunk_store.trigram_query`` gives an AND instead).
        """
        table = self.fts_table
        reader = chunk_reader.of(db) if self.stores_frames else None
        if reader is not None:
            return array("q", reader.matching_ids(table, match))
        return array("q", sorted(rowid for (rowid,) in db.rows(f"SELECT rowid FROM {table} WHERE {table} MATCH ?", (match,))))

    def pair_terms(self, db: Database) -> Callable[[str], list[str]] | None:
        """The lookup of the index's trigrams that begin with two characters, when it has one."""
        return None

    def group_rows(
        self, db: Database, group: Sequence[FileRow], wanted: list[int], whole_files: bool,
        with_last: bool, holding: str | None,
    ) -> Iterable[ChunkRow]:
        """The chunk rows of a group of files, each file's in order: the chunks whose row ids
        are ``wanted``, or with ``whole_files`` every chunk of the files whose ids are.

        ``with_last`` asks for each chunk's last flag (else it is false); ``holding``, when
        given, is a text every chunk that may match holds: chunks without it may be left out.
        """
        raise NotImplementedError

    def picked_rows(
        self, db: Database, group: Sequence[FileRow], wanted: list[int], whole_files: bool,
        with_last: bool, widened: Search,
    ) -> Callable[[], list[PickedRow]]:
        """As ``group_rows``, only the chunks in which a pattern's widened search picks a
        line (``storage.line_picks``), with the lines picked. The picking may start at once;
        the call returned waits for it."""
        rows = list(self.group_rows(db, group, wanted, whole_files, with_last, None))
        texts = [row[3].encode("utf-8") for row in rows]
        found = line_picks.picks(b"".join(texts), list(accumulate(map(len, texts))), widened)
        return lambda: _with_picks(rows, found)

    # Whether ``group_bodies`` gives the chunks' bodies as zstd frames of the index's
    # dictionary, for a scan that decodes them itself.
    stores_frames = False

    def group_bodies(
        self, db: Database, group: Sequence[FileRow], wanted: list[int], whole_files: bool
    ) -> list[ChunkRow]:
        """As ``group_rows``, each chunk's body as stored instead of its text (when
        ``stores_frames``)."""
        raise NotImplementedError

    def _group_statement(self, text: str, whole_files: bool, with_last: bool, condition: str = "") -> str:
        table, key = self.table, self.key
        if whole_files:
            where = f"c.{key} >= w.value * {STRIDE} AND c.{key} < (w.value + 1) * {STRIDE}"
        else:
            where = f"c.{key} = w.value"
        last = f"NOT EXISTS (SELECT 1 FROM {table} n WHERE n.{key} = c.{key} + 1)" if with_last else "0"
        return (
            f"SELECT c.{key}, c.start_line, c.end_line, {text}, {last} "
            # The files' order first, then each file's chunks by row id.
            f"FROM json_each(?) w CROSS JOIN {table} c ON {where}{condition}"
        )


class Compressed(ChunkLayout):
    """Each chunk a zstd frame, beside a contentless trigram index without positions."""

    name = "compressed"
    table, key, fts_table = chunk_store.COMPRESSED_TABLE, "id", chunk_store.TRIGRAM_TABLE

    def create_tables(self, cursor: sqlite3.Cursor, dictionary: bytes = b"") -> None:
        chunk_store.create_compressed_tables(cursor, dictionary)

    def prepare_load(self, cursor: sqlite3.Cursor, samples: Callable[[], list[bytes]]) -> None:
        # The dictionary is fixed for the life of the chunks: it is learnt while there are none.
        if not cursor.execute(f"SELECT 1 FROM {self.table} LIMIT 1").fetchone():
            chunk_store.set_dictionary(cursor, codec.train(samples()))

    def dictionary(self, db: Any) -> bytes:
        return chunk_store.dictionary(db)

    def encoder(self, dictionary: bytes) -> codec.Encoder:
        return codec.Encoder(dictionary)

    def encode_chunks(self, encoder: codec.Encoder | None, chunks: Sequence[Chunk]) -> list[tuple]:
        _check_fits(chunks)
        assert encoder is not None
        encode, indexed = encoder.encode, chunk_store.trigram_text
        return [(s, e, encode(t), indexed(t)) for s, e, t in chunks]

    def insert(self, cursor: sqlite3.Cursor, file_id: int, encoded: Sequence[tuple]) -> None:
        first = file_id * STRIDE
        _insert_compressed(cursor, [(first + i, *row) for i, row in enumerate(encoded)])

    def drop_chunks(self, cursor: sqlite3.Cursor, file_id: int) -> None:
        first, end = file_id * STRIDE, (file_id + 1) * STRIDE
        # The index forgets a row only when handed the very text it was given; the exact
        # text gives it back.
        rows = cursor.execute(
            f"SELECT id, body FROM {self.table} WHERE id >= ? AND id < ?", (first, end)
        ).fetchall()
        if not rows:
            return
        decode = codec.Decoder(chunk_store.dictionary(_CursorHandle(cursor.connection))).decode
        cursor.executemany(
            f"INSERT INTO {self.fts_table} ({self.fts_table}, rowid, text) VALUES ('delete', ?, ?)",
            [(rowid, chunk_store.trigram_text(decode(body))) for rowid, body in rows],
        )
        cursor.execute(f"DELETE FROM {self.table} WHERE id >= ? AND id < ?", (first, end))

    def upgrade(self, cursor: sqlite3.Cursor, version: tuple[int, ...], progress: bool) -> None:
        if version < (4,):
            self._recompress(cursor, progress)

    def _recompress(self, cursor: sqlite3.Cursor, progress: bool) -> None:
        """zlib chunks and a positional trigram index become the current codec and index."""
        old = _OLD_COMPRESSED_TABLE
        cursor.execute(f"ALTER TABLE {self.table} RENAME TO {old}")
        cursor.execute(f"DROP TABLE {self.fts_table}")
        samples = [
            zlib.decompress(body)
            for (body,) in cursor.execute(
                f"SELECT body FROM {old} ORDER BY random() LIMIT ?", (codec.SAMPLE_BYTES // 2048,)
            ).fetchall()
        ]
        dictionary = codec.train(samples)
        self.create_tables(cursor, dictionary)
        self.set_bulk_load(cursor, True)
        encode, indexed = codec.Encoder(dictionary).encode, chunk_store.trigram_text
        total = cursor.execute(f"SELECT COUNT(*) FROM {old}").fetchone()[0]
        bar = Progress(total, label="converting the index", unit="chunks") if progress else None
        done, last = 0, -1
        while True:
            rows = cursor.execute(
                f"SELECT id, start_line, end_line, body FROM {old} WHERE id > ? ORDER BY id LIMIT ?",
                (last, _CONVERTED_PER_STEP),
            ).fetchall()
            if not rows:
                break
            texts = [zlib.decompress(body).decode("utf-8") for *_, body in rows]
            _insert_compressed(cursor, [
                (rowid, start, end, encode(text), indexed(text))
                for (rowid, start, end, _), text in zip(rows, texts)
            ])
            done, last = done + len(rows), rows[-1][0]
            if bar:
                bar.update(done)
        cursor.execute(f"DROP TABLE {old}")
        self.optimize(cursor)
        self.set_bulk_load(cursor, False)
        if bar:
            bar.close()

    def text_source(
        self, db: Database, root: Path, needle: str | None, case_sensitive: bool
    ) -> tuple[TextSource, str | None]:
        # No file is handed over: the search selects its candidates group by group itself,
        # and ``chunk_store.matching_rows`` answers for no file without a statement.
        return code_text.text_source(db, (), needle, case_sensitive, store=self.name)

    def pair_terms(self, db: Database) -> Callable[[str], list[str]] | None:
        from velmora.storage import schema

        if not schema.get_meta(db, schema.PAIR_MARK):
            return None  # chunks written before their indexed texts ended in a line feed
        return lambda pair: chunk_store.pair_terms(db, pair)

    stores_frames = True

    def group_bodies(
        self, db: Database, group: Sequence[FileRow], wanted: list[int], whole_files: bool,
        with_last: bool = False,
    ) -> list[ChunkRow]:
        statement = self._group_statement("c.body", whole_files, with_last)
        rows = db.fetchall(statement, (_json_ids(wanted),))
        # The text and the trigram index are separate tables, so a text row can go while its
        # entry stays.
        chunk_counts.check_read(db, group, None if whole_files else len(wanted), len(rows))
        return rows

    def group_rows(
        self, db: Database, group: Sequence[FileRow], wanted: list[int], whole_files: bool,
        with_last: bool, holding: str | None,
    ) -> Iterable[ChunkRow]:
        rows = self.group_bodies(db, group, wanted, whole_files, with_last)
        decoder, bodies = chunk_store.decoder(db), [row[3] for row in rows]
        # A text holds the needle exactly when its UTF-8 holds the needle's: tested on the
        # bytes, a chunk without it costs neither a str nor a row.
        texts = decoder.decode_many(bodies, b"" if holding is None else holding.encode("utf-8"))
        return (
            (rowid, start, end, text, last)
            for (rowid, start, end, _, last), text in zip(rows, texts) if text is not None
        )

    def picked_rows(
        self, db: Database, group: Sequence[FileRow], wanted: list[int], whole_files: bool,
        with_last: bool, widened: Search,
    ) -> Callable[[], list[PickedRow]]:
        # Decoded and picked on a scan thread while the caller reads the next groups.
        rows = self.group_bodies(db, group, wanted, whole_files, with_last)
        picking = line_picks.start(chunk_store.decoder(db).frames(), [row[3] for row in rows], widened)
        return lambda: _with_picks(rows, _picks_of(picking))


def _picks_of(picking: Future[list[line_picks.Picked | None]]) -> list[line_picks.Picked | None]:
    from velmora import native

    try:
        return picking.result()
    except (native.DamagedChunk, UnicodeDecodeError) as error:
        raise codec.damaged(error) from None


def _with_picks(rows: list[ChunkRow], found: list[line_picks.Picked | None]) -> list[PickedRow]:
    """The rows with a pick, its text in place of the body and its lines picked after it."""
    return [
        (rowid, start, end, text, last, lines)
        for (rowid, start, end, _, last), pick in zip(rows, found) if pick is not None
        for text, lines in (pick,)
    ]


class CodeChunks(ChunkLayout):
    """An FTS5 table with the trigram tokenizer that holds the chunks' text itself."""

    name = "code_chunks"
    table, key, fts_table = "code_chunks", "rowid", "code_chunks"

    def create_tables(self, cursor: sqlite3.Cursor, dictionary: bytes = b"") -> None:
        cursor.execute(chunk_store.CODE_CHUNKS_DDL)

    def encode_chunks(self, encoder: codec.Encoder | None, chunks: Sequence[Chunk]) -> list[tuple]:
        _check_fits(chunks)
        searchable = chunk_store.searchable
        return [(s, e, searchable(t), t if "\0" in t else None) for s, e, t in chunks]

    def insert(self, cursor: sqlite3.Cursor, file_id: int, encoded: Sequence[tuple]) -> None:
        first = file_id * STRIDE
        cursor.executemany(
            "INSERT INTO code_chunks (rowid, start_line, end_line, text, exact) VALUES (?, ?, ?, ?, ?)",
            [(first + i, *row) for i, row in enumerate(encoded)],
        )

    def drop_chunks(self, cursor: sqlite3.Cursor, file_id: int) -> None:
        cursor.execute(
            "DELETE FROM code_chunks WHERE rowid >= ? AND rowid < ?",
            (file_id * STRIDE, (file_id + 1) * STRIDE),
        )

    def text_source(
        self, db: Database, root: Path, needle: str | None, case_sensitive: bool
    ) -> tuple[TextSource, str | None]:
        # The module's candidate statements in this layout read the whole table whatever
        # files it is given, so it is asked with a needle no chunk holds, and the sources are
        # made for the search's own needle from the module's public classes.
        probe, reason = code_text.text_source(db, (), _ABSENT, True, store=self.name)
        disk = code_text.DiskText(root, needle, case_sensitive)
        if reason is not None:
            return disk, reason
        return code_text.ChunkText(db, self.name, {}, disk, file_rows.on_disk_ids(db)), None

    def group_rows(
        self, db: Database, group: Sequence[FileRow], wanted: list[int], whole_files: bool,
        with_last: bool, holding: str | None,
    ) -> Iterable[ChunkRow]:
        parameters: tuple = (_json_ids(wanted),)
        condition = ""
        if holding is not None:
            # SQLite tests the text far faster than the rows can be handed to Python.
            condition, parameters = " AND instr(c.text, ?)", (*parameters, holding)
        text = "coalesce(c.exact, c.text)"
        return db.rows(self._group_statement(text, whole_files, with_last, condition), parameters)


# A needle that no chunk holds: its trigrams are looked up, not scanned for.
_ABSENT = "\x01\x02\x03"

COMPRESSED, CODE_CHUNKS = Compressed(), CodeChunks()
_BY_NAME: dict[str, ChunkLayout] = {layout.name: layout for layout in (COMPRESSED, CODE_CHUNKS)}


def text_source(
    db: Database, root: Path, needle: str | None, case_sensitive: bool
) -> tuple[TextSource, str | None]:
    """The module's text source for a search of the index ``db`` of the repository at
    ``root``, and why every file is read from disk (None when the index answers)."""
    layout = db.layout
    if layout is None:
        return code_text.text_source(db, (), needle, case_sensitive, store=None)
    return layout.text_source(db, root, needle, case_sensitive)


def named(name: str) -> ChunkLayout:
    """The layout of that name (``chunk_store.Layout``)."""
    return _BY_NAME[name]


def of_index(db: Any) -> ChunkLayout | None:
    """The layout of the index's chunks; None when it has no table of the files' text."""
    name = chunk_store.layout(db)
    return None if name is None else _BY_NAME[name]


def drop_tables(cursor: sqlite3.Cursor) -> None:
    """Drop the chunk tables of both layouts."""
    for table in (*chunk_store.COMPRESSED_TABLES, CODE_CHUNKS.table):
        cursor.execute(f"DROP TABLE IF EXISTS {table}")


def _check_fits(chunks: Sequence[Chunk]) -> None:
    if len(chunks) >= STRIDE:
        raise ValueError(f"{len(chunks)} chunks do not fit the row ids of one file")


def _insert_compressed(cursor: sqlite3.Cursor, rows: list[tuple[int, int, int, bytes, str]]) -> None:
    cursor.executemany(
        f"INSERT INTO {COMPRESSED.table} (id, start_line, end_line, body) VALUES (?, ?, ?, ?)",
        [row[:4] for row in rows],
    )
    cursor.executemany(
        f"INSERT INTO {COMPRESSED.fts_table} (rowid, text) VALUES (?, ?)", [(row[0], row[4]) for row in rows]
    )


def _json_ids(ids: list[int]) -> str:
    return "[" + ",".join(map(str, ids)) + "]"


class _CursorHandle:
    """A writer's cursor as the reader functions take a database: its connection, whose
    statements see the cursor's uncommitted writes."""

    def __init__(self, connection: sqlite3.Connection) -> None:
        self.connection = connection

    def fetchall(self, sql: str, parameters: Sequence[Any] = ()) -> list[Any]:
        return self.connection.execute(sql, parameters).fetchall()
