"""Hypothesis strategies shared by the differential tests: text thick with what the text rules
are picky about. Anything for a real SQLite index is drawn with ``surrogates=False``: sqlite3
cannot bind a lone surrogate."""

from __future__ import annotations

import random
import re

from hypothesis import strategies as st

# Every boundary of str.splitlines, and CR LF, which is one boundary of two code points.
BOUNDARIES = ("\n", "\r", "\r\n", "\x0b", "\x0c", "\x1c", "\x1d", "\x1e", "\x85", "\u2028", "\u2029")

# Case mappings that grow (U+0130, U+1E9E stays one), depend on context (U+03A3), or fold a
# letter beyond ASCII to ASCII (U+212A, U+0130); plus BOM, replacement char, combining dot.
SPECIAL = (
    "\x00", "\u0130", "\u0131", "\u03a3", "\u03c3", "\u03c2", "\u212a", "\u00df", "\u1e9e",
    "\u00e9", "\u00c9", "\u0307", "\ufeff", "\ufffd", "\u1f88", "\ufb03", "\x1f", "\u200b",
)

_ascii = st.sampled_from("abcxyzABCXYZ09 %_.-\t")
_latin1 = st.integers(0xA0, 0xFF).map(chr)
_bmp = st.integers(0x100, 0xFFFD).filter(lambda c: not 0xD800 <= c <= 0xDFFF).map(chr)
_astral = st.one_of(st.sampled_from("\U0001f600\U00010400\U0001d400\U0010ffff"), st.integers(0x10000, 0x10FFFF).map(chr))
_surrogate = st.integers(0xD800, 0xDFFF).map(chr)


def line_chars(*, surrogates: bool = True) -> st.SearchStrategy[str]:
    """One code point that is not a line boundary."""
    parts = [_ascii, _ascii, _ascii, st.sampled_from(SPECIAL), _latin1, _bmp, _astral] + [_surrogate] * surrogates
    return st.one_of(*parts).filter(lambda c: len(("x" + c + "x").splitlines()) == 1)


def text_pieces(*, surrogates: bool = True) -> st.SearchStrategy[str]:
    """A code point, or a line boundary (CR LF included)."""
    return st.one_of(line_chars(surrogates=surrogates), st.sampled_from(BOUNDARIES))


def texts(*, surrogates: bool = True, max_size: int = 60) -> st.SearchStrategy[str]:
    """Short texts, thick with line boundaries."""
    return st.lists(text_pieces(surrogates=surrogates), max_size=max_size).map("".join)


def lines(*, surrogates: bool = True, max_size: int = 12) -> st.SearchStrategy[str]:
    """One line: no boundary in it."""
    return st.lists(line_chars(surrogates=surrogates), max_size=max_size).map("".join)


# The chunk edges, a few ordinary counts, and thousands.
LINE_COUNTS = st.one_of(
    st.sampled_from([0, 1, 2, 63, 64, 65, 127, 128, 129, 130, 192, 193]),
    st.integers(0, 300),
    st.sampled_from([1000, 4096, 4097]),
)


@st.composite
def many_line_texts(draw: st.DrawFn, *, surrogates: bool = True) -> str:
    """A text of exactly the drawn number of lines, any boundary between them.

    Lines and boundaries are picked by a seeded random from small drawn pools, so that texts
    of thousands of lines stay cheap to draw and to shrink.
    """
    count = draw(LINE_COUNTS)
    pool = draw(st.lists(lines(surrogates=surrogates), min_size=1, max_size=6))
    bounds = draw(st.lists(st.sampled_from(BOUNDARIES), min_size=1, max_size=4))
    trailing = draw(st.booleans())
    rnd = random.Random(draw(st.integers(0, 2**32 - 1)))
    picked = [rnd.choice(pool) for _ in range(count)]
    parts: list[str] = []
    for number, line in enumerate(picked):
        parts.append(line)
        last = number == count - 1
        if last and not (trailing or line == ""):
            break
        boundary = rnd.choice(bounds)
        # A CR straight before an LF would make the two one boundary and lose a line.
        if boundary == "\r" and not last and picked[number + 1] == "":
            boundary = "\r\n"
        parts.append(boundary)
    return "".join(parts)


