"""Shared fixtures: both implementations, real index databases and recording fakes."""

from __future__ import annotations

import importlib
import sqlite3
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

import model
from velmora.db import Database
from velmora.storage import chunk_store

IMPLS = ("model", "native")
NATIVE = "velmora.storage.code_text"
STRIDE = chunk_store.CHUNK_STRIDE


@pytest.fixture(params=IMPLS)
def impl(request: pytest.FixtureRequest) -> Any:
    """The module under test: the plain-Python model, or the native extension."""
    if request.param == "model":
        return model
    # Imported here so that the model's half runs while the extension is not built; a missing
    # extension fails every native test.
    return importlib.import_module(NATIVE)


# --- Real index databases ------------------------------------------------------------------


class Index:
    """A real SQLite index at ``root/x/y/index.db``, ``root`` being the repository.

    It has the ``files`` table and, unless asked not to, the ``code_chunks`` table. The files
    and chunks added are committed at once. Texts stored in it must not hold lone surrogates:
    sqlite3 cannot bind them.
    """

    def __init__(self, root: Path, *, code_chunks: bool = True) -> None:
        self.root = root
        self.db_path = root / "x" / "y" / "index.db"
        self.db_path.parent.mkdir(parents=True)
        self.db = Database(self.db_path)
        self.connection = self.db.connection
        with self.connection:
            self.connection.execute(
                "CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT, language TEXT,"
                " text_on_disk INTEGER NOT NULL DEFAULT 0)"
            )
            if code_chunks:
                self.connection.execute(chunk_store.CODE_CHUNKS_DDL)

    def add_file(
        self,
        file_id: int,
        path: str | None = None,
        *,
        language: str = "python",
        text_on_disk: int = 0,
    ) -> str:
        """A ``files`` row; gives its path (``f<id>.txt`` when none is given)."""
        path = f"f{file_id}.txt" if path is None else path
        with self.connection:
            self.connection.execute(
                "INSERT INTO files (id, path, language, text_on_disk) VALUES (?, ?, ?, ?)",
                (file_id, path, language, text_on_disk),
            )
        return path

    def add_chunk(
        self, rowid: int, start_line: int, end_line: int, text: str, exact: str | None = None
    ) -> None:
        """One raw ``code_chunks`` row."""
        with self.connection:
            self.connection.execute(
                "INSERT INTO code_chunks (rowid, start_line, end_line, text, exact)"
                " VALUES (?, ?, ?, ?, ?)",
                (rowid, start_line, end_line, text, exact),
            )

    def store_text(self, file_id: int, text: str) -> list[tuple[int, int, str]]:
        """Store a file's text as the indexer does: its chunks at consecutive row ids from
        ``file_id * CHUNK_STRIDE``, each NUL held as a space in ``text`` and the exact text in
        ``exact`` where that differs. Gives the chunks."""
        chunks = model.code_chunks(text)
        for offset, (start_line, end_line, chunk) in enumerate(chunks):
            searchable = chunk.replace("\x00", " ")
            exact = chunk if searchable != chunk else None
            self.add_chunk(file_id * STRIDE + offset, start_line, end_line, searchable, exact)
        return chunks

    def write(self, path: str, content: str | bytes) -> Path:
        """Write a file of the repository; text is written as UTF-8."""
        location = self.root / path
        location.parent.mkdir(parents=True, exist_ok=True)
        if isinstance(content, str):
            content = content.encode("utf-8", errors="surrogatepass")
        location.write_bytes(content)
        return location

    def add_indexed(
        self,
        file_id: int,
        text: str,
        path: str | None = None,
        *,
        language: str = "python",
        on_disk: bool = False,
    ) -> str:
        """A file as a finished index pass leaves it: on disk, in ``files``, and in chunks
        unless its text is kept on disk. Gives its path."""
        path = self.add_file(file_id, path, language=language, text_on_disk=int(on_disk))
        self.write(path, text)
        if not on_disk:
            self.store_text(file_id, text)
        return path

    def chunk_rowids(self) -> list[int]:
        return [row[0] for row in self.connection.execute("SELECT rowid FROM code_chunks ORDER BY rowid")]

    def flags(self) -> dict[int, int]:
        return dict(self.connection.execute("SELECT id, text_on_disk FROM files"))


@pytest.fixture
def db_factory(tmp_path: Path) -> Iterator[Callable[..., Index]]:
    """Makes real indexes: ``db_factory(name="repo", code_chunks=True)``."""
    made: list[Index] = []

    def make(name: str = "repo", *, code_chunks: bool = True) -> Index:
        index = Index(tmp_path / name, code_chunks=code_chunks)
        made.append(index)
        return index

    yield make
    for index in made:
        index.db.close()


@pytest.fixture
def index(db_factory: Callable[..., Index]) -> Index:
    return db_factory()


