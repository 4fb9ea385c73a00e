"""How a query is searched: one walk of its regex's parse tree gives the trigrams a text must
hold, the widened pattern that skips text fast, and whether a match sees past its line."""

from __future__ import annotations

import re
from collections.abc import Callable
from itertools import groupby
from typing import NamedTuple

from velmora.query import prefilter, trigrams
from velmora.query.pattern import Query


class Plan(NamedTuple):
    trigram_query: str | None  # the full-text query of the chunks to read; None: every chunk
    widened: str | None  # an RE2 pattern that matches wherever the regex can; None: none made
    line_bound: bool  # whether a match in a line alone is one in a text of lines, and back


def plan(query: Query) -> Plan:
    """The plan of a search for ``query``."""
    if query.pattern is None:
        assert query.needle is not None
        return Plan(trigrams.needle_query(query.needle, query.case_sensitive), None, True)
    # re's own parser: only it knows what the pattern means, and it has no public tree.
    from re import _parser  # type: ignore[attr-defined]

    try:
        tree = _parser.parse(query.pattern.pattern, query.pattern.flags)
        summary = _sequence(tree, tree.state.flags)
    except (re.error, OverflowError, RecursionError):
        return Plan(None, None, False)
    return Plan(trigrams.query(summary.piece), summary.widened, summary.line_bound)


class _Summary(NamedTuple):
    """What the walk knows of a node of the tree, or of a sequence of nodes."""

    piece: trigrams.Piece
    widened: str | None
    line_bound: bool


def _sequence(items, flags: int) -> _Summary:
    fold = bool(flags & re.IGNORECASE)
    piece, line_bound = trigrams.EMPTY, True
    widened: str | None = ""
    # A run of literals is planned as one: a long literal is a long run of nodes.
    for is_literal, nodes in groupby(items, key=lambda node: str(node[0]) == "LITERAL"):
        if is_literal:
            parts = [_literals([code for _, code in nodes], fold)]
        else:
            parts = [_node(str(op), arg, flags) for op, arg in nodes]
        for part in parts:
            piece = trigrams.concat(piece, part.piece)
            widened = None if widened is None or part.widened is None else widened + part.widened
            line_bound = line_bound and part.line_bound
    return _Summary(piece, widened, line_bound)


def _literals(codes: list[int], fold: bool) -> _Summary:
    distinct = set(codes)
    variants = {code: trigrams.regex_char(chr(code), fold) for code in distinct}
    pieces = {code: _widened(prefilter.literal, code, fold) for code in distinct}
    widened = None if None in pieces.values() else "".join([pieces[code] for code in codes])  # type: ignore[misc]
    return _Summary(trigrams.literal([variants[code] for code in codes]), widened, True)


def _node(op: str, arg, flags: int) -> _Summary:
    fold = bool(flags & re.IGNORECASE)
    if op == "IN":
        return _Summary(trigrams.char_class(arg, fold), _widened(prefilter.char_class, arg, fold), True)
    if op == "SUBPATTERN":
        _group, add_flags, del_flags, items = arg
        return _grouped(_sequence(items, (flags | add_flags) & ~del_flags))
    if op == "ATOMIC_GROUP":
        return _grouped(_sequence(arg, flags))
    if op == "BRANCH":
        return _alternatives([_sequence(items, flags) for items in arg[1]])
    if op == "GROUPREF_EXISTS":
        _group, yes, no = arg
        return _alternatives([_sequence(yes, flags), _sequence(no or [], flags)])
    if op in ("MAX_REPEAT", "MIN_REPEAT", "POSSESSIVE_REPEAT"):
        low, high, items = arg
        body = _sequence(items, flags)
        widened = None if body.widened is None else prefilter.repeat(body.widened, low, high)
        return _Summary(trigrams.repeat(body.piece, low, high), widened, body.line_bound)
    # Zero width: whatever it asserts, the match itself holds nothing.
    if op == "AT":
        return _Summary(trigrams.EMPTY, prefilter.ZERO_WIDTH, str(arg) in _LINE_ANCHORS)
    if op in ("ASSERT", "ASSERT_NOT"):
        return _Summary(trigrams.EMPTY, prefilter.ZERO_WIDTH, _one_char_but_newline(arg[1]))
    # Any other character, a back-reference.
    if op == "ANY":
        return _Summary(trigrams.UNKNOWN, prefilter.ANY, True)
    if op == "NOT_LITERAL":
        return _Summary(trigrams.UNKNOWN, _widened(prefilter.not_literal, arg, fold), True)
    if op == "GROUPREF":
        return _Summary(trigrams.UNKNOWN, prefilter.BACKREFERENCE, True)
    return _Summary(trigrams.UNKNOWN, None, True)


def _grouped(body: _Summary) -> _Summary:
    return body._replace(widened=None if body.widened is None else prefilter.group(body.widened))


def _alternatives(branches: list[_Summary]) -> _Summary:
    sources = [branch.widened for branch in branches]
    return _Summary(
        trigrams.alternatives([branch.piece for branch in branches]),
        None if None in sources else prefilter.alternation(sources),  # type: ignore[arg-type]
        all(branch.line_bound for branch in branches),
    )


def _widened(make: Callable[..., str], *args) -> str | None:
    try:
        return make(*args)
    except prefilter.Unsupported:
        return None


# -- whether a match sees past its line -------------------------------------------------------

# Anchors that hold at a line's ends in a text of lines (read with re.MULTILINE) wherever they
# hold in the line alone; \A and \Z do not, nor do lookarounds, which see the lines around.
_LINE_ANCHORS = {
    "AT_BEGINNING", "AT_BEGINNING_LINE", "AT_END", "AT_END_LINE", "AT_BOUNDARY", "AT_NON_BOUNDARY"
}
# Character categories that hold a line feed, and those that do not.
_NEWLINE_CATEGORIES = {"CATEGORY_SPACE", "CATEGORY_NOT_DIGIT", "CATEGORY_NOT_WORD", "CATEGORY_LINEBREAK"}
_OTHER_CATEGORIES = {"CATEGORY_DIGIT", "CATEGORY_WORD", "CATEGORY_NOT_SPACE", "CATEGORY_NOT_LINEBREAK"}


def _one_char_but_newline(items) -> bool:
    """Whether a lookaround's body is one character that is never a line feed (as in
    ``(?<!\\w)``: it sees the LF beyond a line's end as it sees nothing beyond the line)."""
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
