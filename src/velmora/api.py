"""The public Python API: open a repository's index and search it, as the CLI and server do.

    from velmora.api import Repository
    from velmora.search import Query

    with Repository.open("path/in/repo") as repo:
        results, reason = repo.search(Query.parse("def main"), globs=["*.py"], after=2)
        for path, hits in results:
            for hit in hits:
                print(path, hit.line, hit.column + 1)
"""

from __future__ import annotations

import os
from collections.abc import Iterator, Sequence
from pathlib import Path
from types import TracebackType

from velmora import file_types, schema
from velmora.db import Database
from velmora.search import Hit, Query, search, select_files
from velmora.storage import chunk_store, code_text

__all__ = ["Hit", "Query", "Repository", "RepositoryError", "find_root"]

# What marks a repository's top directory, as git finds its own.
_ROOT_MARKERS = (".velmora", ".git")


class RepositoryError(Exception):
    """A repository, path or index that cannot be used; the message says why in one line."""


def find_root(path: str | os.PathLike[str] = ".") -> Path:
    """The repository holding ``path``: the nearest directory at or above it that holds
    ``.velmora/`` or ``.git/``, or ``path`` itself when none does."""
    start = Path(path)
    try:
        start = start.resolve(strict=True)
    except (OSError, RuntimeError):
        raise RepositoryError(f"no such repository: {os.fspath(path)}") from None
    if not start.is_dir():
        raise RepositoryError(f"not a directory: {os.fspath(path)}")
    for directory in (start, *start.parents):
        # lexists: a marker that is a symlink still marks the root, so that the index's
        # own refusal of it is reported rather than an index made somewhere else.
        if any(os.path.lexists(directory / marker) for marker in _ROOT_MARKERS):
            return directory
    return start


def safe_index_path(path: object) -> bool:
    """Whether a path read from the index stays inside the repository: relative, with
    "/" separators, no "." or ".." component and no NUL."""
    if not isinstance(path, str) or not path or "\0" in path or "\\" in path:
        return False
    return not path.startswith("/") and all(
        part not in ("", ".", "..") for part in path.split("/")
    )


class Repository:
    """A repository and its open index. One per thread: the index connection is not shared."""

    root: Path

    def __init__(self, root: Path, db: Database) -> None:
        self.root = root
        self._db = db

    @classmethod
    def open(cls, path: str | os.PathLike[str] = ".", *, create: bool = True) -> Repository:
        """The repository holding ``path``; with ``create``, indexed first when it has no
        index yet (otherwise a missing index is a ``RepositoryError``)."""
        root = find_root(path)
        db_path = schema.index_path(root)
        if not db_path.exists():
            if not create:
                raise RepositoryError(f"{root}: not indexed yet (run `velmora index`)")
            from velmora import indexer

            indexer.index(root, progress=False)
        db = schema.open_index(db_path)
        db.read_only()
        return cls(root, db)

    def search(
        self,
        query: Query,
        *,
        globs: Sequence[str] = (),
        paths: Sequence[str] = (),
        types: Sequence[str] = (),
        before: int = 0,
        after: int = 0,
        max_count: int | None = None,
        refresh: bool = True,
    ) -> tuple[Iterator[tuple[str, list[Hit]]], str | None]:
        """The matches file by file (paths relative to the root, sorted), and why the files
        were read from disk (None when they weren't).

        ``globs`` are gitignore-style ("!" excludes); ``paths`` limit the search to those
        files and directories, relative to the root; ``types`` to files of those types by
        name, as rg knows them ("py"; "!py" excludes); ``before``/``after`` add context
        lines; ``max_count`` bounds the matching lines per file. With ``refresh``, files
        changed since the index was written are taken as they are now.
        """
        if refresh:
            self.refresh()
        files = self._selected(globs, paths, types)
        return search(
            self._db, query, files, before=before, after=after, max_count=max_count
        )

    def files(
        self, *, globs: Sequence[str] = (), paths: Sequence[str] = (), types: Sequence[str] = ()
    ) -> list[tuple[str, int]]:
        """The indexed files that a search with these limits reads, as (path, size)."""
        size = dict(self._db.fetchall("SELECT id, size FROM files"))
        return [(row[1], size[row[0]]) for row in self._selected(globs, paths, types)]

    def _selected(
        self, globs: Sequence[str], paths: Sequence[str], types: Sequence[str]
    ) -> list[code_text.FileRow]:
        files = select_files(self._db, globs)
        if paths:
            files = [row for row in files if _under(row[1], paths)]
        of_type = file_types.matcher(types)
        if of_type is not None:
            files = [row for row in files if of_type(row[1])]
        return files

    def refresh(self) -> None:
        """Bring the index up to date with the files as they are now."""
        from velmora import indexer

        indexer.index(self.root, progress=False)

    def indexed_text(self, path: str) -> str:
        """The text of an indexed file, its lines joined by "\\n"; a ``KeyError`` for a path
        the index does not hold. The path is looked up in the index, never opened as given."""
        if not safe_index_path(path):
            raise KeyError(path)
        rows = self._db.fetchall(
            "SELECT id, path, language, NULL FROM files WHERE path = ?", (path,)
        )
        if not rows:
            raise KeyError(path)
        row = rows[0]
        source, _ = code_text.text_source(
            self._db, [row], None, True, store=chunk_store.layout(self._db)
        )
        return "\n".join(source.lines(row[0], row[1]))

    def close(self) -> None:
        self._db.close()

    def __enter__(self) -> Repository:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        traceback: TracebackType | None,
    ) -> None:
        self.close()


def _under(path: str, limits: Sequence[str]) -> bool:
    for limit in limits:
        limit = limit.strip("/")
        if limit in ("", ".") or path == limit or path.startswith(limit + "/"):
            return True
    return False

