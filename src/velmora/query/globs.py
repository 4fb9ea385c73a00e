"""Gitignore-style globs compiled: a bad one named when a user gave it, skipped (as git
skips it) when a .gitignore holds it."""

from __future__ import annotations

import re
from typing import TYPE_CHECKING

from velmora.query.pattern import QueryError

if TYPE_CHECKING:
    import pathspec


def given(globs: list[str]) -> pathspec.GitIgnoreSpec:
    """The matcher of the globs a user gave; a ``QueryError`` naming the first bad one."""
    # Imported here: it costs more start-up time than a selective search takes.
    import pathspec

    try:
        return pathspec.GitIgnoreSpec.from_lines(globs)
    except (ValueError, re.error):
        for glob in globs:
            if not _valid(glob):
                raise QueryError(f"invalid glob {glob!r}") from None
        raise


def ignore_file(lines: list[str]) -> pathspec.GitIgnoreSpec:
    """The matcher of a .gitignore's lines, without those git would not understand either."""
    import pathspec

    try:
        return pathspec.GitIgnoreSpec.from_lines(lines)
    except (ValueError, re.error):
        return pathspec.GitIgnoreSpec.from_lines([line for line in lines if _valid(line)])


def _valid(line: str) -> bool:
    import pathspec

    try:
        pathspec.GitIgnoreSpec.from_lines([line])
    except (ValueError, re.error):
        return False
    return True
