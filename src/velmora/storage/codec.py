"""How chunk texts are compressed: zstd frames, with a dictionary trained on the indexed text.

Chunks are small (a few KB), so a plain compressor sees too little of a file to learn its
vocabulary; a dictionary trained once on a sample of the repository's text gives it that
vocabulary up front, and both smaller output and faster decoding follow.
"""

from __future__ import annotations

import sqlite3
from collections.abc import Sequence
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

    def frames(self) -> Any:
        """The dictionary as the native decoder takes it (``native.FrameDictionary``)."""
        from velmora import native

        if self._frames is None:
            self._frames = native.FrameDictionary(self._data)
        return self._frames


def _dictionary(data: bytes) -> zstandard.ZstdCompressionDict | None:
    return zstandard.ZstdCompressionDict(data) if data else None


# What decoding a damaged body raises. A damaged frame header may claim any size, so a
# failed allocation is damage too.
_DAMAGE = (zstandard.ZstdError, UnicodeDecodeError, TypeError, MemoryError)


def damaged(error: object) -> CodecError:
    """The error for a body that cannot be read, and why."""
    return CodecError(f"a stored chunk cannot be read ({error})")
