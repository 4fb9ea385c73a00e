"""Finding the first line of a chunk that can match, by one search over the chunk's whole text
instead of one per line: most chunks of a search hold no match at all."""

from __future__ import annotations

import re
from collections.abc import Callable

# The 0-based index of the first line of a chunk's text (its lines joined by LF) on which a
# match may start, or -1 when no line of it matches.
FirstLine = Callable[[str], int]

# Anchors that hold at a line's ends in a chunk's text (read with re.MULTILINE) wherever they
# hold in the line alone; \A and \Z do not, nor do lookarounds, which see the lines around.
_LINE_ANCHORS = {
    "AT_BEGINNING", "AT_BEGINNING_LINE", "AT_END", "AT_END_LINE", "AT_BOUNDARY", "AT_NON_BOUNDARY"
}


def first_line_finder(
    needle: str | None, pattern: re.Pattern[str] | None, case_sensitive: bool
) -> FirstLine | None:
    """A function that skips the lines of a chunk before the first that may match (a match
    in a line alone is a match in the chunk's text at the same place, and an earlier one would
    have been found first); None when that does not hold for the pattern."""
    if pattern is None:
        needle = needle or ""
        if case_sensitive:
            return lambda text: _line_of(text, text.find(needle))

        def first_lowered(text: str) -> int:
            # Lower-casing keeps every LF, and no case rule looks past one.
            lowered = text.lower()
            return _line_of(lowered, lowered.find(needle))

        return first_lowered
    # Imported here: RE2 costs a plain search a fifth of its start-up.
    from velmora.query import prefilter as regex_prefilter

    widened = regex_prefilter.widened_search(pattern)
    if widened is not None:

        def first_widened(text: str) -> int:
            data = text.encode()
            position = widened(data)
            return -1 if position < 0 else data.count(b"\n", 0, position)

        return first_widened
    if not _sees_only_its_line(pattern):
        return None
    # With MULTILINE, ^ and $ match at each line's ends, as they do in the line alone.
    search = re.compile(pattern.pattern, pattern.flags | re.MULTILINE).search

    def first_searched(text: str) -> int:
        match = search(text)
        return -1 if match is None else _line_of(text, match.start())

    return first_searched


def _line_of(text: str, position: int) -> int:
    return -1 if position < 0 else text.count("\n", 0, position)


def _sees_only_its_line(pattern: re.Pattern[str]) -> bool:
    """Whether the pattern has neither \\A, \\Z nor a lookaround wider than one character
    that is never a line feed (as ``(?<!\\w)`` is: it sees the LF beyond a line's end in a
    chunk as it sees nothing beyond the line alone)."""
    from re import _parser  # type: ignore[attr-defined]

    try:
        tree = _parser.parse(pattern.pattern, pattern.flags)
    except (re.error, OverflowError, RecursionError):
        return False
    return _items_see_only_their_line(tree)


def _items_see_only_their_line(items) -> bool:
    for op, arg in items:
        op = str(op)
        if op == "AT":
            if str(arg) not in _LINE_ANCHORS:
                return False
        elif op in ("ASSERT", "ASSERT_NOT"):
            if not _one_char_but_newline(arg[1]):
                return False
        elif op == "SUBPATTERN":
            if not _items_see_only_their_line(arg[3]):
                return False
        elif op in ("MAX_REPEAT", "MIN_REPEAT", "POSSESSIVE_REPEAT"):
            if not _items_see_only_their_line(arg[2]):
                return False
        elif op == "ATOMIC_GROUP":
            if not _items_see_only_their_line(arg):
                return False
        elif op == "BRANCH":
            if not all(_items_see_only_their_line(branch) for branch in arg[1]):
                return False
        elif op == "GROUPREF_EXISTS":
            if not all(_items_see_only_their_line(branch or []) for branch in arg[1:]):
                return False
    return True


# Character categories that hold a line feed, and those that do not.
_NEWLINE_CATEGORIES = {"CATEGORY_SPACE", "CATEGORY_NOT_DIGIT", "CATEGORY_NOT_WORD", "CATEGORY_LINEBREAK"}
_OTHER_CATEGORIES = {"CATEGORY_DIGIT", "CATEGORY_WORD", "CATEGORY_NOT_SPACE", "CATEGORY_NOT_LINEBREAK"}


def _one_char_but_newline(items) -> bool:
    if len(items) != 1:
        return False
    op, arg = items[0]
    op = str(op)
    if op == "LITERAL":
        return arg != 10
    if op != "IN":
        return False
    holds, negated = False, False
    for op, item in arg:
        op = str(op)
        if op == "NEGATE":
            negated = True
        elif op == "LITERAL":
            holds |= item == 10
        elif op == "RANGE":
            holds |= item[0] <= 10 <= item[1]
        elif op == "CATEGORY" and str(item) in _NEWLINE_CATEGORIES:
            holds = True
        elif not (op == "CATEGORY" and str(item) in _OTHER_CATEGORIES):
            return False
    return holds == negated
