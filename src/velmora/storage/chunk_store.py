"""Where the chunks of the indexed files' text are stored."""

from __future__ import annotations

from typing import Literal

# Row ids per file: a file's chunks take ids from id * stride, so the stride bounds the
# chunks of one file, and (id + 1) * stride must stay inside a signed 64-bit row id.
CHUNK_STRIDE = 1 << 20

CODE_CHUNKS_DDL = (
    "CREATE VIRTUAL TABLE IF NOT EXISTS code_chunks USING fts5("
    "start_line UNINDEXED, end_line UNINDEXED, text, exact UNINDEXED, tokenize='trigram')"
)

Layout = Literal["compressed", "code_chunks"]


def layout(db) -> Layout | None:
    """The layout of the index's chunks; None when it has no table of the files' text."""
    row = db.fetchone(
        "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'code_chunks'"
    )
    return "code_chunks" if row else None
