"""The index database handle."""

from __future__ import annotations

import os
import sqlite3
from collections.abc import Callable, Hashable, Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import TYPE_CHECKING, Any, Sequence, TypeVar

if TYPE_CHECKING:
    from velmora.storage.layouts import ChunkLayout

# How long a connection waits for another's lock.  A reader of an index in WAL mode meets
# one only while a writer holds the whole file (exclusive locking mode).
BUSY_SECONDS = 5.0

_T = TypeVar("_T")
_UNKNOWN = object()


class Database:
    """One SQLite index database, opened on ``db_path``."""

    def __init__(self, db_path: str | Path) -> None:
        self.db_path = Path(db_path)
        before = file_identity(self.db_path)
        self.connection = sqlite3.connect(self.db_path, timeout=BUSY_SECONDS)
        # The file the connection opened (device, inode): None when the path named another
        # before it (an index replaced meanwhile), or none.
        self.identity = before if before == file_identity(self.db_path) else None
        # What searches read of the whole index, kept while no other connection writes it.
        self._kept: dict[Hashable, Any] | None = None
        self._generation = -1
        self._layout: Any = _UNKNOWN
        self._attached: dict[Hashable, Any] = {}

    @property
    def layout(self) -> ChunkLayout | None:
        """The layout of the index's chunks, found when first asked for (on a read-only
        connection, again after another connection's commit: a pass may have converted the
        index); None when it has no table of the files' text."""
        from velmora.storage import layouts

        if self._kept is not None:
            return self.kept("layout", lambda: layouts.of_index(self))
        if self._layout is _UNKNOWN:
            self._layout = layouts.of_index(self)
        return self._layout

    @layout.setter
    def layout(self, layout: ChunkLayout | None) -> None:
        """The layout a pass that creates or converts the index writes in."""
        self._layout = layout

    def read_only(self) -> None:
        """Refuse writes on this connection: a search only reads.

        (A memory map of the file was tried: it halves SQLite's time for a scan of every
        chunk, which is a small share of such a search, but the page faults of the scattered
        lookups of the chunk-state probe cost a selective search more than it saves.)
        """
        self.connection.execute("PRAGMA query_only = 1")
        self._kept = {}

    def kept(self, key: Hashable, compute: Callable[[], _T]) -> _T:
        """``compute()``, made once per generation of the index on a read-only connection
        (every commit of another connection starts one): what each search reads of the whole
        index (every file's row, the chunk-state probe, ...) is then shared by the searches
        of a process that keeps the index open, a server's, and costs them nothing."""
        if self._kept is None:
            return compute()
        generation = self.connection.execute("PRAGMA data_version").fetchone()[0]
        if generation != self._generation:
            self._kept.clear()
            self._generation = generation
        if key not in self._kept:
            self._kept[key] = compute()
        return self._kept[key]

    def attached(self, key: Hashable, make: Callable[[], _T]) -> _T:
        """``make()``, made once for the life of this handle and closed with it (when it has a
        ``close``): what reads the same file as this handle, another connection to it."""
        if key not in self._attached:
            self._attached[key] = make()
        return self._attached[key]

    def fetchone(self, sql: str) -> Any:
        """The first row of a statement without parameters, which reads the whole index (the
        module's chunk-state probe): kept for the generation."""
        return self.kept(("fetchone", sql), lambda: self.connection.execute(sql).fetchone())

    def fetchall(self, sql: str, parameters: Sequence[Any] = ()) -> list[Any]:
        return self.connection.execute(sql, parameters).fetchall()

    def rows(self, sql: str, parameters: Sequence[Any] = ()) -> Iterator[Any]:
        """The rows of one statement as they are stepped to, not all held at once."""
        return iter(self.connection.execute(sql, parameters))

    @contextmanager
    def transaction(self) -> Iterator[sqlite3.Cursor]:
        """A cursor inside one write transaction: committed at the end, rolled back on error.

        The transaction is begun explicitly, so that schema changes (which sqlite3 would
        otherwise run outside any transaction) roll back with the rest.
        """
        cursor = self.connection.cursor()
        cursor.execute("BEGIN IMMEDIATE")
        try:
            yield cursor
        except BaseException:
            self.connection.rollback()
            raise
        self.connection.commit()

    def close(self) -> None:
        # The handle's own connection last: the last one to close removes the journal files.
        for each in self._attached.values():
            getattr(each, "close", lambda: None)()
        self._attached.clear()
        self.connection.close()


def file_identity(path: Path) -> tuple[int, int] | None:
    """The device and inode of the file at ``path``, or None when there is none."""
    try:
        info = os.stat(path)
    except OSError:
        return None
    return info.st_dev, info.st_ino


def is_busy(error: sqlite3.Error) -> bool:
    """Whether the error is another connection's lock, which waiting it out would clear."""
    code = getattr(error, "sqlite_errorcode", None) or 0
    return (code & 0xFF) in (sqlite3.SQLITE_BUSY, sqlite3.SQLITE_LOCKED)
