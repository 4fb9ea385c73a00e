"""Whether a search read every chunk the index says it holds: a lost chunk is an error, not
a silent loss of the matches it held."""

from __future__ import annotations

import json
from collections.abc import Sequence
from typing import TYPE_CHECKING

from velmora.storage import chunk_store

if TYPE_CHECKING:
    from velmora.storage.database import Database
    from velmora.storage.file_rows import FileRow
    from velmora.storage.layouts import ChunkLayout


class MissingChunks(ValueError):
    """The index lacks chunks that its ``files`` rows count."""


def check_totals(db: Database, layout: ChunkLayout) -> None:
    """The full-text index has one entry per chunk that the files count.

    Two totals, cheap to take: SQLite keeps one small row per indexed chunk beside the
    full-text index (its ``docsize`` table), and the counts have an index of their own.
    Covers a chunk lost with its entry, which no candidate brings back to be missed.
    """
    sizes = f"{layout.fts_table}_docsize"
    (entries, counted), = db.fetchall(
        f"SELECT (SELECT COUNT(*) FROM {sizes}), (SELECT total(chunks) FROM files)"
    )
    if entries != counted:
        # Only a damaged index gets here: the scan that finds the file is affordable.
        path = _short(db, chunk_store.rows_per_file_sql(sizes, "id"), "files", ())
        if path is not None:
            raise _missing(path)
        raise MissingChunks(f"its full-text index has {entries} entries for {int(counted)} chunks")


def check_read(
    db: Database, group: Sequence[FileRow], wanted: int | None, read: int
) -> None:
    """A group of files' chunk rows read from the compressed layout's table (``read``) are
    as many as were asked for: the ``wanted`` candidates that the trigram index named, or
    (None) every chunk that the files count.

    That layout's text and trigram index are separate tables, so a text row can go while
    its entry stays.  (``code_chunks`` holds both in one table: ``check_totals`` covers it.)
    """
    within = "(SELECT * FROM files WHERE id IN (SELECT value FROM json_each(?)))"
    ids = (json.dumps([row.id for row in group]),)
    if wanted is None:
        wanted = db.fetchall(f"SELECT total(chunks) FROM {within}", ids)[0][0]
    if read != wanted:
        path = _short(db, chunk_store.rows_per_file_sql(chunk_store.COMPRESSED_TABLE, "id"), within, ids)
        if path is not None:
            raise _missing(path)
        raise MissingChunks("its trigram index names chunks it does not hold")


def check_file(db: Database, layout: ChunkLayout, file_id: int, lines: int) -> None:
    """A file read whole from the index, outside a search, came back with every chunk it
    counts and as many ``lines`` as they number (nothing is checked for a file kept on disk)."""
    held, last = (layout.rows_per_file_sql(of) for of in ("COUNT(*)", "max(c.end_line)"))
    found = db.fetchall(
        f"SELECT path, chunks = {held}, coalesce({last}, 0) FROM files WHERE id = ? AND text_on_disk = 0",
        (file_id,),
    )
    if found and not found[0][1]:
        raise _missing(found[0][0])
    if found and found[0][2] != lines:
        raise MissingChunks(f"the chunks of {found[0][0]} number {found[0][2]} lines but hold {lines}")


def _short(db: Database, rows: str, files: str, parameters: tuple) -> str | None:
    """The path of one of ``files`` (a table or subquery) whose chunk ``rows`` (an SQL
    expression) are not as many as it counts."""
    short = db.fetchall(f"SELECT path FROM {files} AS files WHERE chunks != {rows} LIMIT 1", parameters)
    return short[0][0] if short else None


def _missing(path: str) -> MissingChunks:
    return MissingChunks(f"chunks of {path} are missing")
