"""Finding the first line of a chunk that can match, by one search over the chunk's whole text
instead of one per line: most chunks of a search hold no match at all."""

from __future__ import annotations

import re
from collections.abc import Callable

from velmora.query.pattern import Query
from velmora.query.plan import Plan

# The 0-based index of the first line of a chunk's text (its lines joined by LF) on which a
# match may start, or -1 when no line of it matches.
FirstLine = Callable[[str], int]


def first_line_finder(query: Query, plan: Plan) -> FirstLine | None:
    """A function that skips the lines of a chunk before the first that may match (a match
    in a line alone is a match in the chunk's text at the same place, and an earlier one would
    have been found first); None when that does not hold for the pattern."""
    pattern = query.pattern
    if pattern is None:
        needle = query.needle or ""
        if query.case_sensitive:
            return lambda text: _line_of(text, text.find(needle))

        def first_lowered(text: str) -> int:
            # Lower-casing keeps every LF, and no case rule looks past one.
            lowered = text.lower()
            return _line_of(lowered, lowered.find(needle))

        return first_lowered
    if not plan.line_bound:
        return None
    # With MULTILINE, ^ and $ match at each line's ends, as they do in the line alone.
    search = re.compile(pattern.pattern, pattern.flags | re.MULTILINE).search

    def first_searched(text: str) -> int:
        match = search(text)
        return -1 if match is None else _line_of(text, match.start())

    return first_searched


def _line_of(text: str, position: int) -> int:
    return -1 if position < 0 else text.count("\n", 0, position)
