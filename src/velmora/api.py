"""The public Python API: open a repository's index and search it, as the CLI and server do.

    from velmora.api import Repository
    from velmora.query.pattern import Query

    with Repository.open("path/in/repo") as repo:
        results, reason = repo.search(Query.parse("def main"), globs=["*.py"], after=2)
        for path, hits in results:
            for hit in hits:
                print(path, hit.line, hit.column + 1)
"""

from __future__ import annotations

import os
import zlib
from collections.abc import Callable, Iterator, Sequence
from functools import partial
from pathlib import Path
from types import TracebackType
from typing import TypeVar

from velmora import arguments
from velmora.query import file_types
from velmora.storage import chunk_counts, schema, symbol_store
from velmora.index import freshness
from velmora.output.line_format import FULL, Shape
from velmora.storage.database import Database
from velmora.query.language import Parsed
from velmora.query.pattern import Query, QueryError
from velmora.search.engine import Hit, Run, matching_globs, matching_lines, search
from velmora.search.reach import Reach
from velmora.storage.file_rows import FileRow, Files, Indexed, select_files
from velmora.storage import layouts
from velmora.utils.fsio import is_plain_relative, is_utf8, unescaped_name

__all__ = ["Hit", "Query", "Repository", "RepositoryError", "Run", "find_root"]

_T = TypeVar("_T")

# What a value of the wrong type or shape in a tampered index raises as it is read.
_DAMAGE = (zlib.error, UnicodeError, TypeError, ValueError, OverflowError)

# Ids of the files read from disk for names the index cannot hold: below those of files
# added since the last pass (-1, -2, ...).
_NOT_UTF8_IDS = -(1 << 31)
_IGNORE_FILES_SQL = (
    "SELECT path FROM files WHERE path GLOB '*.ignore' OR path GLOB '*.rgignore'"
)
_LISTED_SKIPPED_SQL = (
    "SELECT path FROM skipped WHERE reason IN ('binary', 'unreadable', 'too many lines')"
)

# What marks a repository's top directory, as git finds its own.
_ROOT_MARKERS = (".velmora", ".git")


class RepositoryError(Exception):
    """A repository, path or index that cannot be used; the message says why in one line."""


def find_root(path: str | os.PathLike[str] = ".") -> Path:
    """The repository holding ``path``: the nearest directory at or above it that holds
    ``.velmora/`` or ``.git/``, or ``path`` itself when none does."""
    start = _directory(path)
    return find_repository(start) or start


def find_repository(path: str | os.PathLike[str]) -> Path | None:
    """The nearest directory at or above the directory ``path`` that holds ``.velmora/`` or
    ``.git/``; None when none does."""
    start = _directory(path)
    for directory in (start, *start.parents):
        # lexists: a marker that is a symlink still marks the root, so that the index's
        # own refusal of it is reported rather than an index made somewhere else.
        if any(os.path.lexists(directory / marker) for marker in _ROOT_MARKERS):
            return directory
    return None


def _directory(path: str | os.PathLike[str]) -> Path:
    start = Path(path)
    try:
        start = start.resolve(strict=True)
    except (OSError, RuntimeError):
        raise RepositoryError(f"no such repository: {os.fspath(path)}") from None
    if not start.is_dir():
        raise RepositoryError(f"not a directory: {os.fspath(path)}")
    return start


