"""The lines of a group's chunks that a pattern's widened search may match, picked from the
compressed bodies on a scan thread, so that only those lines are ever judged by ``re``."""

from __future__ import annotations

from bisect import bisect_left
from collections.abc import Callable
from concurrent.futures import Future, ThreadPoolExecutor
from functools import cache
from typing import Any

# A chunk with a pick: its text, and the 0-based indexes of the lines picked, in order.
Picked = tuple[str, list[int]]
# The first byte offset at or after a start at which the widened pattern matches, or -1.
Search = Callable[[bytes, int], int]

# One per core: decoding and the widened search (RE2) run without the GIL.
_THREADS = 2


def start(frames: Any, bodies: list[Any], search: Search) -> Future[list[Picked | None]]:
    """Starts decoding ``bodies`` (zstd frames of the native dictionary ``frames``) and
    picking their lines; the future gives each body's ``Picked``, or None when nothing in
    it was picked (most chunks of a search the index cannot narrow: never made into a str).
    A damaged body is a ``native.DamagedChunk`` or a ``UnicodeDecodeError``."""
    return _pool().submit(_picked, frames, bodies, search)


def _picked(frames: Any, bodies: list[Any], search: Search) -> list[Picked | None]:
    from velmora import native

    buffer, ends = native.decode_frames(frames, bodies)
    return picks(buffer, ends, search)


def picks(buffer: bytes, ends: list[int], search: Search) -> list[Picked | None]:
    """The picks of texts laid end to end in ``buffer``, text i ending at ``ends[i]``.

    The widened pattern matches wherever the regex matches within a line, so its first match
    from a line's start never starts after the regex's first match in that line or any after
    it: each match found picks its own line, and the search goes on from the next line's
    start. A match at a text's end picks the text's last line (an empty match there), and the
    search goes on from the next text's start, where the same offset may pick its first."""
    found: list[Picked | None] = [None] * len(ends)
    count, find = buffer.count, buffer.find
    index, at = 0, search(buffer, 0) if ends else -1
    while at >= 0:
        # The first text from here that ends at or after the match's start.
        index = bisect_left(ends, at, index)
        begin = ends[index - 1] if index else 0
        end = ends[index]
        lines: list[int] = []
        line, counted = 0, begin  # ``line``: the LFs in buffer[begin:counted]
        while at <= end:
            line += count(b"\n", counted, at)
            lines.append(line)
            newline = find(b"\n", at, end)
            if newline < 0:
                at = search(buffer, end)
                break
            line, counted = line + 1, newline + 1
            at = search(buffer, counted)
            if at < 0:
                break
        found[index] = (buffer[begin:end].decode("utf-8"), lines)
        index += 1
        if index == len(ends):
            break
    return found


@cache
def _pool() -> ThreadPoolExecutor:
    return ThreadPoolExecutor(_THREADS, thread_name_prefix="velmora-pick")
