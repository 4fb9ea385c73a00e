"""Line matching and context: the native line_matches and context against the model."""

from __future__ import annotations

import re
import sys
from typing import Any, Callable

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import model
from strategies import lines as line_strategy
from strategies import needles, patterns
from velmora.storage import code_text as native

SLOW_DATA = settings(deadline=None, suppress_health_check=[HealthCheck.too_slow])


def outcome(call: Callable[[], Any]) -> tuple[Any, ...]:
    try:
        return ("value", call())
    except Exception as error:  # noqa: BLE001 - the error is the result compared
        return ("error", type(error), str(error))


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
    assert into_ascii == {0x130, 0x212A}
    assert growing == {0x130}
    assert "\u0130".lower() == "i\u0307" and "\u212a".lower() == "k"
    assert all(len(chr(c).lower()) == 1 and ord(chr(c).lower()) <= 0xFF for c in range(0x100))


# Lines that put the special letters next to ASCII, in all three string widths.
WIDE = st.sampled_from(["\u0130", "\u212a", "\u03a3", "\u00c9", "\U0001f600", "\u0391", "\ud800"])
ASCII_RUN = st.text(alphabet="abikKIxyz ", max_size=6)


@st.composite
def matching_lines(draw: st.DrawFn) -> list[str]:
    mixed = st.lists(st.one_of(ASCII_RUN, WIDE), max_size=6).map("".join)
    return draw(st.lists(st.one_of(line_strategy(), mixed), max_size=12))


@st.composite
def plain_needles(draw: st.DrawFn, lines: list[str]) -> str:
    text = "\n".join(lines)
    kind = draw(st.sampled_from(["piece", "lowered", "edge"]))
    if kind == "edge":
        return draw(st.sampled_from(["", "k", "i", "ki", "ik", "K", "i\u0307", "\u03c2", "\u00e9", "zz"]))
    return draw(needles(text.lower() if kind == "lowered" else text))


@settings(SLOW_DATA, max_examples=400)
@given(lines=matching_lines(), choice=st.data(), case_sensitive=st.booleans())
def test_plain_matches_the_model(lines: list[str], choice: Any, case_sensitive: bool) -> None:
    needle = choice.draw(plain_needles(lines))
    got = list(native.line_matches(lines, needle, None, case_sensitive))
    assert got == list(model.line_matches(lines, needle, None, case_sensitive))
    assert all(type(number) is int and type(column) is int for number, column in got)


@settings(max_examples=600)
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
        assert list(native.line_matches(lines, needle, None, case_sensitive)) == list(
            model.line_matches(lines, needle, None, case_sensitive)
        )


@settings(SLOW_DATA, max_examples=250)
@given(lines=matching_lines(), pattern=patterns(), needle=st.one_of(st.none(), st.text(max_size=2)),
       case_sensitive=st.booleans())
def test_regex_matches_the_model(lines: list[str], pattern: re.Pattern[str], needle: Any, case_sensitive: bool) -> None:
    assert list(native.line_matches(lines, needle, pattern, case_sensitive)) == list(
        model.line_matches(lines, needle, pattern, case_sensitive)
    )


REGEX_LINES = ["def f(self):", "    def g(self, x):", "DEF H(SELF)", "self.def", "", "(self",
               "a\u0130\u212ab", "caf\u00e9 \U0001f600 k", "x" * 40 + "def y(self" + "x" * 40, "\u212a"]


@pytest.mark.parametrize(
    "source",
    [
        r"def \w+\(self", r"(?i)def \w+\(self", r"(?<=def )\w+", r"\Adef", r"self$", r"(?x) d e f",
        r"k|\u212a", r"\u212a", r"(?i)k", r"caf\u00e9 \U0001f600", r"x*", r"(self)", r"se(?i:LF)",
        r"[s]elf", r"\(self", r"a\u0130", r"^$", r"(?s).", r"\bdef\b",
    ],
)
def test_regexes_with_literals_match_the_model(source: str) -> None:
    pattern = re.compile(source)
    for lines in (REGEX_LINES, [line.upper() for line in REGEX_LINES], REGEX_LINES[::-1]):
        assert list(native.line_matches(lines, None, pattern, True)) == list(
            model.line_matches(lines, None, pattern, True)
        )


