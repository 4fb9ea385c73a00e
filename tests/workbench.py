"""A small repository on disk and its indexes, for the leak and bad-input tests.

The repository holds a chunked file, a file whose text the index keeps on disk, a file with
a NUL, a file over the size that is read in slices, a symbolic link, a directory and a file
whose name is not UTF-8. Its indexes are real SQLite databases: one per chunk layout, one
in which a file lacks its chunks, one without a chunk table, one without any table, and one
that a second connection holds under an exclusive lock.
"""

from __future__ import annotations

import os
import sqlite3
from pathlib import Path
from typing import Any

import model
from velmora.storage import chunk_store

TEXTS = {
    1: ("f1.py", "Alpha\n\u0130 beta \u212a\nalpha key\r\n" * 50),
    2: ("f2.json", "key on disk\n"),
    3: ("f3.txt", "x\x00y key\nlast"),
}
ON_DISK = {2}
NOT_UTF8_NAME = b"\xff\xfe name.txt"
BIG = "big.txt"  # over the size from which a file is read in slices
FILES = [(file_id, path, "text", None) for file_id, (path, _) in TEXTS.items()]


class Raises:
    """An object whose every use as a pattern, truth value or key raises."""

    def search(self, line: str) -> Any:
        raise RuntimeError("search failed")

    def __bool__(self) -> bool:
        raise RuntimeError("no truth")

    def __eq__(self, other: object) -> bool:
        raise RuntimeError("no equality")

    __hash__ = object.__hash__


class FoundAt:
    """A pattern whose match starts where it is told (any object)."""

    def __init__(self, start: Any) -> None:
        self._start = start

    def search(self, line: str) -> Any:
        return self

    def start(self) -> Any:
        return self._start


class Rows:
    """A database handle that answers with given rows: `rows` for fetchall, `one` for
    fetchone. An exception class is raised instead (a new instance each time: a raised one
    keeps its traceback); a callable is called for what to give."""

    db_path = Path("/r/x/y/index.db")

    def __init__(self, rows: Any = (), one: Any = None) -> None:
        self.rows = rows
        self.one = one

    @staticmethod
    def _give(answer: Any) -> Any:
        if isinstance(answer, type) and issubclass(answer, BaseException):
            raise answer("the database is gone")
        return answer() if callable(answer) else answer

    def fetchall(self, sql: str, parameters: Any = ()) -> Any:
        return self._give(self.rows)

    def fetchone(self, sql: str) -> Any:
        return self._give(self.one)


class Selected:
    """A migration's cursor over an index with code_chunks whose selection gives `rows`;
    what it is asked to change is dropped."""

    def __init__(self, rows: Any) -> None:
        self.rows = rows

    def execute(self, *args: Any) -> Selected:
        return self

    def executemany(self, *args: Any) -> Selected:
        return self

    def fetchone(self) -> Any:
        return (1,)

    def fetchall(self) -> Any:
        return self.rows


class OneCursorDatabase:
    """The host's Database, running every statement on one cursor.

    The host's own handle makes a cursor per statement, and sqlite3 prunes its list of
    cursors every 200 of them: the blocks that list holds then rise and fall with no leak
    at all, which is noise to a leak check.
    """

    def __init__(self, db_path: Path, *, timeout: float = 5.0) -> None:
        self.db_path = db_path
        self.connection = sqlite3.connect(db_path, timeout=timeout)
        self.cursor = self.connection.cursor()

    def fetchone(self, sql: str) -> Any:
        return self.cursor.execute(sql).fetchone()

    def fetchall(self, sql: str, parameters: Any = ()) -> list[Any]:
        return self.cursor.execute(sql, parameters).fetchall()

    def close(self) -> None:
        self.cursor.close()
        self.connection.close()


class Workbench:
    def __init__(self, root: Path) -> None:
        self.root = root
        self.repo = root / "repo"
        self.repo.mkdir()
        for path, text in TEXTS.values():
            (self.repo / path).write_bytes(text.encode("utf-8"))
        (self.repo / BIG).write_bytes(b"line of a large file\r\n" * 200_000)
        (self.repo / "link").symlink_to(self.repo / "f1.py")
        (self.repo / "dir").mkdir()
        (self.repo / os.fsdecode(NOT_UTF8_NAME)).write_bytes(b"caf\xe9 key\n")
        self.databases: list[OneCursorDatabase] = []
        self.index = {store: self.build(store, store) for store in ("code_chunks", "compressed")}
        self.unchunked = self.build("unchunked", "code_chunks", skip={1})
        self.no_chunk_table = self.build("no_chunk_table", None)
        self.bare = self.open("bare")
        self.locked = self.build("locked", "code_chunks", timeout=0)
        self.holder = sqlite3.connect(self.locked.db_path, isolation_level=None)
        self.holder.execute("BEGIN EXCLUSIVE")

    def open(self, name: str, *, timeout: float = 5.0) -> OneCursorDatabase:
        """A database at repo/<name>/y/index.db: the repository is its root."""
        path = self.repo / name / "y" / "index.db"
        path.parent.mkdir(parents=True)
        db = OneCursorDatabase(path, timeout=timeout)
        self.databases.append(db)
        return db

    def build(
        self, name: str, store: str | None, *, skip: set[int] = frozenset(), timeout: float = 5.0
    ) -> OneCursorDatabase:
        """An index of TEXTS in the layout `store` (None: the files table alone)."""
        db = self.open(name, timeout=timeout)
        with db.connection:
            db.cursor.execute(
                "CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT, language TEXT,"
                " text_on_disk INTEGER NOT NULL DEFAULT 0)"
            )
            if store is not None:
                chunk_store.create_tables(db.cursor, store)
            for file_id, (path, text) in TEXTS.items():
                on_disk = file_id in ON_DISK
                db.cursor.execute("INSERT INTO files VALUES (?, ?, 'text', ?)", (file_id, path, int(on_disk)))
                if store is not None and not on_disk and file_id not in skip:
                    chunk_store.store_chunks(db.cursor, store, file_id, model.code_chunks(text))
        return db

    def close(self) -> None:
        self.holder.rollback()
        self.holder.close()
        for db in self.databases:
            db.close()
