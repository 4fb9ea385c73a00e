"""Gitignore-style globs compiled: a bad one named when a user gave it, skipped (as git
skips it) when a .gitignore holds it."""

from __future__ import annotations

import re
from typing import TYPE_CHECKING

from velmora.query.pattern import QueryError
from velmora.utils import fsio

if TYPE_CHECKING:
    import pathspec


class Globs:
    """Compiled globs. pathspec's fastest backend (RE2) takes UTF-8 alone: a path that is no
    UTF-8 (a file name kept with surrogate escapes) is matched by Python's re instead."""

    def __init__(self, lines: list[str]) -> None:
        import pathspec

        self._lines = lines
        self._fast = pathspec.GitIgnoreSpec.from_lines(lines)
        self._escaped: pathspec.GitIgnoreSpec | None = None

    def decides(self, path: str) -> bool | None:
        """Whether the last glob that matches ``path`` (or a directory above it) takes it in
        (True) or leaves it out (False, a "!" glob); None when none matches."""
        return self._spec(path).check_file(path).include

    def covers(self, path: str) -> bool:
        """Whether the globs take in ``path`` or a directory above it, as .gitignore does."""
        return self._spec(path).match_file(path)

    def names(self, path: str) -> bool:
        """Whether a glob matches ``path`` itself: as in rg, a glob that matches a directory
        picks none of the files in it."""
        for pattern in self._fast.patterns:
            found = pattern.regex.match(path) if pattern.regex is not None else None
            if found is not None and found.groupdict().get("ps_d") is None:
                return True
        return False

    def _spec(self, path: str) -> pathspec.GitIgnoreSpec:
        if path.isascii() or fsio.is_utf8(path):
            return self._fast
        if self._escaped is None:
            import pathspec

            self._escaped = pathspec.GitIgnoreSpec.from_lines(self._lines, backend="simple")
        return self._escaped


def given(globs: list[str]) -> Globs:
    """The globs a user gave (rg's ``{a,b}`` alternatives spelt out); a ``QueryError``
    naming the first bad one."""
    lines = []
    for glob in globs:
        spelt = _alternatives(glob)
        if spelt is None or not all(_valid(line) for line in spelt):
            raise QueryError(f"invalid glob {glob!r}")
        lines += spelt
    return Globs(lines)


def ignore_file(lines: list[str]) -> Globs:
    """The globs of a .gitignore's lines, without those git would not understand either."""
    try:
        return Globs(lines)
    except (ValueError, re.error):
        return Globs([line for line in lines if _valid(line)])


def _alternatives(glob: str) -> list[str] | None:
    """The globs that ``glob``'s first group of alternatives (``{a,b}``) spells, each spelt
    out in turn; None for an unclosed ``[`` or ``{``."""
    depth, opened, in_class = 0, -1, False
    commas: list[int] = []
    index = 0
    while index < len(glob):
        char = glob[index]
        if char == "\\":
            index += 2
            continue
        if in_class:
            in_class = char != "]" or glob[index - 1] == "["
        elif char == "[":
            in_class = True
        elif char == "{":
            depth += 1
            opened = index if depth == 1 else opened
        elif char == "}" and depth:
            depth -= 1
            if depth == 0:
                head, body, tail = glob[:opened], glob[opened + 1 : index], glob[index + 1 :]
                parts = [body[low + 1 : high] for low, high in zip([-1, *commas], [*commas, len(body)])]
                spelt = [_alternatives(head + part + tail) for part in parts]
                return None if None in spelt else [line for lines in spelt for line in lines or []]
        elif char == "," and depth == 1:
            commas.append(index - opened - 1)
        index += 1
    return None if depth or in_class else [glob]


def _valid(line: str) -> bool:
    import pathspec

    try:
        pathspec.GitIgnoreSpec.from_lines([line])
    except (ValueError, re.error):
        return False
    return True