def test_a_bytes_pattern_still_fails_on_str_lines() -> None:
    for impl in (native, model):
        found = impl.line_matches(["abc", "xyz"], None, re.compile(b"xyz"), True)
        with pytest.raises(TypeError, match="cannot use a bytes pattern on a string-like object"):
            next(found)


def test_many_patterns() -> None:
    lines = [f"line {n} holds {n * 7}" for n in range(50)]
    for n in range(600):
        pattern = re.compile(f"holds {n}")
        assert list(native.line_matches(lines, None, pattern, True)) == list(
            model.line_matches(lines, None, pattern, True)
        )


BIG = [2**31, 2**62, 2**63 - 1, 2**63, 2**64, 10**30]
INTEGERS = st.one_of(st.integers(-8, 12), st.sampled_from(BIG + [-b for b in BIG]), st.integers())


@settings(max_examples=800)
@given(size=st.integers(0, 6), first=INTEGERS, last=INTEGERS, start=st.one_of(INTEGERS, st.none()),
       shift=st.one_of(st.just(0), st.sampled_from(BIG + [-b for b in BIG])))
def test_context_matches_the_model(size: int, first: int, last: int, start: int | None, shift: int) -> None:
    lines = [f"line {n}" for n in range(size)]
    # Shifted together, the three numbers keep a non-empty answer at any size of integer.
    if start is not None:
        first, last, start = first + shift, last + shift, start + shift
    args = (lines, first, last) if start is None else (lines, first, last, start)
    got = native.context(*args)
    want = model.context(*args)
    assert got == want
    assert [list(record.items()) for record in got] == [list(record.items()) for record in want]
    first_number = 1 if start is None else start
    assert all(record["content"] is lines[record["line"] - first_number] for record in got)


@pytest.mark.parametrize(
    "lines",
    [("a", "b", "c"), "abc", {2: "x", 1: "y", 0: "z"}],
    ids=["tuple", "str", "mapping"],
)
def test_context_over_other_sequences(lines: Any) -> None:
    assert native.context(lines, 0, 5) == model.context(lines, 0, 5)


@pytest.mark.parametrize(
    ("args", "message"),
    [
        ((["a"], 1.0, 2), "'float' object cannot be interpreted as an integer"),
        ((["a"], 1, "2"), "'<' not supported between instances of 'int' and 'str'"),
        ((["a"], 1, 2, None), "'>' not supported between instances of 'NoneType' and 'int'"),
        ((5, 1, 2), "object of type 'int' has no len()"),
        ((["a"], 1), "missing 1 required positional argument: 'last'"),
        ((["a"], 1, 2, 3, 4), "takes at most 4 positional arguments|takes 4 positional arguments"),
    ],
)
def test_context_bad_arguments(args: tuple[Any, ...], message: str) -> None:
    with pytest.raises(TypeError, match=message):
        native.context(*args)
    with pytest.raises(TypeError):
        model.context(*args)


def test_context_takes_bounds_as_the_model_does() -> None:
    class Index:
        def __init__(self, value: int) -> None:
            self.value = value

        def __index__(self) -> int:
            return self.value

    # max() and min() compare the bounds before range() takes them: an integer only by
    # __index__ cannot be compared, and a float over an empty range is never taken.
    for impl in (native, model):
        with pytest.raises(TypeError, match="not supported between"):
            impl.context(["a", "b", "c"], Index(2), Index(3), Index(1))
        assert impl.context(["a", "b"], 5, 1, 1.5) == []
    assert native.context(["a", "b"], True, True) == model.context(["a", "b"], True, True)


# --- Laziness --------------------------------------------------------------------------------


class Recorder:
    """Lines handed out one at a time, remembering how many were taken."""

    def __init__(self, lines: list[str]) -> None:
        self.lines, self.taken = lines, 0

    def __iter__(self) -> Any:
        for line in self.lines:
            self.taken += 1
            yield line


