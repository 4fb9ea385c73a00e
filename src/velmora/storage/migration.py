"""Converting an index written by an older velmora to the current form, in place."""

from __future__ import annotations

import sqlite3
import zlib

from velmora.storage import schema
from velmora.storage.database import Database
from velmora.utils.progress import Progress
from velmora.storage import chunk_store, code_text, codec

_OLD_TABLE = "chunk_text_v3"
_ROWS_PER_STEP = 2000


def migrate(db: Database, version: tuple[int, ...], progress: bool = True) -> None:
    """Bring an index of schema ``version`` (one of ``schema.CONVERTED``) to
    ``schema.SCHEMA_VERSION`` in one transaction.

    A failure rolls every step back.  The large data files of a 3.0 index keep their text
    on disk from then on.
    """
    with db.transaction() as cursor:
        columns = {row[1] for row in cursor.execute("PRAGMA table_info(files)")}
        if "text_on_disk" not in columns:
            cursor.execute("ALTER TABLE files ADD COLUMN text_on_disk INTEGER NOT NULL DEFAULT 0")
            code_text.keep_large_data_on_disk(cursor)
        if "inode" not in columns:
            cursor.execute("ALTER TABLE files ADD COLUMN inode INTEGER NOT NULL DEFAULT 0")
        cursor.execute(schema.SKIPPED_DDL)
        store = chunk_store.layout(db)
        if store == "compressed" and version < (4,):
            _recompress(cursor, progress)
        if "chunks" not in columns:
            _count_chunks(cursor, store)
        schema.set_meta(cursor, "schema_version", schema.SCHEMA_VERSION)


def _count_chunks(cursor: sqlite3.Cursor, store: chunk_store.Layout | None) -> None:
    """files.chunks, from the chunk rows each file has."""
    cursor.execute(f"ALTER TABLE files ADD COLUMN {schema.CHUNKS_COLUMN}")
    if store is not None:
        rows = chunk_store.rows_per_file_sql(*chunk_store.chunk_table(store))
        cursor.execute(f"UPDATE files SET chunks = {rows}")
    cursor.execute(schema.CHUNKS_INDEX_DDL)


def _recompress(cursor: sqlite3.Cursor, progress: bool) -> None:
    """zlib chunks and a positional trigram index become the current codec and index."""
    cursor.execute(f"ALTER TABLE {chunk_store.COMPRESSED_TABLE} RENAME TO {_OLD_TABLE}")
    cursor.execute(f"DROP TABLE {chunk_store.TRIGRAM_TABLE}")
    samples = [
        zlib.decompress(body)
        for (body,) in cursor.execute(
            f"SELECT body FROM {_OLD_TABLE} ORDER BY random() LIMIT ?",
            (codec.SAMPLE_BYTES // 2048,),
        ).fetchall()
    ]
    dictionary = codec.train(samples)
    chunk_store.create_tables(cursor, "compressed", dictionary)
    chunk_store.set_bulk_load(cursor, "compressed", True)
    encoder = codec.Encoder(dictionary)
    total = cursor.execute(f"SELECT COUNT(*) FROM {_OLD_TABLE}").fetchone()[0]
    bar = Progress(total, label="converting the index", unit="chunks") if progress else None
    done, last = 0, -1
    while True:
        rows = cursor.execute(
            f"SELECT id, start_line, end_line, body FROM {_OLD_TABLE} WHERE id > ? "
            "ORDER BY id LIMIT ?",
            (last, _ROWS_PER_STEP),
        ).fetchall()
        if not rows:
            break
        chunk_store.insert_rows(
            cursor,
            [
                chunk_store.encoded_row(encoder, rowid, start, end, _text(body))
                for rowid, start, end, body in rows
            ],
        )
        done, last = done + len(rows), rows[-1][0]
        if bar:
            bar.update(done)
    cursor.execute(f"DROP TABLE {_OLD_TABLE}")
    chunk_store.optimize(cursor, "compressed")
    chunk_store.set_bulk_load(cursor, "compressed", False)
    if bar:
        bar.close()


def _text(body: bytes) -> str:
    return zlib.decompress(body).decode("utf-8")
