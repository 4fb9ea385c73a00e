"""Line matching and context: the native line_matches and context against the model."""

from __future__ import annotations

import re
import sys
from typing import Any

import pytest
from hypothesis import given
from hypothesis import strategies as st

import model
from conftest import outcome
from strategies import lines as line_strategy
from strategies import needles, patterns
from velmora.storage import code_text as native


def test_only_two_code_points_lower_case_into_ascii() -> None:
    # The case-ignoring search runs without a lower-cased copy on this fact of the host's
    # case tables; a new Unicode version that breaks it must fail here first.
    into_ascii, growing = set(), set()
    for code in range(0x80, sys.maxunicode + 1):
        lowered = chr(code).lower()
        if any(ord(c) < 0x80 for c in lowered):
            into_ascii.add(code)
        if len(lowered) != 1:
            growing.add(code)
    assert (into_ascii, growing) == ({0x130, 0x212A}, {0x130})
    assert all(len(chr(c).lower()) == 1 and ord(chr(c).lower()) <= 0xFF for c in range(0x100))


# Lines that put the special letters next to ASCII, in all three string widths.
WIDE = st.sampled_from(["\u0130", "\u212a", "\u03a3", "\u00c9", "\U0001f600", "\u0391", "\ud800"])
MIXED = st.lists(st.one_of(st.text(alphabet="abikKIxyz ", max_size=6), WIDE), max_size=6).map("".join)
MATCHING_LINES = st.lists(st.one_of(line_strategy(), MIXED), max_size=12)
EDGE_NEEDLES = ["", "k", "i", "ki", "ik", "K", "i\u0307", "\u03c2", "\u00e9", "zz"]


def assert_same_matches(lines: Any, needle: Any, pattern: Any, case_sensitive: Any) -> None:
    got = list(native.line_matches(lines, needle, pattern, case_sensitive))
    assert got == list(model.line_matches(lines, needle, pattern, case_sensitive))


@given(lines=MATCHING_LINES, choice=st.data(), case_sensitive=st.booleans())
def test_plain_matches_the_model(lines: list[str], choice: Any, case_sensitive: bool) -> None:
    text = "\n".join(lines)
    needle = choice.draw(st.one_of(st.sampled_from(EDGE_NEEDLES), needles(text), needles(text.lower())))
    assert_same_matches(lines, needle, None, case_sensitive)


@pytest.mark.parametrize("needle", ["ik", "iki", "xik", "ki", "k"])
def test_a_dotted_capital_i_is_an_i_only_at_the_needles_end(needle: str) -> None:
    assert_same_matches(["\u0130k", "x\u0130ki", "\u0130\u0130k", "K\u0130", "\u212a\u0130"], needle, None, False)


@given(lines=st.lists(st.text(alphabet="abAB", max_size=100) | st.text(alphabet="abkiKI\u212a\u0130\u00e9", max_size=70),
                      max_size=4),
       choice=st.data())
def test_long_lines_match_the_model(lines: list[str], choice: Any) -> None:
    # Long enough for the scan's whole blocks, its moved-back last block and short copies.
    text = "".join(lines).lower()
    start = choice.draw(st.integers(0, len(text)))
    needle = choice.draw(st.one_of(st.just(text[start:start + choice.draw(st.integers(1, 20))]),
                                   st.text(alphabet="abki", min_size=1, max_size=20)))
    for case_sensitive in (False, True):
        assert_same_matches(lines, needle, None, case_sensitive)


@given(lines=MATCHING_LINES, pattern=patterns(), case_sensitive=st.booleans())
def test_regex_matches_the_model(lines: list[str], pattern: re.Pattern[str], case_sensitive: bool) -> None:
    assert_same_matches(lines, None, pattern, case_sensitive)


REGEX_LINES = ["def f(self):", "    def g(self, x):", "DEF H(SELF)", "self.def", "", "(self",
               "a\u0130\u212ab", "caf\u00e9 \U0001f600 k", "x" * 40 + "def y(self" + "x" * 40, "\u212a"]


# Regexes with literals the search may look for before it asks the pattern.
@pytest.mark.parametrize(
    "source",
    [r"def \w+\(self", r"(?i)def \w+\(self", r"(?<=def )\w+", r"\Adef", r"self$", r"(?x) d e f",
     r"k|\u212a", r"(?i)k", r"caf\u00e9 \U0001f600", r"x*", r"se(?i:LF)", r"[s]elf", r"a\u0130", r"^$",
     r"\bdef\b"] + [f"holds {n}" for n in range(0, 600, 7)],
)
def test_regexes_with_literals_match_the_model(source: str) -> None:
    pattern = re.compile(source)
    extra = [f"line {n} holds {n * 7}" for n in range(50)]
    for lines in (REGEX_LINES, [line.upper() for line in REGEX_LINES], REGEX_LINES[::-1] + extra):
        assert_same_matches(lines, None, pattern, True)


