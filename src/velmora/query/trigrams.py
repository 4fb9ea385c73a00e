"""The trigrams a text must hold to match a query, as a full-text query for the trigram index.

Each piece of a query is summed up as (exact, prefix, suffix, match): the set of every string
the piece can match when that set is small, else the strings every match starts and ends with,
and a query over trigrams that every text holding a match satisfies. Pieces are joined by
concatenation and alternation, and the sets are folded into the query whenever they grow too
large, so the query stays small. It may let through texts that hold no match; it never rejects
one that does. Every join costs at most the size of a bounded query, and a long run of
characters is read at a spread of its places, so planning is linear in the query's length.
"""

from __future__ import annotations

import itertools
import re
from collections.abc import Callable, Sequence
from typing import NamedTuple

# A query over trigrams: None holds for every text; a str is one trigram the text must hold;
# ("and" | "or", parts) joins queries.
TrigramQuery = None | str | tuple[str, frozenset]

# Strings in an exact, prefix or suffix set before the set is folded into the query.
_MAX_STRINGS = 16
# Trigrams taken from one literal: enough to be selective, few enough to look up quickly.
_MAX_TRIGRAMS = 12
# Trigrams in a whole query; beyond it alternatives are dropped (which only widens the query).
_MAX_PLAN = 64
# Characters of a run joined one by one; a longer run is sampled instead.
_SHORT_RUN = 32

# ASCII letters that re.IGNORECASE matches with a character beyond ASCII (KELVIN SIGN, DOTTED
# and DOTLESS I, LONG S), which the index's ASCII case folding does not cover.
_UNFOLDED = frozenset("iksIKS")

# The characters that may stand for one character of a query in a text (None: any).
Variants = frozenset[str] | None


class Piece(NamedTuple):
    exact: frozenset[str] | None  # every string the piece matches, when known and few
    prefix: frozenset[str]  # when not exact: every match starts with one of these
    suffix: frozenset[str]  # when not exact: every match ends with one of these
    match: TrigramQuery  # holds for every text that holds a match


UNKNOWN = Piece(None, frozenset([""]), frozenset([""]), None)
EMPTY = Piece(frozenset([""]), frozenset(), frozenset(), None)


def query(piece: Piece) -> str | None:
    """The full-text query of a whole pattern; None when the index cannot narrow it."""
    return _fts(_bounded(_inexact(piece).match))


def needle_query(needle: str, case_sensitive: bool) -> str | None:
    """The full-text query for a plain search (``needle`` lower-cased when case is ignored);
    None when the index cannot narrow it."""
    # Looked up once per distinct character: a needle may be megabytes of few characters.
    table: dict[str, Variants]
    if case_sensitive:
        table = {char: frozenset([_indexed(char)]) for char in set(needle)}
    else:
        table = {char: _lowered_variants(char) for char in set(needle)}
    chars: list[Variants] = [table[char] for char in needle]
    if not case_sensitive:
        # U+0130 lower-cases to "i" and a combining dot: such an "i" may stand for it.
        for found in re.finditer(r"i(?=\u0307|\Z)", needle):
            chars[found.start()] = None
    return query(literal(chars))


def pair_query(needle: str, case_sensitive: bool, terms: Callable[[str], list[str]]) -> str | None:
    """The full-text query for a plain search of two characters, from ``terms``, the
    index's trigrams that begin with a given pair; None when it cannot narrow: a needle
    beyond ASCII (the index folds case by rules of its own), or one that ignores case and
    has a letter that some other letter lower-cases to."""
    if len(needle) != 2 or not needle.isascii() or "\0" in needle:
        return None
    if not case_sensitive and not _UNFOLDED.isdisjoint(needle):
        return None
    found = terms(needle.lower())
    if len(found) > _MAX_PAIR_TERMS:
        return None
    return " OR ".join(map(_quoted, found)) if found else _NOTHING


_MAX_PAIR_TERMS = 256
# A query no chunk answers: no chunk holds the pair.
_NOTHING = '"aaa" NOT "aaa"'


# Characters that lower-case to a letter but are neither its upper nor its title case.
_LOWERED_FROM = {"k": "\u212a", "\u03b8": "\u03f4", "\u00df": "\u1e9e", "\u03c9": "\u2126", "\u00e5": "\u212b"}


def _lowered_variants(char: str) -> Variants:
    """A character of a lower-cased needle, as the characters of a line that lower-case to it."""
    if char == "\u0307":
        return None  # may come from U+0130, which lower-cases to "i" and this dot
    variants = {char, *_LOWERED_FROM.get(char, "")}
    if not char.isascii():  # the index folds ASCII letters itself
        variants.update(other for other in (char.upper(), char.title()) if len(other) == 1)
    return frozenset(map(_indexed, variants))


