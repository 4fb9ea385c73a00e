"""The compressed layout's chunk rows read natively, on the threads that scan them: the
index handle's reader, where this process's SQLite allows one."""

from __future__ import annotations

import sqlite3
from functools import cache

from velmora import native
from velmora.storage import chunk_store
from velmora.storage.database import Database, file_identity

# One connection per scan thread; a thread more waits for one.
CONNECTIONS = 2


def of(db: Database) -> native.ChunkReader | None:
    """The reader of the very file the handle ``db`` opened, made when first asked for and
    closed with the handle; None when this process's SQLite is not the module's, or the path
    names another file now (an index rebuilt under the handle): the handle's own connection
    then reads."""
    return db.attached("chunk reader", lambda: _opened(db))


def _opened(db: Database) -> native.ChunkReader | None:
    if db.identity is None or not _shared_sqlite():
        return None
    try:
        reader = native.ChunkReader(db.db_path, chunk_store.COMPRESSED_TABLE, CONNECTIONS)
    except sqlite3.Error:
        return None  # the handle's connection reads, and names what is wrong
    if file_identity(db.db_path) != db.identity:
        reader.close()
        return None
    return reader


@cache
def _shared_sqlite() -> bool:
    import _sqlite3

    path = getattr(_sqlite3, "__file__", None)  # None: built into the interpreter
    return path is not None and native.shares_sqlite_with(path)