BIG = [2**31, 2**63 - 1, 2**63, 2**64, 10**30]
INTEGERS = st.one_of(st.integers(-8, 12), st.sampled_from(BIG + [-b for b in BIG]), st.integers())


@given(size=st.integers(0, 6), first=INTEGERS, last=INTEGERS, start=st.one_of(INTEGERS, st.none()),
       shift=st.one_of(st.just(0), st.sampled_from(BIG + [-b for b in BIG])))
def test_context_matches_the_model(size: int, first: int, last: int, start: int | None, shift: int) -> None:
    lines = [f"line {n}" for n in range(size)]
    # Shifted together, the three numbers keep a non-empty answer at any size of integer.
    if start is not None:
        first, last, start = first + shift, last + shift, start + shift
    args = (lines, first, last) if start is None else (lines, first, last, start)
    got, want = native.context(*args), model.context(*args)
    assert [list(record.items()) for record in got] == [list(record.items()) for record in want]
    assert all(record["content"] is lines[record["line"] - (1 if start is None else start)] for record in got)


class Index:
    """An integer only by __index__: max() and min() cannot compare it."""

    def __index__(self) -> int:
        return 2


@pytest.mark.parametrize(
    "args",
    [(("a", "b", "c"), 0, 5), ("abc", 0, 5), ({2: "x", 1: "y", 0: "z"}, 0, 5), (["a", "b"], True, True),
     (["a", "b"], 5, 1, 1.5), (["a", "b", "c"], Index(), Index(), Index()), (["a"], 1.0, 2), (["a"], 1, "2"),
     (["a"], 1, 2, None), (5, 1, 2)],
)
def test_context_takes_what_the_model_takes(args: tuple[Any, ...]) -> None:
    assert outcome(lambda: native.context(*args)) == outcome(lambda: model.context(*args))


# --- A sequence, read lazily ---------------------------------------------------------------


class OddLine(str):
    """A line of a str subclass: its own lower() and find() are the ones used."""

    def lower(self) -> str:
        return "odd"

    def find(self, *args: Any) -> Any:
        return 7 if args[0] == "z" else -1


class Starts:
    """A pattern whose matches start where it is told (None: no match)."""

    def __init__(self, starts: list[Any]) -> None:
        self.starts = starts

    def search(self, line: str) -> Any:
        start = self.starts.pop(0)
        return None if start is None else type("Match", (), {"start": lambda self: start})()


ODD_CALLS = [
    (5, "x", None, True), (["a"], 5, None, True), (["a"], None, None, False), (["a"], "a", object(), True),
    ([b"a"], "a", None, False), ([b"a"], b"a", None, True), ([None], "a", None, True),
    (["abc", "xyz"], None, re.compile(b"xyz"), True), ([], 5, object(), object()),
    (["A"], "a", None, type("Flag", (), {"__bool__": lambda self: 1 / 0})()),
    ([OddLine("ABC"), "abc", OddLine("x")], "odd", None, False), ([OddLine("ABC"), "xz"], "z", None, True),
]


@pytest.mark.parametrize("index", range(len(ODD_CALLS) + 1))
def test_errors_and_host_objects_as_in_the_model(index: int) -> None:
    def run(impl: Any) -> Any:
        if index == len(ODD_CALLS):  # match starts of any kind, as the pattern gives them
            args: tuple[Any, ...] = (["l"] * 6, None, Starts([None, 0, -1, 3, 2.5, -0.5]), True)
        else:
            args = ODD_CALLS[index]
        found = impl.line_matches(*args)
        return outcome(lambda: list(found)), outcome(lambda: list(found))  # then ended for good

    assert run(native) == run(model)


def test_a_list_that_grows_while_consumed() -> None:
    results = []
    for impl in (native, model):
        lines = ["x", "y", "x"]
        found = impl.line_matches(lines, "x", None, True)
        seen = [next(found)]
        lines.append("x")
        seen += list(found)
        lines.append("x")
        seen += list(found)  # ended: what comes after is not seen
        results.append(seen)
    assert results[0] == results[1] == [(1, 0), (3, 0), (4, 0)]


def test_a_search_that_consumes_its_own_sequence() -> None:
    holder: list[Any] = []
    reentrant = type("Reentrant", (), {"search": lambda self, line: next(holder[0])})()
    holder.append(native.line_matches(["a"], None, reentrant, True))
    with pytest.raises(ValueError, match="generator already executing"):
        next(holder[0])
