"""Whether a search read every chunk the index says it holds: a lost chunk is an error, not
a silent loss of the matches it held."""

from __future__ import annotations

import json
from collections.abc import Sequence
from typing import NoReturn

from velmora.db import Database
from velmora.storage import chunk_store, code_text


class MissingChunks(ValueError):
    """The index lacks chunks that its ``files`` rows count."""


def check_totals(db: Database, store: chunk_store.Layout) -> None:
    """The full-text index has one entry per chunk that the files count.

    Two totals, cheap to take: SQLite keeps one small row per indexed chunk beside the
    full-text index (its ``docsize`` table), and the counts have an index of their own.
    Covers a chunk lost with its entry, which no candidate brings back to be missed.
    """
    sizes = f"{chunk_store.fts_table(store)}_docsize"
    (entries, counted), = db.fetchall(
        f"SELECT (SELECT COUNT(*) FROM {sizes}), (SELECT total(chunks) FROM files)"
    )
    if entries != counted:
        _raise(db, sizes, "files", (), f"its full-text index has {entries} entries for {int(counted)} chunks")


def check_read(
    db: Database, group: Sequence[code_text.FileRow], wanted: int | None, read: int
) -> None:
    """A group of files' chunk rows read from the compressed layout's table (``read``) are
    as many as were asked for: the ``wanted`` candidates that the trigram index named, or
    (None) every chunk that the files count.

    That layout's text and trigram index are separate tables, so a text row can go while
    its entry stays.  (``code_chunks`` holds both in one table: ``check_totals`` covers it.)
    """
    within = "(SELECT * FROM files WHERE id IN (SELECT value FROM json_each(?)))"
    ids = (json.dumps([row[0] for row in group]),)
    if wanted is None:
        wanted = db.fetchall(f"SELECT total(chunks) FROM {within}", ids)[0][0]
    if read != wanted:
        _raise(db, chunk_store.COMPRESSED_TABLE, within, ids, "its trigram index names chunks it does not hold")


def _raise(db: Database, table: str, files: str, parameters: tuple, otherwise: str) -> NoReturn:
    # Only a damaged index gets here: the scan that finds the file is affordable.  Both
    # tables keep their row ids in "id".
    rows = chunk_store.rows_per_file_sql(table, "id")
    short = db.fetchall(f"SELECT path FROM {files} AS files WHERE chunks != {rows} LIMIT 1", parameters)
    raise MissingChunks(f"chunks of {short[0][0]} are missing" if short else otherwise)