# --- Recording fakes -----------------------------------------------------------------------

_MISSING = object()


class RecordingCursor:
    """Passes every call on to a real cursor and records it.

    ``calls`` holds ("execute", sql, params), ("executemany", sql, [params, ...]),
    ("fetchone", row) and ("fetchall", rows); params are tuples, or None when the statement
    was run without them.
    """

    def __init__(self, cursor: sqlite3.Cursor) -> None:
        self._cursor = cursor
        self.calls: list[tuple[Any, ...]] = []

    def execute(self, sql: str, parameters: Any = _MISSING) -> RecordingCursor:
        if parameters is _MISSING:
            self.calls.append(("execute", sql, None))
            self._cursor.execute(sql)
        else:
            self.calls.append(("execute", sql, tuple(parameters)))
            self._cursor.execute(sql, parameters)
        return self

    def executemany(self, sql: str, seq_of_parameters: Any) -> RecordingCursor:
        batch = [tuple(parameters) for parameters in seq_of_parameters]
        self.calls.append(("executemany", sql, batch))
        self._cursor.executemany(sql, batch)
        return self

    def fetchone(self) -> Any:
        row = self._cursor.fetchone()
        self.calls.append(("fetchone", row))
        return row

    def fetchall(self) -> list[Any]:
        rows = self._cursor.fetchall()
        self.calls.append(("fetchall", rows))
        return rows

    def statements(self) -> list[tuple[Any, ...]]:
        """The execute and executemany calls alone."""
        return [call for call in self.calls if call[0] in ("execute", "executemany")]


class FakeDatabase:
    """A ``Database`` that records every call and answers from a real one, or from scripts.

    ``calls`` holds ("fetchone", sql) and ("fetchall", sql, params), params a tuple, or None
    when ``fetchall`` was called with the statement alone. Without ``real``, ``one`` is what
    ``fetchone`` gives and ``rows`` what ``fetchall`` gives (either may be a callable taking
    the sql and the params).
    """

    def __init__(
        self,
        db_path: Path | str = "/r/x/y/index.db",
        *,
        real: Database | None = None,
        one: Any = None,
        rows: Any = (),
    ) -> None:
        self._real = real
        self.db_path = real.db_path if real is not None else Path(db_path)
        self._one = one
        self._rows = rows
        self.calls: list[tuple[Any, ...]] = []

    def fetchone(self, sql: str) -> Any:
        self.calls.append(("fetchone", sql))
        if self._real is not None:
            return self._real.fetchone(sql)
        return self._one(sql) if callable(self._one) else self._one

    def fetchall(self, sql: str, parameters: Any = _MISSING) -> Any:
        params = None if parameters is _MISSING else tuple(parameters)
        self.calls.append(("fetchall", sql, params))
        if self._real is not None:
            return self._real.fetchall(sql, () if params is None else params)
        if callable(self._rows):
            return self._rows(sql, params)
        return [list(row) for row in self._rows]


class ChunkStoreStub:
    """Stands in for the compressed layout's functions of ``chunk_store`` and records calls.

    ``rows`` is what ``matching_rows`` gives, ``file_rows_result`` what ``file_rows`` gives;
    ``calls`` holds (name, args, kwargs).
    """

    TABLE = "chunk_blobs"

    def __init__(self) -> None:
        self.calls: list[tuple[str, tuple[Any, ...], dict[str, Any]]] = []
        self.rows: list[Any] = []
        self.file_rows_result: list[Any] = []

    def trigram_query(self, *args: Any, **kwargs: Any) -> Any:
        self.calls.append(("trigram_query", args, kwargs))
        return ("trigram", args[0] if args else kwargs.get("needle"))

    def matching_rows(self, *args: Any, **kwargs: Any) -> Any:
        self.calls.append(("matching_rows", args, kwargs))
        return iter([tuple(row) for row in self.rows])

    def file_rows(self, *args: Any, **kwargs: Any) -> Any:
        self.calls.append(("file_rows", args, kwargs))
        return [tuple(row) for row in self.file_rows_result]

    def named(self, name: str) -> list[tuple[tuple[Any, ...], dict[str, Any]]]:
        return [(args, kwargs) for called, args, kwargs in self.calls if called == name]


@pytest.fixture
def compressed(monkeypatch: pytest.MonkeyPatch) -> ChunkStoreStub:
    """Installs a ``ChunkStoreStub`` on ``chunk_store`` (its table named ``chunk_blobs``)."""
    stub = ChunkStoreStub()
    monkeypatch.setattr(chunk_store, "COMPRESSED_TABLE", stub.TABLE, raising=False)
    for name in ("trigram_query", "matching_rows", "file_rows"):
        monkeypatch.setattr(chunk_store, name, getattr(stub, name), raising=False)
    return stub