def any_texts(*, surrogates: bool = True) -> st.SearchStrategy[str]:
    return st.one_of(texts(surrogates=surrogates), many_line_texts(surrogates=surrogates))


# Ill-formed UTF-8: stray continuation bytes, bytes that never start a sequence, truncated
# sequences, overlongs, encoded surrogates, values past U+10FFFF.
BAD_UTF8 = (
    b"\x80", b"\xbf", b"\xc0", b"\xc1", b"\xf5", b"\xff", b"\xfe", b"\xc0\xaf", b"\xc3",
    b"\xe2\x82", b"\xe2\x82A", b"\xe0\x80\x80", b"\xe0\x9f", b"\xed\xa0\x80", b"\xed\xbf\xbf",
    b"\xf0\x80\x80\x80", b"\xf0\x9f\x98", b"\xf4\x90\x80\x80", b"\xf8\x88\x80\x80\x80",
)
BOM = b"\xef\xbb\xbf"


def file_bytes() -> st.SearchStrategy[bytes]:
    """The content of a file: UTF-8 text, with a BOM, NULs and ill-formed pieces mixed in."""
    piece = st.one_of(
        texts(surrogates=False, max_size=8).map(lambda t: t.encode("utf-8")),
        st.sampled_from(BAD_UTF8),
        st.sampled_from([b"\x00", b"\n", b"\r\n", BOM]),
    )
    mixed = st.lists(piece, max_size=12).map(b"".join)
    return st.one_of(
        mixed,
        st.tuples(st.just(BOM), mixed).map(b"".join),
        texts(max_size=40).map(lambda t: t.encode("utf-8", errors="surrogatepass")),
        st.binary(max_size=48),
    )


@st.composite
def needles(draw: st.DrawFn, text: str, *, lower: bool | None = None) -> str:
    """A needle for ``text``: mostly a piece of it, sometimes lower-cased (always, with
    ``lower=True``; never, with ``lower=False``), sometimes empty, foreign, or with LIKE's
    wildcards in it."""
    kind = draw(st.sampled_from(["piece", "piece", "piece", "empty", "other", "wild"]))
    if kind == "empty":
        needle = ""
    elif kind == "other":
        needle = draw(texts(max_size=4))
    else:
        start = draw(st.integers(0, len(text)))
        end = draw(st.integers(start, min(len(text), start + 12)))
        needle = text[start:end]
        if kind == "wild" and needle:
            at = draw(st.integers(0, len(needle) - 1))
            needle = needle[:at] + draw(st.sampled_from("%_")) + needle[at + 1 :]
    if lower is True or (lower is None and draw(st.booleans())):
        needle = needle.lower()
    return needle


_REGEX_LITERALS = "abcxAXZ0 %_é\u0130\u03a3\u212a\u00df\x00\U0001f600\ud800"
_REGEX_CLASSES = ("[a-c]", "[^a]", "[A-Z0-9]", "[é\u0130]", r"\d", r"\w", r"\s", r"\W", ".")


def regex_sources() -> st.SearchStrategy[str]:
    """Small regexes that always compile: literals, classes, ``.``, groups with alternation,
    each atom quantified at most once, anchors, and sometimes a leading ``(?i)``."""
    atom = st.one_of(
        st.sampled_from(_REGEX_LITERALS).map(re.escape),
        st.sampled_from(_REGEX_CLASSES),
    )

    def grow(inner: st.SearchStrategy[str]) -> st.SearchStrategy[str]:
        return st.one_of(
            st.lists(inner, min_size=1, max_size=3).map(lambda alts: "(" + "|".join(alts) + ")"),
            st.lists(inner, min_size=2, max_size=4).map("".join),
        )

    def quantify(body: st.SearchStrategy[str]) -> st.SearchStrategy[str]:
        return st.tuples(body, st.sampled_from(["", "", "*", "+", "?", "{1,2}", "*?"])).map("".join)

    sequence = st.lists(quantify(st.recursive(atom, grow, max_leaves=6)), max_size=4).map("".join)
    return st.tuples(
        st.sampled_from(["", "", "(?i)"]),
        st.sampled_from(["", "", "^"]),
        sequence,
        st.sampled_from(["", "", "$"]),
    ).map("".join)


def patterns() -> st.SearchStrategy[re.Pattern[str]]:
    return regex_sources().map(re.compile)
