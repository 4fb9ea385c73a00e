"""Converting an index written by an older velmora to the current form, in place."""

from __future__ import annotations

import sqlite3

from velmora.storage import code_text, schema, symbol_store
from velmora.storage.database import Database
from velmora.storage.layouts import ChunkLayout


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
        layout = db.layout
        if layout is not None:
            layout.upgrade(cursor, version, progress)
        if "chunks" not in columns:
            _count_chunks(cursor, layout)
        # Empty until the next pass reads every file (without the mark, sym: says so).
        symbol_store.create_table(cursor)
        schema.set_meta(cursor, "schema_version", schema.SCHEMA_VERSION)


def _count_chunks(cursor: sqlite3.Cursor, layout: ChunkLayout | None) -> None:
    """files.chunks, from the chunk rows each file has."""
    cursor.execute(f"ALTER TABLE files ADD COLUMN {schema.CHUNKS_COLUMN}")
    if layout is not None:
        cursor.execute(f"UPDATE files SET chunks = {layout.rows_per_file_sql()}")
    cursor.execute(schema.CHUNKS_INDEX_DDL)
