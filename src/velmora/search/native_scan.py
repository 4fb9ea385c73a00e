"""A plain search printed straight from the compressed layout's chunk bodies: each group of
chunks decoded, searched and printed in native code without the GIL, two groups at a time,
the output kept in the files' order."""

from __future__ import annotations

from collections import deque
from collections.abc import Callable, Collection, Iterable, Iterator
from concurrent.futures import Future, ThreadPoolExecutor
from pathlib import Path

from velmora import native
from velmora.output import printer
from velmora.output.line_format import FULL, Shape
from velmora.query.pattern import Query
from velmora.search import engine
from velmora.storage import chunk_store, codec
from velmora.storage.database import Database
from velmora.storage.file_rows import FileRow, Files

# One scan per core; the main thread reads the next group meanwhile.
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
    needle, case_sensitive = query.needle or "", query.case_sensitive
    pending: deque[tuple[engine.StoredGroup, Future]] = deque()
    with ThreadPoolExecutor(_THREADS) as pool:
        try:
            for group in groups:
                listed = [(row.id, row.path, layout.encoded(row.path)) for row in group.files]
                scan = pool.submit(
                    native.scan_chunks, dictionary, group.rows, listed, chunk_store.CHUNK_STRIDE,
                    needle, case_sensitive, layout.mode, max_count, layout.shape, layout.color,
                )
                pending.append((group, scan))
                if len(pending) > _THREADS:
                    yield from _merged(*pending.popleft(), layout)
            while pending:
                yield from _merged(*pending.popleft(), layout)
        finally:
            for _, scan in pending:
                scan.cancel()


def _merged(group: engine.StoredGroup, scan: Future, layout: _Layout) -> Iterator[bytes]:
    """The group's output, in one piece: the scan's, and that of the files read from disk,
    in order."""
    try:
        blocks, problem = scan.result()
    except native.DamagedChunk as error:
        raise codec.damaged(error) from None
    if group.disk_hits:
        at = dict(blocks)
        for position, row in enumerate(group.files):
            hits = group.disk_hits.get(row.id)
            if hits:
                at[position] = layout.block(row.path, hits)
        blocks = sorted(at.items())
    if blocks:
        yield layout.between.join(block for _, block in blocks)
    if problem is not None:
        raise ValueError(problem)
