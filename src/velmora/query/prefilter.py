"""A DFA-engine (RE2) pattern that matches wherever a Python regex can, to skip text fast.

Python's ``re`` backtracks, at some 15 MB/s on code for a pattern like ``\\b[A-Z]{4,}\\d\\b``;
RE2 scans the same text at hundreds of MB/s but speaks a slightly different dialect (ASCII
``\\b``, no lookarounds or back-references, its own Unicode tables). So the pattern is not
translated but widened: every construct becomes one that matches at least what it matched
(a lookaround or ``\\b`` matches anywhere, a back-reference any run of a line, ``\\d`` any
non-ASCII character too). Wherever the Python pattern matches a substring of a line, the
widened one matches that substring, so its leftmost match in a text never starts after the
Python pattern's first match in any of the text's lines. Python's ``re`` stays the judge of
what matches: the widened pattern only says where it cannot. Its pieces are made here, node
by node, as the planner (``query.plan``) walks the pattern's parse tree.
"""

from __future__ import annotations

import re
from collections.abc import Callable

# The first byte offset in a UTF-8 text, at or after a start offset, at which the widened
# pattern matches, or -1.
Search = Callable[[bytes, int], int]

_NON_ASCII = r"\x{80}-\x{10ffff}"
_SURROGATES = range(0xD800, 0xE000)  # never in decoded text, and RE2 refuses them
_MAX_COUNT = 1000  # RE2's largest repeat count


class Unsupported(Exception):
    """A construct the widening does not cover."""


def widened_search(source: str) -> Search | None:
    """The search of a widened pattern over texts of lines joined by LF, matching within a
    line only; None where RE2 refuses it (too large, say)."""
    # Imported here: RE2 costs a plain search a fifth of its start-up.
    import re2  # type: ignore[import-untyped]

    options = re2.Options()
    options.max_mem = 64 << 20
    options.never_capture = True
    # The regex is judged a line at a time, so a match within a line is all that is sought;
    # one let across lines (a widened ".*" takes any character) would run to the text's last
    # possible end from every line searched: quadratic in the text.
    options.never_nl = True
    options.log_errors = False  # a pattern RE2 refuses is not an error of the search
    try:
        # On bytes: a str would be encoded, and its offsets mapped back, at every call.
        compiled = re2.compile(source.encode(), options)
    except (re2.error, OverflowError):
        return None
    return _first_match_offset(compiled, re2)


def _first_match_offset(compiled, re2) -> Search:
    # Below the package's public search, whose generator and match object per call cost as
    # much as a chunk's scan. The version CI pins has these names; another may not.
    try:
        match, unanchored = compiled._regexp.Match, re2._Anchor.UNANCHORED
    except AttributeError:
        return lambda text, start: -1 if (found := compiled.search(text, start)) is None else found.start()
    return lambda text, start: match(unanchored, text, start, len(text))[0][0]


# -- pieces of the widened pattern, one per node of the regex's parse tree ----------------
# ``fold``: case is ignored there. RE2's folding takes every case variant of a letter that
# ``re.IGNORECASE`` takes (checked over all of Unicode), except among the four of
# ``_DOTTED_I``, which Python takes as one set.

ANY = "(?s:.)"
ZERO_WIDTH = ""  # an assertion holds somewhere: widened to hold everywhere
BACKREFERENCE = "(?s:.)*"  # the group's text, whatever it was

_DOTTED_I = frozenset((0x49, 0x69, 0x130, 0x131))


def literal(code: int, fold: bool) -> str:
    return char_class([("LITERAL", code)], fold) if fold else _char(code)


def not_literal(code: int, fold: bool) -> str:
    if fold:
        raise Unsupported("a negated class that ignores case")
    return f"[^{_char(code)}]"


def group(source: str) -> str:
    return f"(?:{source})"


def alternation(sources: list[str]) -> str:
    return group("|".join(sources))


def repeat(source: str, low: int, high: int) -> str:
    low = min(low, _MAX_COUNT)
    upper = "" if high > _MAX_COUNT else str(high)
    return f"(?:{source}){{{low},{upper}}}"


def _char(code: int) -> str:
    if code in _SURROGATES:
        raise Unsupported("surrogate")
    return rf"\x{{{code:x}}}"


def char_class(items, fold: bool) -> str:
    """A set holding at least the class's characters (in every case, with ``fold``). Within
    a negated class each item is narrowed instead, so that its complement widens."""
    negated = bool(items) and str(items[0][0]) == "NEGATE"
    if negated and fold:
        raise Unsupported("a negated class that ignores case")
    parts = []
    codes: set[int] = set()  # the members that matter to the folding
    for op, arg in items[1:] if negated else items:
        op = str(op)
        if op == "LITERAL":
            parts.append(_char(arg))
            codes.add(arg)
        elif op == "RANGE":
            low, high = arg
            # Decoded text holds no surrogate, so leaving them out narrows nothing it holds.
            for first, last in ((low, min(high, 0xD7FF)), (max(low, 0xE000), high)):
                if first <= last:
                    parts.append(f"{_char(first)}-{_char(last)}")
                    codes.update(code for code in _DOTTED_I if first <= code <= last)
        elif op == "CATEGORY":
            parts.append(_category(str(arg), narrowed=negated))
        else:
            raise Unsupported(op)
    if fold and codes & _DOTTED_I:
        parts += map(_char, sorted(_DOTTED_I))
    return ("[^" if negated else "(?i:[" if fold else "[") + "".join(parts) + ("])" if fold else "]")


def _category(name: str, narrowed: bool) -> str:
    """The ASCII characters that ``\\d``, ``\\s``, ``\\w`` or their negations hold in every
    mode (narrowed) or in some mode (widened), the latter with every non-ASCII character."""
    ascii_sets = _CATEGORY_ASCII[name]
    chosen = set.intersection(*ascii_sets) if narrowed else set.union(*ascii_sets)
    ranges = "".join(_char(code) for code in sorted(chosen))
    return ranges if narrowed else ranges + _NON_ASCII


def _ascii_members(escape: str) -> list[set[int]]:
    """The ASCII codes a category escape matches, with the Unicode rules and with re.ASCII."""
    return [
        {code for code in range(128) if re.fullmatch(escape, chr(code), flags)}
        for flags in (0, re.ASCII)
    ]


_CATEGORY_ASCII = {
    f"CATEGORY_{name}": _ascii_members(escape)
    for name, escape in [
        ("DIGIT", r"\d"), ("NOT_DIGIT", r"\D"), ("SPACE", r"\s"),
        ("NOT_SPACE", r"\S"), ("WORD", r"\w"), ("NOT_WORD", r"\W"),
    ]
}
