"""The chunks of the searched files that may hold a match, read a group of files at a time."""

from __future__ import annotations

from array import array
from bisect import bisect_left
from collections import deque
from collections.abc import Callable, Collection, Iterator
from functools import partial
from typing import NamedTuple

from velmora.query.prefilter import Search
from velmora.storage import chunk_counts, chunk_store
from velmora.storage.database import Database
from velmora.storage.file_rows import FileRow, Files
from velmora.storage.layouts import ChunkLayout, PickedRow

STRIDE = chunk_store.CHUNK_STRIDE
# Chunks held at once: a few MB of text, whatever the size of the corpus.
_GROUP_CHUNKS = 1024
# Files per group when every chunk of a file is read.
_GROUP_FILES = 64
# Groups read ahead of the one searched, so that each scan thread has one to pick.
_PICKED_AHEAD = 2


class ReadChunk(NamedTuple):
    """A stored chunk as a group read gives it: its first and last line, its lines joined by
    LF, whether it is its file's last (False when not asked for), and the 0-based indexes of
    the only lines that may match (None: any line may)."""

    first: int
    end: int
    text: str
    last: bool
    picked: list[int] | None


def chunk_lines(first: int, end: int, text: str) -> list[str]:
    """A stored chunk's lines: its text split at each LF (no other character ends a line
    there), and none for the one chunk of a file without a line, numbered 1 to 0."""
    return text.split("\n") if end >= first else []


def file_chunks(
    db: Database,
    layout: ChunkLayout,
    files: Files,
    plan: str | None,
    keep: Collection[int],
    *,
    with_last: bool,
    holding: str | None,
    widened: Search | None = None,
) -> Iterator[tuple[FileRow, list[ReadChunk]]]:
    """The files with those of their chunks that the full-text query ``plan`` lets through
    (every chunk when it is None), in the order of ``files``. A file without such a chunk is
    left out, unless its id is in ``keep`` (it then comes with an empty list).

    ``with_last`` asks for each chunk's ``last`` flag. ``holding``, when given, is a text
    that every chunk let through holds (chunks without it may be left out as they are read),
    and ``widened`` a pattern's widened search, which every chunk let through matches.
    A chunk that the index has lost is a ``chunk_counts.MissingChunks``."""
    if widened is None:
        read = partial(layout.group_rows, db, with_last=with_last, holding=holding)
        for group, rows in _read_groups(db, layout, files, plan, keep, read):
            yield from _by_file(group, ((rowid, (*chunk, None)) for rowid, *chunk in rows))
        return
    picking = partial(layout.picked_rows, db, with_last=with_last, widened=widened)
    pending: deque[tuple[list[FileRow], Callable[[], list[PickedRow]]]] = deque()
    # The next groups are read, and picked on the scan threads, while this one is searched.
    for group, picked in _read_groups(db, layout, files, plan, keep, picking):
        pending.append((group, picked))
        if len(pending) > _PICKED_AHEAD:
            yield from _picked_by_file(*pending.popleft())
    while pending:
        yield from _picked_by_file(*pending.popleft())


def _picked_by_file(group: list[FileRow], picked) -> Iterator[tuple[FileRow, list[ReadChunk]]]:
    rows = picked if isinstance(picked, list) else picked()  # a list: a group without chunks
    return _by_file(group, ((rowid, chunk) for rowid, *chunk in rows))


def _by_file(group: list[FileRow], chunks) -> Iterator[tuple[FileRow, list[ReadChunk]]]:
    """The group's files with their chunks, from (row id, the chunk's fields) in order."""
    found: dict[int, list[ReadChunk]] = {}
    for rowid, chunk in chunks:
        found.setdefault(rowid // STRIDE, []).append(_new_chunk(ReadChunk, chunk))
    for row in group:
        yield row, found.pop(row.id, [])


def _read_groups(db, layout: ChunkLayout, files, plan: str | None, keep: Collection[int], read):
    """The planned groups' files, each group's with what ``read(files, wanted, whole_files)``
    gives for its chunks (nothing when it wants none)."""
    for group, wanted, whole_files in planned_groups(db, layout, files, plan, keep):
        yield group, read(group, wanted, whole_files) if wanted else []


class PlannedGroup(NamedTuple):
    """A group of files and which of their chunks to read: the chunks' row ids, or with
    ``whole_files`` the files' ids, every chunk of which is read (none when empty)."""

    files: list[FileRow]
    wanted: list[int]
    whole_files: bool


def planned_groups(
    db: Database, layout: ChunkLayout, files: Files, plan: str | None, keep: Collection[int],
) -> Iterator[PlannedGroup]:
    """The files with a chunk that the full-text query ``plan`` lets through (every file
    when it is None), or in ``keep``, in the order of ``files``, a group at a time and
    unread: each group with which of its chunks to read, for a reader of the caller's
    choice (``layout.group_bodies``, or a native one)."""
    db.kept(("totals", layout.name), lambda: chunk_counts.check_totals(db, layout))
    if plan is None:
        yield from _groups(files.every(), None)
        return
    rowids = layout.matching_ids(db, plan)
    wanted = {rowid // STRIDE for rowid in rowids}.union(keep)
    yield from _groups(files.among(wanted), rowids)


def _groups(files, rowids: array | None) -> Iterator[PlannedGroup]:
    """The files in groups, each with its chunks' row ids, or (``rowids`` None) its files'
    ids for whole files."""
    group: list[FileRow] = []
    wanted: list[int] = []
    for row in files:
        if rowids is None:
            wanted.append(row.id)
        else:
            low = bisect_left(rowids, row.id * STRIDE)
            high = bisect_left(rowids, (row.id + 1) * STRIDE, low)
            wanted.extend(rowids[low:high])
        group.append(row)
        if len(wanted) >= _GROUP_CHUNKS or (rowids is None and len(group) >= _GROUP_FILES):
            yield PlannedGroup(group, wanted, rowids is None)
            group, wanted = [], []
    if group:
        yield PlannedGroup(group, wanted, rowids is None)


# Makes a ReadChunk without the Python-level constructor of a named tuple.
_new_chunk = tuple.__new__
