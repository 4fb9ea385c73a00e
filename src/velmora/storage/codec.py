"""How chunk texts are compressed: zstd frames, with a dictionary trained on the indexed text.

Chunks are small (a few KB), so a plain compressor sees too little of a file to learn its
vocabulary; a dictionary trained once on a sample of the repository's text gives it that
vocabulary up front, and both smaller output and faster decoding follow.
"""

from __future__ import annotations

import sqlite3
from bisect import bisect_left
from collections.abc import Callable, Sequence
from concurrent.futures import Future, ThreadPoolExecutor
from functools import cache
from typing import Any

import zstandard

# Level 3 encodes at several times zlib's speed; higher levels shrink the index by a few
# percent for a build several times slower (measured in bench/bench_index.py).
LEVEL = 3
DICTIONARY_BYTES = 112_640
# Samples the indexer hands over for training: enough text for a good dictionary, little
# enough that training stays a small part of a build.
SAMPLE_BYTES = 8 << 20
# Below this much sample text a dictionary costs more room than it saves.
_MIN_SAMPLE_BYTES = 256 << 10
# The trainer's segment and d-mer sizes, fixed: left to itself it tries several and takes
# four times as long, for a ratio no better on code (bench/bench_index.py).
_SEGMENT_BYTES, _DMER_BYTES = 256, 8


class CodecError(sqlite3.DatabaseError):
    """A stored chunk body is not what the codec wrote: the index is damaged."""


def train(samples: Sequence[bytes]) -> bytes:
    """A dictionary trained on ``samples``; empty when they are too few to be worth one."""
    total = sum(map(len, samples))
    if total < _MIN_SAMPLE_BYTES:
        return b""
    size = min(DICTIONARY_BYTES, total // 64)
    try:
        return zstandard.train_dictionary(
            size, list(samples), k=_SEGMENT_BYTES, d=_DMER_BYTES, level=LEVEL
        ).as_bytes()
    except zstandard.ZstdError:
        return b""  # too little variety to learn from: frames go without one


class Encoder:
    """Compresses chunk texts; one per thread (a compressor is not shared between threads)."""

    def __init__(self, dictionary: bytes) -> None:
        self._compress = zstandard.ZstdCompressor(
            level=LEVEL,
            dict_data=_dictionary(dictionary),
            write_checksum=False,  # SQLite's pages carry the integrity checks
            write_content_size=True,
            write_dict_id=False,  # one dictionary per index
        ).compress

    def encode(self, text: str) -> bytes:
        return self._compress(text.encode("utf-8"))


class Decoder:
    """Decompresses chunk bodies written by an ``Encoder`` with the same dictionary."""

    def __init__(self, dictionary: bytes) -> None:
        self._decompress = zstandard.ZstdDecompressor(dict_data=_dictionary(dictionary)).decompress
        self._data = dictionary
        self._frames: Any = None  # the native decoder's dictionary, made when first needed

    def decode(self, body: bytes) -> str:
        try:
            return self._decompress(body).decode("utf-8")
        except _DAMAGE as error:
            raise damaged(error) from None

    def decode_many(self, bodies: list[Any], needle: bytes = b"") -> list[str | None]:
        """The texts of bodies as SQLite hands them, in order; None for a text whose UTF-8
        does not hold ``needle``, which is never turned into a str (most chunks of a search
        that the index cannot narrow).

        Frame by frame: python-zstandard's one call for many frames, even on two threads,
        decodes a search's groups more slowly (bench/bench_index.py).
        """
        try:
            return [
                data.decode("utf-8") if needle in data else None
                for data in map(self._decompress, bodies)
            ]
        except _DAMAGE as error:
            raise damaged(error) from None

    def start_matching(
        self, bodies: list[Any], search: Callable[[bytes, int], int]
    ) -> Callable[[], list[str | None]]:
        """As ``decode_many``, with None for a text in which ``search`` (the first offset at or
        after a start at which a pattern may match, or -1) finds nothing; the bodies start
        decoding at once, on a thread of their own, and the call returned waits for them.

        They are decoded natively into one buffer, without the GIL, so that a caller that
        searches one group while the next decodes keeps both cores busy. The buffer is searched
        a match at a time: only the texts a match starts in are made into strs."""
        from velmora import native

        if self._frames is None:
            self._frames = native.FrameDictionary(self._data)
        decoding = _decoding_thread().submit(native.decode_frames, self._frames, bodies)
        return lambda: _matching_texts(decoding, search)


def _matching_texts(decoding: Future, search: Callable[[bytes, int], int]) -> list[str | None]:
    # A match that starts at a text's end is the text's (an empty match at the end of its
    # last line), and the next search starts at the next text.
    from velmora import native

    try:
        buffer, ends = decoding.result()
    except native.DamagedChunk as error:
        raise damaged(error) from None
    texts: list[str | None] = [None] * len(ends)
    index, start = 0, 0
    while index < len(ends):
        at = search(buffer, start)
        if at < 0:
            break
        # The first text from here that ends at or after the match's start.
        index = bisect_left(ends, at, index)
        begin = ends[index - 1] if index else 0
        texts[index] = buffer[begin : ends[index]].decode("utf-8")
        start = ends[index]
        index += 1
    return texts


@cache
def _decoding_thread() -> ThreadPoolExecutor:
    return ThreadPoolExecutor(1, thread_name_prefix="velmora-decode")


def _dictionary(data: bytes) -> zstandard.ZstdCompressionDict | None:
    return zstandard.ZstdCompressionDict(data) if data else None


# What decoding a damaged body raises. A damaged frame header may claim any size, so a
# failed allocation is damage too.
_DAMAGE = (zstandard.ZstdError, UnicodeDecodeError, TypeError, MemoryError)


def damaged(error: object) -> CodecError:
    """The error for a body that cannot be read, and why."""
    return CodecError(f"a stored chunk cannot be read ({error})")
