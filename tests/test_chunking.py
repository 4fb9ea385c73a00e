"""Chunking, stored size and row ids: the native module against the model."""

from __future__ import annotations


import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

import model
import strategies
from velmora.storage import code_text as native


def assert_same_str(got: str, want: str) -> None:
    # A str stored wider than its content (not canonical) compares unequal to the right
    # one; one wrongly flagged non-ASCII still compares equal, but isascii() tells. (Sizes
    # cannot tell: a cached UTF-8 copy, as on the shared one-character strs, adds to them.)
    assert got == want
    assert got.isascii() == want.isascii()


def assert_chunks_and_size_equal_the_model(text: str) -> None:
    chunks = native.code_chunks(text)
    expected = model.code_chunks(text)
    assert [c[:2] for c in chunks] == [c[:2] for c in expected]
    for (_, _, got), (_, _, want) in zip(chunks, expected):
        assert_same_str(got, want)
    assert native.stored_text_bytes(text) == model.stored_text_bytes(text)


WIDTH_TEXTS = st.one_of(
    strategies.any_texts(),
    # One width at a time, so that every storage kind is exercised on its own.
    st.text(alphabet=st.sampled_from("ab \t\n\r\x0b\x0c\x1c\x1d\x1e"), max_size=300),
    st.text(alphabet=st.sampled_from("aé\xff\x85\n\r"), max_size=300),
    st.text(alphabet=st.sampled_from("a\u0100\u2028\u2029\x85\n\r"), max_size=300),
    st.text(alphabet=st.sampled_from("a\U0001f600\u2028\x85\n\r"), max_size=300),
)


@settings(max_examples=400)
@given(WIDTH_TEXTS)
def test_chunks_and_sizes_equal_the_model(text: str) -> None:
    assert_chunks_and_size_equal_the_model(text)


@settings(max_examples=200)
@given(strategies.any_texts())
def test_chunks_read_back_as_the_texts_lines(text: str) -> None:
    lines = []
    for start, end, chunk in native.code_chunks(text):
        piece = native._chunk_lines(start, end, chunk)
        assert len(piece) == max(end - start + 1, 0)
        lines.extend(piece)
    assert lines == text.splitlines()
    stored = [c[2].encode("utf-8", "replace") for c in native.code_chunks(text)]
    assert native.stored_text_bytes(text) == sum(map(len, stored)) + len(stored) - 1


@given(st.integers(-3, 3), st.integers(-3, 3), strategies.texts())
def test_chunk_lines_equal_the_model(start: int, end: int, text: str) -> None:
    got = native._chunk_lines(start, end, text)
    want = model._chunk_lines(start, end, text)
    assert got == want
    for g, w in zip(got, want):
        assert_same_str(g, w)


@pytest.mark.parametrize("file_id", [0, 1, 7, -1, 2**40, 2**70, True])
def test_file_rowids_equal_the_model(file_id: int) -> None:
    assert native.file_rowids(file_id) == model.file_rowids(file_id)


# The text is read in blocks of 16 and 64 code points. `lead` (0 or 1 code point, which
# also sets the width) and `pad` put the boundary at the last place of a block or the
# first of the next, so a CR LF may straddle two blocks; the tail ends in a partial block.
@pytest.mark.parametrize(
    "lead", ["", "\xe9", "\u0100", "\u8000", "\U0001f600"], ids=["ascii", "ucs1", "ucs2", "ucs2-high", "ucs4"]
)
@pytest.mark.parametrize("pad", [14, 15, 16, 62, 63, 64])
@pytest.mark.parametrize("boundary", ["\r\n", "\r", "\n", "\x0c", "\x85", "\u2028"])
def test_boundaries_at_block_edges(lead: str, pad: int, boundary: str) -> None:
    head = lead + "a" * pad + boundary
    for tail in ["", "z", boundary, "z" * pad + boundary + "\n"]:
        assert_chunks_and_size_equal_the_model(head + "b\n" * 63 + "c" * pad + boundary + tail)
        assert_chunks_and_size_equal_the_model(boundary * (pad + 1) + tail + lead)


