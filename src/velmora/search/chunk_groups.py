"""The chunks of the searched files that may hold a match, read a group of files at a time."""

from __future__ import annotations

from array import array
from bisect import bisect_left
from collections.abc import Collection, Iterator, Sequence
from typing import NamedTuple

from velmora.storage import chunk_counts
from velmora.storage.database import Database
from velmora.storage import chunk_store, code_text

STRIDE = chunk_store.CHUNK_STRIDE
# Chunks held at once: a few MB of text, whatever the size of the corpus.
_GROUP_CHUNKS = 1024
# Files per group when every chunk of a file is read.
_GROUP_FILES = 64


class Chunk(NamedTuple):
    """One stored chunk: its first and last line, its lines joined by LF, and whether it is
    its file's last (False when not asked for)."""

    first: int
    end: int
    text: str
    last: bool


def file_chunks(
    db: Database,
    store: chunk_store.Layout,
    files: Sequence[code_text.FileRow],
    plan: str | None,
    keep: Collection[int],
    *,
    with_last: bool,
    holding: str | None,
) -> Iterator[tuple[code_text.FileRow, list[Chunk]]]:
    """The files with those of their chunks that the full-text query ``plan`` lets through
    (every chunk when it is None), in the order of ``files``. A file without such a chunk is
    left out, unless its id is in ``keep`` (it then comes with an empty list).

    ``with_last`` asks for each chunk's ``last`` flag. ``holding``, when given, is a text
    that every chunk let through holds (the ``code_chunks`` layout tests it as it reads).
    A chunk that the index has lost is a ``chunk_counts.MissingChunks``."""
    chunk_counts.check_totals(db, store)
    if plan is None:
        yield from _groups(db, store, files, None, with_last, holding)
        return
    rowids = array("q", sorted(chunk_store.matching_ids(db, plan, store)))
    with_chunks = {rowid // STRIDE for rowid in rowids}
    files = [row for row in files if row[0] in with_chunks or row[0] in keep]
    yield from _groups(db, store, files, rowids, with_last, holding)


def _groups(db, store, files, rowids: array | None, with_last: bool, holding: str | None):
    group: list[code_text.FileRow] = []
    wanted: list[int] = []  # the group's chunk row ids, or its file ids for whole files
    for row in files:
        if rowids is None:
            wanted.append(row[0])
        else:
            low = bisect_left(rowids, row[0] * STRIDE)
            high = bisect_left(rowids, (row[0] + 1) * STRIDE, low)
            wanted.extend(rowids[low:high])
        group.append(row)
        if len(wanted) >= _GROUP_CHUNKS or (rowids is None and len(group) >= _GROUP_FILES):
            yield from _read_group(db, store, group, wanted, rowids is None, with_last, holding)
            group, wanted = [], []
    if group:
        yield from _read_group(db, store, group, wanted, rowids is None, with_last, holding)


def _read_group(db, store, group, wanted: list[int], whole_files: bool, with_last: bool, holding):
    found: dict[int, list[Chunk]] = {}
    if wanted:
        for rowid, start, end, text, last in _chunk_rows(db, store, group, wanted, whole_files, with_last, holding):
            found.setdefault(rowid // STRIDE, []).append(_new_chunk(Chunk, (start, end, text, last)))
    for row in group:
        yield row, found.pop(row[0], [])


def _chunk_rows(db, store, group, wanted: list[int], whole_files: bool, with_last: bool, holding):
    """(row id, first line, last line, text, last flag) of the chunks, each file's in order."""
    table, key = chunk_store.chunk_table(store)
    text = "coalesce(c.exact, c.text)" if store == "code_chunks" else "c.body"
    if whole_files:
        where = f"c.{key} >= w.value * {STRIDE} AND c.{key} < (w.value + 1) * {STRIDE}"
    else:
        where = f"c.{key} = w.value"
    parameters: tuple = ("[" + ",".join(map(str, wanted)) + "]",)
    if holding is not None and store == "code_chunks":
        # SQLite tests the text far faster than the rows can be handed to Python.
        where += " AND instr(c.text, ?)"
        parameters += (holding,)
    last = f"NOT EXISTS (SELECT 1 FROM {table} n WHERE n.{key} = c.{key} + 1)" if with_last else "0"
    rows = db.rows(
        f"SELECT c.{key}, c.start_line, c.end_line, {text}, {last} "
        # The files' order first, then each file's chunks by row id.
        f"FROM json_each(?) w CROSS JOIN {table} c ON {where}",
        parameters,
    )
    if store == "code_chunks":
        return rows
    # A text holds the needle exactly when its UTF-8 holds the needle's: tested on the bytes,
    # a chunk without it costs neither a str nor a row.
    rows = list(rows)
    chunk_counts.check_read(db, group, None if whole_files else len(wanted), len(rows))
    needle = b"" if holding is None else holding.encode("utf-8")
    texts = chunk_store._codec(db).decode_many([row[3] for row in rows], needle)
    return (
        (rowid, start, end, text, last)
        for (rowid, start, end, _, last), text in zip(rows, texts)
        if text is not None
    )


# Makes a Chunk without the Python-level constructor of a named tuple.
_new_chunk = tuple.__new__
