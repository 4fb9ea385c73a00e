"""A search of a tree that has no index, read from its files as they are: nothing is written."""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from pathlib import Path

from velmora.api import RepositoryError
from velmora.query.language import Parsed
from velmora.query.pattern import Query
from velmora.search import engine
from velmora.search.engine import Hit, Run, matching_globs
from velmora.search.reach import Reach
from velmora.storage.file_rows import FileRow


class DirectTree:
    """What ``Repository`` offers a search, for the files below ``root`` found on disk."""

    def __init__(self, root: Path) -> None:
        self.root = root

    def _rows(
        self, globs: Sequence[str], paths: Sequence[str], types: Sequence[str], reach: Reach | None
    ) -> list[FileRow]:
        from velmora.query import file_types

        rows = matching_globs((reach or Reach()).walk(self.root, paths), globs)
        of_type = file_types.matcher(types)
        return rows if of_type is None else [row for row in rows if of_type(row.path)]

    def search(
        self, query: Query | Parsed, *, globs: Sequence[str] = (), paths: Sequence[str] = (),
        types: Sequence[str] = (), before: int = 0, after: int = 0,
        max_count: int | None = None, refresh: bool = True, invert: bool = False,
        multiline: bool = False, reach: Reach | None = None, relevance: bool = False,
    ) -> tuple[Iterator[tuple[str, list[Hit]]], str | None]:
        """As ``Repository.search``; without an index to rank by, ``relevance`` keeps the
        files in path order."""
        if isinstance(query, Parsed):
            raise RepositoryError(
                f"{self.root}: a --query is answered from an index (`velmora index {self.root}`)"
            )
        rows = self._rows(globs, paths, types, reach)
        return engine.search(
            None, query, rows, root=self.root, before=before, after=after, max_count=max_count,
            invert=invert, multiline=multiline,
        )

    def matching_lines(
        self, query: Query, *, globs: Sequence[str] = (), paths: Sequence[str] = (),
        types: Sequence[str] = (), refresh: bool = True, reach: Reach | None = None,
    ) -> tuple[Iterator[tuple[str, list[Run]]], str | None]:
        return engine.matching_lines(
            None, query, self._rows(globs, paths, types, reach), root=self.root
        )

    def files(
        self, *, globs: Sequence[str] = (), paths: Sequence[str] = (), types: Sequence[str] = (),
        reach: Reach | None = None,
    ) -> list[tuple[str, int]]:
        sizes = []
        for row in self._rows(globs, paths, types, reach):
            try:
                sizes.append((row.path, (self.root / row.path).lstat().st_size))
            except OSError:
                continue
        return sizes

    def listed(
        self, *, globs: Sequence[str] = (), paths: Sequence[str] = (), types: Sequence[str] = (),
        reach: Reach | None = None,
    ) -> list[str]:
        return [row.path for row in self._rows(globs, paths, types, reach)]

    def close(self) -> None:
        pass

    def __enter__(self) -> DirectTree:
        return self

    def __exit__(self, *exc_info: object) -> None:
        pass