@pytest.mark.parametrize("impl", [native, model], ids=["native", "model"])
@pytest.mark.parametrize("case_sensitive", [True, False])
def test_a_consumer_that_stops_early_leaves_the_rest(impl: Any, case_sensitive: bool) -> None:
    lines = Recorder(["no", "x here", "no", "x again"] + ["x"] * 1000)
    found = impl.line_matches(lines, "x", None, case_sensitive)
    assert lines.taken == 0
    assert next(found) == (2, 0)
    assert lines.taken == 2
    assert next(found) == (4, 0)
    assert lines.taken == 4


@pytest.mark.parametrize("impl", [native, model], ids=["native", "model"])
def test_errors_arrive_at_next(impl: Any) -> None:
    calls = [
        lambda: impl.line_matches(5, "x", None, True),  # not iterable
        lambda: impl.line_matches(["a"], 5, None, True),  # needle of the wrong type
        lambda: impl.line_matches(["a"], "a", object(), True),  # no search method
        lambda: impl.line_matches([b"a"], "a", None, False),  # bytes line: lower() then find(str)
        lambda: impl.line_matches([None], "a", None, True),
    ]
    for call in calls:
        found = call()
        error = outcome(lambda: next(found))
        assert error[0] == "error" and error[1] in (TypeError, AttributeError)
        assert list(found) == []  # ended for good
    assert list(impl.line_matches([], 5, object(), object())) == []


def test_errors_match_the_model() -> None:
    cases = [
        (5, "x", None, True),
        (["a"], 5, None, True),
        (["a"], None, None, False),
        (["a"], "a", object(), True),
        ([b"a"], "a", None, False),
        ([b"a"], b"a", None, True),
        ([None], "a", None, True),
        (["A"], "a", None, type("Flag", (), {"__bool__": lambda self: 1 / 0})()),
    ]
    for args in cases:
        assert outcome(lambda: list(native.line_matches(*args))) == outcome(lambda: list(model.line_matches(*args)))


class OddLine(str):
    """A line of a str subclass: its own lower() and find() are the ones used."""

    def lower(self) -> str:
        return "odd"

    def find(self, *args: Any) -> Any:
        return 7 if args[0] == "z" else -1


class Match:
    def __init__(self, start: Any) -> None:
        self._start = start

    def start(self) -> Any:
        return self._start


class Pattern:
    def __init__(self, starts: list[Any]) -> None:
        self.starts = starts

    def search(self, line: str) -> Any:
        start = self.starts.pop(0)
        return None if start is None else Match(start)


def test_host_objects_are_asked_as_the_host_asks_them() -> None:
    lines = [OddLine("ABC"), "abc", OddLine("x")]
    for needle, case_sensitive in (("odd", False), ("z", True), ("b", False)):
        assert list(native.line_matches(lines, needle, None, case_sensitive)) == list(
            model.line_matches(lines, needle, None, case_sensitive)
        )
    starts = [None, 0, -1, 3, 2.5, -0.5]
    assert list(native.line_matches(["l"] * 6, None, Pattern(list(starts)), True)) == list(
        model.line_matches(["l"] * 6, None, Pattern(list(starts)), True)
    ) == [(2, 0), (4, 3), (5, 2.5)]


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
    for impl in (native, model):
        holder: list[Any] = []

        class Reentrant:
            def search(self, line: str) -> Any:
                return next(holder[0])

        holder.append(impl.line_matches(["a"], None, Reentrant(), True))
        with pytest.raises(ValueError, match="generator already executing"):
            next(holder[0])


def test_line_matches_call_shape() -> None:
    with pytest.raises(TypeError, match=r"line_matches\(\) missing 1 required positional argument: 'case_sensitive'"):
        native.line_matches(["a"], "a", None)
    found = native.line_matches(lines=["ab"], needle="B", pattern=None, case_sensitive=False)
    assert iter(found) is found
    assert list(found) == []
    with pytest.raises(TypeError):
        type(found)()
