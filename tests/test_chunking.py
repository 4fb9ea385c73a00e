"""Chunking, stored size, chunk lines and row ids: the native module against the model."""

from __future__ import annotations

import pytest
from hypothesis import given
from hypothesis import strategies as st

import model
import strategies
from velmora.storage import code_text as native


def assert_chunks_and_size_equal_the_model(text: str) -> None:
    chunks, expected = native.code_chunks(text), model.code_chunks(text)
    assert chunks == expected
    # A str wrongly flagged non-ASCII still compares equal; isascii() tells.
    assert [c[2].isascii() for c in chunks] == [c[2].isascii() for c in expected]
    assert native.stored_text_bytes(text) == model.stored_text_bytes(text)
    lines = [line for chunk in chunks for line in native._chunk_lines(*chunk)]
    assert lines == text.splitlines()


WIDTH_TEXTS = st.one_of(
    strategies.any_texts(),
    # One width at a time, so that every storage kind is exercised on its own.
    st.text(alphabet=st.sampled_from("ab \t\n\r\x0b\x0c\x1c\x1d\x1e"), max_size=300),
    st.text(alphabet=st.sampled_from("aé\xff\x85\n\r"), max_size=300),
    st.text(alphabet=st.sampled_from("a\u0100\u2028\u2029\x85\n\r"), max_size=300),
    st.text(alphabet=st.sampled_from("a\U0001f600\u2028\x85\n\r"), max_size=300),
)


@given(WIDTH_TEXTS)
def test_chunks_and_sizes_equal_the_model(text: str) -> None:
    assert_chunks_and_size_equal_the_model(text)


@given(st.integers(-3, 3), st.integers(-3, 3), strategies.texts())
def test_chunk_lines_equal_the_model(start: int, end: int, text: str) -> None:
    assert native._chunk_lines(start, end, text) == model._chunk_lines(start, end, text)


@pytest.mark.parametrize("file_id", [0, 7, -1, 2**40, 2**70, True])
def test_file_rowids_equal_the_model(file_id: int) -> None:
    assert native.file_rowids(file_id) == model.file_rowids(file_id)


# The text is read in blocks of 16 and 64 code points. `lead` (which also sets the width)
# and `pad` put the boundary at the last place of a block or the first of the next, so a
# CR LF may straddle two blocks; the tail ends in a partial block.
@pytest.mark.parametrize("lead", ["", "\xe9", "\u0100", "\u8000", "\U0001f600"])
@pytest.mark.parametrize("pad", [14, 15, 62, 63, 64])
@pytest.mark.parametrize("boundary", ["\r\n", "\r", "\n", "\x85", "\u2028", "\u2029"])
def test_boundaries_at_block_edges(lead: str, pad: int, boundary: str) -> None:
    head = lead + "a" * pad + boundary
    for tail in ["", "z", boundary, "z" * pad + boundary + "\n"]:
        assert_chunks_and_size_equal_the_model(head + "b\n" * 63 + "c" * pad + boundary + tail)
        assert_chunks_and_size_equal_the_model(boundary * (pad + 1) + tail + lead)


# Chunks narrower than their text (ASCII chunks of a text made wide by its last line), and
# stored sizes counted in narrow lanes over long runs of the code points that move them most.
@pytest.mark.parametrize(
    "text",
    [("x = 1\n" * 150 + "\u0100"), ("x = 1\r\n" * 150 + "\U0001f600"), ("caf\xe9 \u2028" * 150 + "\u2029"),
     ("\u8000\uffff\u0100\n" * 150 + "\U0010ffff"), ("\ud800 \u4e00\n" * 150 + "\U0001f600")]
    + [unit * (300_000 // len(unit)) + tail for unit in ["\uffff", "\r\n\u0100", "\x85", "\ud800", "\u2028",
                                                        "\r\n\U0001f600"] for tail in ["", "\r"]],
)
def test_long_and_mixed_width_texts(text: str) -> None:
    assert_chunks_and_size_equal_the_model(text)


# Anchors for the model itself: where the differential tests would agree on a wrong answer.
@pytest.mark.parametrize(
    ("text", "ranges", "size"),
    [
        ("", [(1, 0)], 0), ("\n", [(1, 1)], 0), ("a\r\nb\r\n", [(1, 2)], 3), ("a\n\rb", [(1, 3)], 4),
        ("\ud800", [(1, 1)], 1), ("\u00e9\u2029\U0001f600", [(1, 2)], 7), ("a\x1fb", [(1, 1)], 3),
        ("l\n" * 64, [(1, 64)], 127), ("l\x85" * 65, [(1, 64), (65, 65)], 129),
    ],
)
def test_documented_chunks(text: str, ranges: list[tuple[int, int]], size: int) -> None:
    for impl in (native, model):
        assert [chunk[:2] for chunk in impl.code_chunks(text)] == ranges
        assert impl.stored_text_bytes(text) == size
