"""Ignore files' rules (.gitignore, .ignore, .rgignore), each directory's applying below it."""

from __future__ import annotations

from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from velmora.query.globs import Globs


class IgnoreRules:
    """The rules of a tree's ignore files, by the directory that holds them ("" the root)."""

    def __init__(self) -> None:
        self._matchers: dict[str, Globs] = {}
        self._directories: dict[str, bool] = {}

    def __bool__(self) -> bool:
        return bool(self._matchers)

    def add(self, base: str, lines: list[str]) -> None:
        """The rules of the ignore file(s) in the directory ``base``, later lines winning."""
        from velmora.query import globs

        # Lines git would not understand are skipped, as git skips them.
        self._matchers[base] = globs.ignore_file(lines)

    def ignored(self, rel: str, is_dir: bool) -> bool:
        """Whether the rules exclude ``rel`` itself: the deepest directory with a rule for
        it decides, as in git."""
        if not self._matchers:
            return False  # most trees: a search asks this of every file
        parts = rel.split("/")
        for depth in range(len(parts) - 1, -1, -1):
            matcher = self._matchers.get("/".join(parts[:depth]))
            if matcher is None:
                continue
            include = matcher.decides("/".join(parts[depth:]) + ("/" if is_dir else ""))
            if include is not None:
                return include
        return False

    def directory_excluded(self, path: str) -> bool:
        """Whether a directory above ``path`` is excluded (and so everything in it)."""
        cut = path.rfind("/")
        if cut <= 0 or not self._matchers:
            return False
        directory = path[:cut]
        known = self._directories.get(directory)
        if known is None:
            known = self.directory_excluded(directory) or self.ignored(directory, True)
            self._directories[directory] = known
        return known