def regex_char(char: str, ignore_case: bool) -> Variants:
    """A character of a regex (or of a needle that keeps its case)."""
    if ignore_case:
        if char.isascii():
            if char in _UNFOLDED:
                return None
            char = char.lower()  # the index folds ASCII case itself
        elif not char.lower() == char.upper() == char:
            # A cased letter beyond ASCII: re's case rules reach further than its cases.
            return None
    return frozenset([_indexed(char)])


def _indexed(char: str) -> str:
    # The index holds a NUL as a space.
    return " " if char == "\0" else char


def _one_of(variants: Variants) -> Piece:
    return UNKNOWN if variants is None else Piece(variants, frozenset(), frozenset(), None)


def literal(chars: Sequence[Variants]) -> Piece:
    """A run of characters, each given by the characters that may stand for it."""
    if len(chars) <= _SHORT_RUN:
        piece = EMPTY
        for variants in chars:
            piece = concat(piece, _one_of(variants))
        return piece
    # A long run is read at a spread of the places where three known characters start, as a
    # long literal's trigrams are sampled: its length costs one pass over it, nothing more.
    known = [variants is not None for variants in chars]
    places = [at for at in range(len(chars) - 2) if known[at] and known[at + 1] and known[at + 2]]
    step = max(1.0, len(places) / (4 * _MAX_TRIGRAMS))
    sampled = places if step == 1.0 else [places[int(k * step)] for k in range(4 * _MAX_TRIGRAMS)]
    terms = dict.fromkeys(
        _strings_query(strings)
        for at in sampled
        if (strings := _joined_all(chars[at : at + 3])) is not None  # type: ignore[arg-type]
    )
    terms.pop(None, None)
    spread = list(terms)[:: -(-len(terms) // _MAX_TRIGRAMS) or 1]
    match: TrigramQuery = None
    for term in spread:
        match = _and(match, term)
    head = list(itertools.takewhile(lambda variants: variants is not None, chars[:2]))
    tail = list(itertools.takewhile(lambda variants: variants is not None, chars[:-3:-1]))[::-1]
    prefix = _joined_all(head) or frozenset([""])  # type: ignore[arg-type]
    suffix = _joined_all(tail) or frozenset([""])  # type: ignore[arg-type]
    return Piece(None, prefix, suffix, match)


def _joined_all(chars: Sequence[frozenset[str]]) -> frozenset[str] | None:
    """Every string of these characters; None when there would be too many."""
    strings: frozenset[str] | None = frozenset([""])
    for variants in chars:
        strings = _joined(strings, variants) if strings is not None else None
    return strings


def char_class(items, ignore_case: bool) -> Piece:
    """A class of a regex's parse tree, as the characters it holds."""
    chars: set[str] = set()
    for op, arg in items:
        op = str(op)
        if op == "LITERAL":
            chars.add(chr(arg))
        elif op == "RANGE" and arg[1] - arg[0] < _MAX_STRINGS:
            chars.update(map(chr, range(arg[0], arg[1] + 1)))
        else:  # a negation, a category, a wide range
            return UNKNOWN
    if not chars or len(chars) > _MAX_STRINGS:
        return UNKNOWN
    return alternatives([_one_of(regex_char(char, ignore_case)) for char in sorted(chars)])


def repeat(piece: Piece, low: int, high: int) -> Piece:
    if low == 0:
        return alternatives([EMPTY, repeat(piece, 1, high)])
    if low == high and low <= 4:
        repeated = piece
        for _ in range(low - 1):
            repeated = concat(repeated, piece)
        return repeated
    # One or more: every match starts with, ends with and holds a match of the piece.
    return _inexact(piece)


# -- joining pieces ------------------------------------------------------------------------


def concat(first: Piece, second: Piece) -> Piece:
    match = _and(first.match, second.match)
    if first.exact is not None and second.exact is not None:
        joined = _joined(first.exact, second.exact)
        # A long string is folded into the query: joining it again would copy it each time.
        if joined is not None and max(map(len, joined)) <= _SHORT_RUN:
            return Piece(joined, frozenset(), frozenset(), match)
    head, tail = _inexact(first), _inexact(second)
    match = _and(match, _and(head.match, tail.match))
    across = _joined(head.suffix, tail.prefix)
    if across is not None:
        match = _and(match, _strings_query(across))
    prefix = head.prefix
    if first.exact is not None:
        prefix = _joined(first.exact, tail.prefix) or frozenset([""])
    suffix = tail.suffix
    if second.exact is not None:
        suffix = _joined(head.suffix, second.exact) or frozenset([""])
    return _trimmed(Piece(None, prefix, suffix, match))


def alternatives(pieces: list[Piece]) -> Piece:
    if all(piece.exact is not None for piece in pieces):
        union = frozenset().union(*(piece.exact for piece in pieces))  # type: ignore[arg-type]
        if len(union) <= _MAX_STRINGS:
            match = pieces[0].match
            for piece in pieces[1:]:
                match = _or(match, piece.match)
            return Piece(union, frozenset(), frozenset(), match)
    inexact = [_inexact(piece) for piece in pieces]
    match = inexact[0].match
    for piece in inexact[1:]:
        match = _or(match, piece.match)
    prefix = frozenset().union(*(piece.prefix for piece in inexact))
    suffix = frozenset().union(*(piece.suffix for piece in inexact))
    return _trimmed(Piece(None, prefix, suffix, match))


def _inexact(piece: Piece) -> Piece:
    """The piece without its exact set: the set goes into the query, prefix and suffix."""
    if piece.exact is None:
        return piece
    match = _and(piece.match, _strings_query(piece.exact))
    return _trimmed(Piece(None, piece.exact, piece.exact, match))


def _trimmed(piece: Piece) -> Piece:
    # Only a prefix's first two and a suffix's last two characters can form a trigram with
    # a neighbour; the trigrams inside them go into the query first.
    match = _and(piece.match, _and(_strings_query(piece.prefix), _strings_query(piece.suffix)))
    prefix = frozenset(text[:2] for text in piece.prefix)
    suffix = frozenset(text[-2:] for text in piece.suffix)
    if len(prefix) > _MAX_STRINGS:
        prefix = frozenset([""])
    if len(suffix) > _MAX_STRINGS:
        suffix = frozenset([""])
    return Piece(None, prefix, suffix, match)


def _joined(heads: frozenset[str], tails: frozenset[str]) -> frozenset[str] | None:
    """Every head followed by every tail; None when there would be too many."""
    if len(heads) * len(tails) > _MAX_STRINGS:
        return None
    return frozenset(head + tail for head in heads for tail in tails)


# -- queries over trigrams ------------------------------------------------------------------


def _strings_query(strings: frozenset[str]) -> TrigramQuery:
    """The text holds one of the strings (nothing is known if one is shorter than three)."""
    query: TrigramQuery = ("or", frozenset())
    for text in strings:
        if len(text) < 3:
            return None
        query = _or(query, _trigrams_query(text))
    return None if query == ("or", frozenset()) else query


def _trigrams_query(text: str) -> TrigramQuery:
    trigrams = sorted({text[i : i + 3] for i in range(len(text) - 2)})
    if len(trigrams) > _MAX_TRIGRAMS:
        step = len(trigrams) / _MAX_TRIGRAMS
        trigrams = [trigrams[int(i * step)] for i in range(_MAX_TRIGRAMS)]
    query: TrigramQuery = None
    for trigram in trigrams:
        query = _and(query, trigram)
    return query


def _and(left: TrigramQuery, right: TrigramQuery) -> TrigramQuery:
    if left is None:
        return right
    if right is None or right == left:
        return left
    parts = _parts("and", left)
    if len(parts) >= _MAX_PLAN:
        return left  # more terms than a query keeps: another would only cost a join
    return ("and", parts | _parts("and", right))


def _or(left: TrigramQuery, right: TrigramQuery) -> TrigramQuery:
    if left is None or right is None:
        return None
    if left == right:
        return left
    parts = _parts("or", left) | _parts("or", right)
    if len(parts) > _MAX_PLAN:
        return None  # more trigrams than a query keeps: the query would give it up
    return next(iter(parts)) if len(parts) == 1 else ("or", parts)


def _parts(kind: str, query: TrigramQuery) -> frozenset:
    if isinstance(query, tuple) and query[0] == kind:
        return query[1]
    return frozenset([query])


def _size(query: TrigramQuery) -> int:
    if query is None:
        return 0
    if isinstance(query, str):
        return 1
    return sum(_size(part) for part in query[1])


def _bounded(query: TrigramQuery) -> TrigramQuery:
    """The query cut down to at most ``_MAX_PLAN`` trigrams, by dropping terms of an AND
    (fewer conditions: a wider plan) and giving up on a large OR."""
    if _size(query) <= _MAX_PLAN:
        return query
    if isinstance(query, tuple) and query[0] == "and":
        kept: TrigramQuery = None
        for part in sorted(query[1], key=_size):
            if _size(kept) + _size(part) <= _MAX_PLAN:
                kept = _and(kept, part)
        return kept
    return None


def _quoted(text: str) -> str:
    """A string of the full-text query syntax, every character taken literally."""
    return '"' + text.replace('"', '""') + '"'


def _fts(query: TrigramQuery) -> str | None:
    if query is None:
        return None
    if isinstance(query, str):
        return _quoted(query)
    kind, parts = query
    text = f" {kind.upper()} ".join(sorted(_fts(part) for part in parts))  # type: ignore[misc]
    return f"({text})"
