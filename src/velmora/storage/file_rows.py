"""The indexed files as a search takes them: one named row per file of the ``files`` table,
read only as far as the search asks."""

from __future__ import annotations

import json
from collections.abc import Callable, Collection, Iterable, Iterator
from typing import TYPE_CHECKING, NamedTuple


if TYPE_CHECKING:
    from velmora.storage.database import Database

# The index's paths that fsio.is_plain_relative refuses, found by SQLite: a check in Python
# would cost a call per indexed file.
_UNSAFE_PATH = (
    "(typeof(path) != 'text' OR path = '' OR path GLOB '/*' "
    "OR instr(path, char(0)) "
    "OR '/' || path || '/' GLOB '*/[.]/*' OR '/' || path || '/' GLOB '*/[.][.]/*' "
    "OR '/' || path || '/' GLOB '*//*')"
)
UNSAFE_PATH_SQL = f"SELECT path FROM files WHERE {_UNSAFE_PATH} LIMIT 1"

_COLUMNS = "SELECT id, path, language, NULL FROM files"
_COUNT = "SELECT COUNT(*) FROM files"
# The rows whose ids a statement's one parameter lists, as JSON.
_CHOSEN = "id IN (SELECT value FROM json_each(?))"


class FileRow(NamedTuple):
    """A file a search covers. To the module ``code_text`` it is the 4-tuple it calls a
    ``FileRow``, of which it reads the id alone."""

    id: int
    path: str  # relative to the repository's root, with "/" separators
    language: str
    sha1: str | None  # its text's hash where a reader asks for it; a search does not (None)


class UnsafePath(ValueError):
    """The index holds a path that does not name a file below the repository's root: it was
    tampered with."""

    def __init__(self, path: object) -> None:
        super().__init__(f"it holds the path {path!r}")


def on_disk_ids(db: Database) -> frozenset[int]:
    """The files whose text the index keeps on disk."""
    return db.kept("on disk", lambda: frozenset(
        file_id for (file_id,) in db.fetchall("SELECT id FROM files WHERE text_on_disk = 1")
    ))


def select_files(db: Database) -> list[FileRow]:
    """Every indexed file, by path."""
    make = FileRow._make
    return list(db.kept("files", lambda: tuple(make(row) for row in db.rows(f"{_COLUMNS} ORDER BY path"))))


class Files:
    """The files a search covers, by path: every one of them, or those among some ids."""

    def __iter__(self) -> Iterator[FileRow]:
        return iter(self.every())

    def every(self) -> list[FileRow]:
        raise NotImplementedError

    def among(self, ids: Collection[int]) -> list[FileRow]:
        """Those of the files whose ids are in ``ids``."""
        raise NotImplementedError


class Listed(Files):
    """Files a caller already holds as rows."""

    def __init__(self, rows: Iterable[FileRow]) -> None:
        self._rows = list(rows)

    def every(self) -> list[FileRow]:
        return self._rows

    def among(self, ids: Collection[int]) -> list[FileRow]:
        return [row for row in self._rows if row.id in ids]


def listed(files: Iterable[FileRow]) -> Files:
    """``files`` as ``Files``."""
    return files if isinstance(files, Files) else Listed(files)


class Indexed(Files):
    """The files of the index that ``limit`` keeps, read when asked for: a search that narrows
    to a few candidate files reads the rows of those alone.

    ``gone`` are ids of indexed files that are no longer there, ``added`` rows for files the
    index does not hold yet. Every path read is checked first (``UnsafePath``).
    """

    def __init__(
        self,
        db: Database,
        limit: Callable[[list[FileRow]], list[FileRow]],
        gone: Collection[int] = frozenset(),
        added: Iterable[FileRow] = (),
    ) -> None:
        self._db, self._limit, self._gone, self._added = db, limit, gone, list(added)

    def plus(self, added: Iterable[FileRow]) -> Indexed:
        """These files and ``added`` besides."""
        return Indexed(self._db, self._limit, self._gone, [*self._added, *added])

    def every(self) -> list[FileRow]:
        return self._applied(self._checked_rows(), self._added)

    def among(self, ids: Collection[int]) -> list[FileRow]:
        if len(ids) * 2 >= self._db.kept("file count", lambda: self._db.fetchall(_COUNT)[0][0]):
            # Most of the index (a common word): every row, read once for the index's
            # generation (a server's searches share it), costs less than listing the ids.
            wanted = ids if isinstance(ids, (set, frozenset)) else set(ids)
            rows = [row for row in self._checked_rows() if row.id in wanted]
            return self._applied(rows, [row for row in self._added if row.id in wanted])
        chosen = (json.dumps(list(ids)),)
        unsafe = self._db.fetchall(f"SELECT path FROM files WHERE {_CHOSEN} AND {_UNSAFE_PATH} LIMIT 1", chosen)
        if unsafe:
            raise UnsafePath(unsafe[0][0])
        make = FileRow._make
        rows = [make(row) for row in self._db.rows(f"{_COLUMNS} WHERE {_CHOSEN} ORDER BY path", chosen)]
        return self._applied(rows, [row for row in self._added if row.id in ids])

    def _checked_rows(self) -> list[FileRow]:
        unsafe = self._db.kept("unsafe paths", lambda: self._db.fetchall(UNSAFE_PATH_SQL))
        if unsafe:
            raise UnsafePath(unsafe[0][0])
        return select_files(self._db)

    def _applied(self, rows: list[FileRow], added: list[FileRow]) -> list[FileRow]:
        if self._gone:
            rows = [row for row in rows if row.id not in self._gone]
        if added:
            rows = sorted(rows + added, key=lambda row: row.path)
        return self._limit(rows)