class Repository:
    """A repository and its open index. One per thread: the index connection is not shared."""

    root: Path
    # Whether a search brings the index up to date itself when files changed; a server's
    # search processes leave that to the server, and read what it could not index from disk.
    updates_index = True

    def __init__(self, root: Path, db: Database) -> None:
        self.root = root
        self._db = db

    @classmethod
    def open(cls, path: str | os.PathLike[str] = ".", *, create: bool = True) -> Repository:
        """The repository holding ``path``; with ``create``, indexed first when it has no
        index yet (otherwise a missing index is a ``RepositoryError``)."""
        return cls.at(find_root(path), create=create)

    @classmethod
    def at(cls, root: Path, *, create: bool = True) -> Repository:
        """As ``open``, for a root that ``find_root`` gave: it is not looked for again."""
        db_path = schema.index_path(root)
        if not db_path.exists():
            if not create:
                raise RepositoryError(f"{root}: not indexed yet (run `velmora index`)")
            from velmora.index import build as indexer

            indexer.index(root, progress=False)
        db = schema.open_index(db_path)
        db.read_only()
        return cls(root, db)

    def search(
        self,
        query: Query | Parsed,
        *,
        globs: Sequence[str] = (),
        paths: Sequence[str] = (),
        types: Sequence[str] = (),
        before: int = 0,
        after: int = 0,
        max_count: int | None = None,
        refresh: bool = True,
        name: str | None = None,
        relevance: bool = False,
        invert: bool = False,
        multiline: bool = False,
        reach: Reach | None = None,
    ) -> tuple[Iterator[tuple[str, list[Hit]]], str | None]:
        """The matches file by file (paths relative to the root, sorted), and why the files
        were read from disk (None when they weren't).

        ``query`` is a ``Query``, or a parsed query of the search box's language
        (``query.language``): then the files it holds for come each with its lines that
        match a text term of it (none for a query of fields only), and ``name`` is the
        repository's name for repo: (default: the root directory's name).
        ``globs`` are gitignore-style ("!" excludes); ``paths`` limit the search to those
        files and directories, relative to the root; ``types`` to files of those types by
        name, as rg knows them ("py"; "!py" excludes); ``before``/``after`` add context
        lines; ``max_count`` bounds the matching lines per file. With ``refresh``, files
        changed since the index was written are taken as they are now. With ``relevance``
        the files come best first (``search.ranking``), once all are found. With ``invert``
        the lines that do not match are the hits; with ``multiline`` a regex may span lines.
        ``reach`` applies rg's switches over hidden and ignored files, depth and order.
        """
        before, after = arguments.count("before", before), arguments.count("after", after)
        if max_count is not None:
            max_count = arguments.count("max_count", max_count)
        if isinstance(query, Parsed):
            from velmora.search.evaluate import evaluate

            parsed, repo = query, name or self.root.name
            results, reason = self._searched(
                lambda files, from_disk: evaluate(
                    self._db, parsed, files, root=self.root, repo=repo, from_disk=from_disk,
                    before=before, after=after, max_count=max_count,
                ),
                query, globs, paths, types, refresh, reach,
            )
        else:
            results, reason = self._searched(
                lambda files, from_disk: search(
                    self._db, query, files, root=self.root, before=before, after=after,
                    max_count=max_count, from_disk=from_disk, invert=invert, multiline=multiline,
                ),
                query, globs, paths, types, refresh, reach,
            )
        if relevance:
            shown = query.shown_query() if isinstance(query, Parsed) else query
            results = self._ranked(results, shown)
        return results, reason

    def _ranked(
        self, results: Iterator[tuple[str, list[Hit]]], query: Query
    ) -> Iterator[tuple[str, list[Hit]]]:
        from velmora.search.ranking import ranked

        yield from ranked(results, query, partial(symbol_store.outline, self._db))

    def outline(self, path: str) -> list[tuple[str, str, int, str | None]]:
        """The definitions an indexed file makes, in the order of its lines, as (name, kind,
        line, scope)."""
        if not is_utf8(path):  # read from disk for its name: the index holds nothing of it
            return []
        return symbol_store.outline(self._db, path)

    def matching_lines(
        self,
        query: Query,
        *,
        globs: Sequence[str] = (),
        paths: Sequence[str] = (),
        types: Sequence[str] = (),
        refresh: bool = True,
        reach: Reach | None = None,
    ) -> tuple[Iterator[tuple[str, list[Run]]], str | None]:
        """As ``search`` without context or a limit, each file's matches as runs of its
        lines (``search.matching_lines``): the fast shape for printing them."""
        return self._searched(
            lambda files, from_disk: matching_lines(
                self._db, query, files, root=self.root, from_disk=from_disk
            ),
            query, globs, paths, types, refresh, reach,
        )

    @property
    def stores_frames(self) -> bool:
        """Whether the index keeps its chunks as frames that ``printed`` scans natively."""
        return self._db.layout is not None and self._db.layout.stores_frames

    def printed(
        self,
        query: Query,
        *,
        mode: str = "lines",
        shown: Callable[[str], str] = str,
        encoding: str = "utf-8",
        max_count: int | None = None,
        globs: Sequence[str] = (),
        paths: Sequence[str] = (),
        types: Sequence[str] = (),
        refresh: bool = True,
        reach: Reach | None = None,
        shape: Shape = FULL,
        color: bool = False,
    ) -> tuple[Iterator[bytes], str | None]:
        """A plain search (``search.native_scan.handles``) printed as the CLI prints it without
        context, encoded with the UTF-8 ``encoding``, a group of files at a time: each
        matching file's lines (mode "lines"), their count ("count") or its path ("files"),
        as ``shown`` shows it, laid out by ``shape`` (without ``replace``), in rg's colours
        with ``color``; the pieces go apart by ``native_scan.separator``. Scanned from the
        stored chunks on every core."""
        from velmora.search import native_scan

        if max_count is not None:
            max_count = arguments.count("max_count", max_count)
        if not isinstance(shape, Shape) or shape.replace is not None:
            raise TypeError("shape must be a Shape without replace")
        return self._searched(
            lambda files, from_disk: native_scan.printed(
                self._db, query, files, root=self.root, mode=mode, shown=shown, encoding=encoding,
                max_count=max_count, from_disk=from_disk, shape=shape, color=arguments.flag("color", color),
            ),
            query, globs, paths, types, refresh, reach,
        )

    def _searched(
        self,
        run: Callable[[Files, set[int]], tuple[Iterator[_T], str | None]],
        query: Query | Parsed, globs: Sequence[str], paths: Sequence[str], types: Sequence[str],
        refresh: bool, reach: Reach | None,
    ) -> tuple[Iterator[_T], str | None]:
        if not isinstance(query, (Query, Parsed)):
            raise TypeError(f"query must be a Query, not {type(query).__name__}")
        globs, paths, types = _limits(globs, paths, types)
        refresh = arguments.flag("refresh", refresh)
        try:
            matching_globs([], globs)  # a bad glob is the caller's mistake, found before any read
            files, from_disk, stale = self._files(globs, paths, types, refresh, reach)
            results, reason = run(files, from_disk)
        except (file_types.UnknownType, QueryError):
            raise  # the caller's mistake (a bad type name or glob), not the index's
        except _DAMAGE as error:
            raise self._damaged(error) from None
        return self._guarded(results), "; ".join(filter(None, (stale, reason))) or None

    def _files(
        self, globs: Sequence[str], paths: Sequence[str], types: Sequence[str], refresh: bool,
        reach: Reach | None,
    ) -> tuple[Indexed, set[int], str | None]:
        """The files to search, those of them to read from disk, and why."""
        def limit(files: list[FileRow]) -> list[FileRow]:
            return self._reached(_limited(files, globs, paths, types), paths, reach)

        if refresh:
            files, from_disk, stale = self._fresh(limit)
        else:
            files, from_disk, stale = Indexed(self._db, limit), set(), None
        odd = self._not_utf8_names()
        if odd:
            # Files whose names the index cannot hold as text are read from disk.
            rows = [FileRow(_NOT_UTF8_IDS - n, name, "text", None) for n, name in enumerate(odd)]
            files, from_disk = files.plus(rows), from_disk | {row.id for row in rows}
        return files, from_disk, stale

    def _not_utf8_names(self) -> list[str]:
        names = [unescaped_name(path) for (path,) in self._db.fetchall(
            "SELECT path FROM skipped WHERE reason = ?", (schema.NOT_UTF8,))]
        unsafe = [name for name in names if not is_plain_relative(name)]
        if unsafe:
            raise self._damaged(f"it holds the path {unsafe[0]!r}")
        return names

    def _reached(self, rows: list[FileRow], paths: Sequence[str], reach: Reach | None) -> list[FileRow]:
        if reach is None:
            return rows
        ignore_files = self._db.kept("ignore files", lambda: [
            path for (path,) in self._db.fetchall(_IGNORE_FILES_SQL)
        ])
        return reach.narrowed(self.root, rows, paths, ignore_files)

    def files(
        self, *, globs: Sequence[str] = (), paths: Sequence[str] = (), types: Sequence[str] = (),
        reach: Reach | None = None,
    ) -> list[tuple[str, int]]:
        """The indexed files that a search with these limits reads, as (path, size)."""
        globs, paths, types = _limits(globs, paths, types)
        size = self._db.kept("sizes", lambda: dict(self._db.fetchall("SELECT id, size FROM files")))
        rows = _limited(select_files(self._db), globs, paths, types)
        return [(row.path, size[row.id]) for row in self._reached(rows, paths, reach)]

    def listed(
        self, *, globs: Sequence[str] = (), paths: Sequence[str] = (), types: Sequence[str] = (),
        reach: Reach | None = None,
    ) -> list[str]:
        """The files a search with these limits would look at, binary ones included, as
        rg's ``--files`` lists them: those the index holds and those it left out as binary,
        unreadable or too long."""
        rows = select_files(self._db) + [
            FileRow(-1 - number, path, "", None)
            for number, (path,) in enumerate(self._db.fetchall(_LISTED_SKIPPED_SQL))
        ]
        return [row.path for row in self._reached(_limited(rows, globs, paths, types), paths, reach)]

    def _guarded(self, results: Iterator[_T]) -> Iterator[_T]:
        try:
            yield from results
        except _DAMAGE as error:
            raise self._damaged(error) from None

    def _damaged(self, why: object) -> RepositoryError:
        return RepositoryError(
            f"{self._db.db_path}: the index is damaged ({why}); run `velmora index --rebuild`"
        )

    def _fresh(
        self, limit: Callable[[list[FileRow]], list[FileRow]]
    ) -> tuple[Indexed, set[int], str | None]:
        """The files to search as the tree is now, those to read from disk, and why."""
        changes = freshness.check(self._db, self.root)
        # While another pass writes the index (or after one was interrupted), it is left
        # to that pass.
        problem: str | None = None
        if schema.get_meta(self._db, schema.PASS_MARK):
            problem = "an index pass is running or was interrupted (`velmora index` finishes it)"
        if not changes:
            if problem is None:
                freshness.record_listing(self._db.db_path, changes)
            return Indexed(self._db, limit), set(), None
        if problem is None:
            problem = (
                freshness.update(self._db.db_path, self.root, changes) if self.updates_index
                else "the server could not bring the index up to date"
            )
        if problem is None:
            return Indexed(self._db, limit), set(), None
        readable = freshness.text_files(self.root, [*changes.changed.values(), *changes.added])
        changed = {i for i, path in changes.changed.items() if path in readable}
        gone = changes.removed | changes.changed.keys() - changed
        added = [path for path in changes.added if path in readable]
        # Files the index does not hold get ids no indexed file has.
        rows = [FileRow(-1 - number, path, "text", None) for number, path in enumerate(added)]
        from_disk = changed | {row.id for row in rows}
        changed_count = len(changes.changed) + len(changes.removed) + len(changes.added)
        note = f"{changed_count} file(s) changed since the index was written, taken from disk: "
        return Indexed(self._db, limit, gone, rows), from_disk, note + problem

    def indexed_text(self, path: str) -> str:
        """The text of an indexed file, its lines joined by "\\n"; a ``KeyError`` for a path
        the index does not hold. The path is looked up in the index, never opened as given."""
        if not isinstance(path, str):
            raise TypeError(f"path must be a str, not {type(path).__name__}")
        if not is_plain_relative(path) or not is_utf8(path):
            raise KeyError(path)
        found = self._db.fetchall("SELECT id FROM files WHERE path = ?", (path,))
        if not found:
            raise KeyError(path)
        (file_id,) = found[0]
        try:
            source, reason = layouts.text_source(self._db, self.root, None, True)
            lines = source.lines(file_id, path)
            if reason is None:  # read from the index
                assert self._db.layout is not None
                chunk_counts.check_file(self._db, self._db.layout, file_id, len(lines))
            return "\n".join(lines)
        except _DAMAGE as error:
            raise self._damaged(error) from None

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


def _limits(
    globs: object, paths: object, types: object
) -> tuple[list[str], list[str], list[str]]:
    return (arguments.strings("globs", globs), arguments.strings("paths", paths),
            arguments.strings("types", types))


def _limited(
    files: list[FileRow],
    globs: Sequence[str],
    paths: Sequence[str],
    types: Sequence[str],
) -> list[FileRow]:
    files = matching_globs(files, globs)
    # The whole tree, which a search without a path asks for, needs no test per file.
    if paths and not any(limit.strip("/") in ("", ".") for limit in paths):
        files = [row for row in files if _under(row.path, paths)]
    of_type = file_types.matcher(types)
    if of_type is not None:
        files = [row for row in files if of_type(row.path)]
    return files


def _under(path: str, limits: Sequence[str]) -> bool:
    for limit in limits:
        limit = limit.strip("/")
        if path == limit or path.startswith(limit + "/"):
            return True
    return False

