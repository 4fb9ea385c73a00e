"""A plain search printed straight from the compressed layout's chunk bodies: each group of
chunks read, decoded, searched and printed in native code without the GIL, two groups at a
time, the output kept in the files' order."""

from __future__ import annotations

from collections import deque
from collections.abc import Callable, Collection, Iterable, Iterator
from concurrent.futures import Future, ThreadPoolExecutor
from functools import partial
from pathlib import Path

from velmora import native
from velmora.output import printer
from velmora.output.line_format import FULL, Shape
from velmora.query.pattern import Query
from velmora.search import engine
from velmora.storage import chunk_counts, chunk_reader, chunk_store, codec
from velmora.storage.database import Database
from velmora.storage.file_rows import FileRow, Files

# One scan per core; the main thread plans the next group meanwhile.
_THREADS = 2


def handles(query: Query) -> bool:
    """Whether the scan answers the query: a plain needle, ASCII when case is ignored."""
    return query.pattern is None and (query.case_sensitive or (query.needle or "").isascii())


def separator(mode: str, shape: Shape) -> bytes:
    """What goes between two files' output: a heading's blank line."""
    return shape.between_files(False).encode() if mode == "lines" else b""


def printed(
    db: Database,
    query: Query,
    files: Files | Iterable[FileRow],
    *,
    root: Path,
    mode: str,
    shown: Callable[[str], str],
    encoding: str = "utf-8",
    max_count: int | None = None,
    from_disk: Collection[int] = frozenset(),
    shape: Shape = FULL,
    color: bool = False,
) -> tuple[Iterator[bytes], str | None]:
    """The output of the matching files in ``mode`` ("lines", "count" or "files"), laid out by
    ``shape`` (without ``replace``), encoded, in the files' order, a group of files at a time
    (each piece's files, and the pieces, go apart by ``separator``), and why the files are
    read from disk (None if they aren't). The output is the printer's for the same hits;
    ``encoding`` must be a UTF-8 one (a name that is not UTF-8 keeps its bytes). ``root``
    is the repository the index ``db`` belongs to."""
    assert handles(query) and shape.replace is None
    layout = _Layout(query, mode, shape, color, shown, encoding)
    groups = engine.stored_groups(db, query, files, root=root, max_count=max_count, from_disk=from_disk)
    if groups is None:
        results, reason = engine.search(
            db, query, files, root=root, max_count=max_count, from_disk=from_disk
        )
        return (layout.block(path, hits) for path, hits in results), reason
    return _scanned(db, query, groups, layout, max_count), None


class _Layout:
    """How the search prints: the scan's arguments, and the printer's block for what the
    scan does not print itself."""

    def __init__(self, query: Query, mode: str, shape: Shape, color: bool, shown, encoding: str) -> None:
        self.query, self.mode, self.shape, self.color = query, mode, shape, color
        self.shown, self.encoding = shown, encoding
        self.between = separator(mode, shape)

    def encoded(self, path: str) -> bytes:
        return self.shown(path).encode(self.encoding, "surrogateescape")

    def block(self, path: str, hits) -> bytes:
        block = printer.plain_block(self.mode, self.shown(path), hits, self.query, self.shape, self.color)
        return block.encode(self.encoding, "surrogateescape")


def _scanned(db, query: Query, groups, layout: _Layout, max_count) -> Iterator[bytes]:
    assert db.layout is not None
    dictionary = native.FrameDictionary(db.layout.dictionary(db))
    reader = chunk_reader.of(db)
    needle, case_sensitive = query.needle or "", query.case_sensitive
    pending: deque[tuple[engine.StoredGroup, Future]] = deque()
    with ThreadPoolExecutor(_THREADS) as pool:
        try:
            for group in groups:
                files, wanted, whole_files = group.planned
                listed = [(row.id, row.path, layout.encoded(row.path))
                          for row in files if row.id not in group.disk_hits]
                scan = partial(_scan, dictionary, listed, needle, case_sensitive, layout, max_count)
                if not wanted:
                    pending.append((group, pool.submit(scan, [])))
                elif reader is None:
                    rows = db.layout.group_bodies(db, files, wanted, whole_files)
                    pending.append((group, pool.submit(scan, rows)))
                else:
                    pending.append((group, pool.submit(_read_and_scan, reader, wanted, whole_files, scan)))
                if len(pending) > _THREADS:
                    yield from _merged(db, *pending.popleft(), layout)
            while pending:
                yield from _merged(db, *pending.popleft(), layout)
        finally:
            for _, running in pending:
                running.cancel()


# What a group's scan gives: how many chunk rows were read (None: counted as they were
# read), and the scan's answer, or what it found wrong with a row. The count is checked
# first, as a read on the main thread checks it before the scan.
_Outcome = tuple[int | None, "tuple[bytes, list[tuple[int, int]], str | None] | Exception"]


def _scan(dictionary, listed, needle, case_sensitive, layout: _Layout, max_count, rows, read=None) -> _Outcome:
    try:
        return read, native.scan_chunks(
            dictionary, rows, listed, chunk_store.CHUNK_STRIDE, needle, case_sensitive, layout.mode,
            max_count, layout.shape, layout.color,
        )
    except (native.DamagedChunk, TypeError) as error:
        return read, error


def _read_and_scan(reader: native.ChunkReader, wanted: list[int], whole_files: bool, scan) -> _Outcome:
    """On a scan thread: the group's rows read and scanned, without the GIL but between."""
    rows = reader.read(wanted, whole_files, chunk_store.CHUNK_STRIDE)
    return scan(rows, len(rows))


def _merged(db, group: engine.StoredGroup, scan: Future, layout: _Layout) -> Iterator[bytes]:
    """The group's output, in one piece: the scan's, and that of the files read from disk,
    in order."""
    read, outcome = scan.result()
    files, wanted, whole_files = group.planned
    if read is not None:
        chunk_counts.check_read(db, files, None if whole_files else len(wanted), read)
    if isinstance(outcome, native.DamagedChunk):
        raise codec.damaged(outcome)
    if isinstance(outcome, Exception):
        raise outcome
    output, ends, problem = outcome
    if group.disk_hits:
        output = _with_disk_hits(group, output, ends, layout)
    elif layout.between and len(ends) > 1:
        output = layout.between.join(_blocks(output, ends))
    if output:
        yield output
    if problem is not None:
        raise ValueError(problem)


def _blocks(output: bytes, ends: list[tuple[int, int]]) -> Iterator[bytes]:
    """Each file's output in the scan's, which runs from the end of the one before."""
    begin = 0
    for _, end in ends:
        yield output[begin:end]
        begin = end


def _with_disk_hits(group: engine.StoredGroup, output: bytes, ends, layout: _Layout) -> bytes:
    """The scan's output of a group with that of its files read from disk, in the files' order."""
    files = group.planned.files
    # The scan numbers the files it was given: those not read from disk.
    scanned = [position for position, row in enumerate(files) if row.id not in group.disk_hits]
    at = {scanned[position]: block for (position, _), block in zip(ends, _blocks(output, ends))}
    for position, row in enumerate(files):
        hits = group.disk_hits.get(row.id)
        if hits:
            at[position] = layout.block(row.path, hits)
    return layout.between.join(block for _, block in sorted(at.items()))