# Chunks narrower than their text: ASCII or Latin-1 chunks of a text made wide by its last
# line, BMP chunks (U+8000 and up too) of a text made wide by an astral one.
@pytest.mark.parametrize(
    ("line", "last"),
    [("x = 1", "\u0100"), ("x = 1", "\U0001f600"), ("caf\xe9 " * 9, "\u2029"),
     ("\u8000\uffff\u0100" * 9, "\U0010ffff"), ("\ud800 \u4e00" * 9, "\U0001f600")],
    ids=["ascii-of-ucs2", "ascii-of-ucs4", "ucs1-of-ucs2", "ucs2-high-of-ucs4", "surrogates-of-ucs4"],
)
@pytest.mark.parametrize("end", ["\n", "\r\n", "\u2028"])
def test_chunks_narrower_than_their_text(line: str, last: str, end: str) -> None:
    assert_chunks_and_size_equal_the_model((line + end) * 150 + last)


# Stored size counts in narrow lanes that are emptied now and then: long runs of the code
# points that move a lane most, in every width.
@pytest.mark.parametrize("unit", ["\uffff", "\r\n", "\r\n\u0100", "\xe9", "\x85", "\ud800",
                                  "\u2028", "\U0001f600", "\r\n\U0001f600"])
def test_stored_size_of_long_runs(unit: str) -> None:
    text = unit * (300_000 // len(unit))
    for tail in ["", "\r", "a"]:
        assert native.stored_text_bytes(text + tail) == model.stored_text_bytes(text + tail)


def test_large_text_chunk_count() -> None:
    text = "x = 1\n" * 100_000
    chunks = native.code_chunks(text)
    assert len(chunks) == 1563 and chunks[-1][:2] == (99_969, 100_000)
    assert native.stored_text_bytes(text) == len(text) - 1


@pytest.mark.parametrize(
    ("call", "message"),
    [
        (lambda: native.code_chunks(b"a\n"), "argument 'text' must be str, not bytes"),
        (lambda: native.code_chunks(None), "argument 'text' must be str, not NoneType"),
        (lambda: native.stored_text_bytes(5), "argument 'text' must be str, not int"),
        (lambda: native._chunk_lines(1, 2, ["a"]), "argument 'text' must be str, not list"),
        (lambda: native.file_rowids("3"), "argument 'file_id' must be int, not str"),
        (lambda: native.file_rowids(3.0), "argument 'file_id' must be int, not float"),
        (lambda: native.code_chunks(), "missing 1 required positional argument: 'text'"),
        (lambda: native.code_chunks("a", "b"), "takes 1 positional argument but 2 were given"),
        (lambda: native.code_chunks(txt="a"), "unexpected keyword argument 'txt'"),
        (lambda: native.code_chunks("a", text="a"), "multiple values for argument 'text'"),
        (lambda: native._chunk_lines("1", 2, "a"), "not supported between"),
        (lambda: native.text_kept_on_disk("json", "big"), "not supported between"),
        (lambda: native.text_kept_on_disk(["json"], 1), "unhashable type"),
    ],
)
def test_bad_arguments_raise_type_error(call, message: str) -> None:
    with pytest.raises(TypeError, match=message):
        call()


def test_keywords_are_accepted() -> None:
    assert native.code_chunks(text="a") == [(1, 1, "a")]
    assert native._chunk_lines(start_line=1, end_line=1, text="") == [""]
    assert native.text_kept_on_disk(language="json", text_bytes=32769) is True


class Text(str):
    pass


@pytest.mark.parametrize("text", ["", Text(""), Text("a"), Text("a\nb")])
def test_chunk_lines_give_what_the_hosts_split_gives(text: str) -> None:
    got, want = native._chunk_lines(1, 1, text), model._chunk_lines(1, 1, text)
    assert got == want and [type(x) for x in got] == [type(x) for x in want]
