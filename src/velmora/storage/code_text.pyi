"""The text of the indexed files, as ``search code`` reads it: chunks in the index, or the disk."""

import re
import sqlite3
from pathlib import Path
from typing import Any, Collection, Iterator, NamedTuple, Sequence, TypeAlias

from typing_extensions import disjoint_base

from velmora.storage.database import Database
from velmora.storage import chunk_store as chunk_store
from velmora.storage.chunk_store import Layout as Layout
from velmora.storage.chunk_store import layout as layout
from velmora.utils.fsio import read_bytes_no_follow as read_bytes_no_follow

CODE_CHUNK_STRIDE: int
CODE_CHUNKS_DDL: str
CODE_CHUNK_LINES: int
LARGE_DATA_LANGUAGES: frozenset[str]
LARGE_DATA_TEXT_BYTES: int
FileRow: TypeAlias = tuple[int, str, str, str | None]

def code_chunks(text: str) -> list[tuple[int, int, str]]: ...
def stored_text_bytes(text: str) -> int: ...
def text_kept_on_disk(language: str, text_bytes: int) -> bool: ...
def file_rowids(file_id: int) -> tuple[int, int]: ...

_CHUNKED_TEXT_BYTES_SQL: str

def keep_large_data_on_disk(cursor: sqlite3.Cursor) -> int: ...
def _file_text(path: Path) -> str | None: ...
def _lines_holding(path: Path, needle: str | None, case_sensitive: bool) -> list[str] | None: ...
def line_matches(
    lines: list[str], needle: str, pattern: re.Pattern[str] | None, case_sensitive: bool
) -> Iterator[tuple[int, int]]: ...
def context(lines: list[str], first: int, last: int, start: int = 1) -> list[dict[str, Any]]: ...
def _chunk_lines(start_line: int, end_line: int, text: str) -> list[str]: ...

class Segment(NamedTuple):
    first: int
    lines: list[str]
    last: bool

@disjoint_base
class DiskText:
    _root: Path
    _needle: str | None
    _case_sensitive: bool
    _read: tuple[int, list[str] | None] | None
    def __init__(self, repo_root: Path, needle: str | None, case_sensitive: bool) -> None: ...
    def segments(self, file_id: int, path: str) -> list[Segment]: ...
    def lines(self, file_id: int, path: str) -> list[str]: ...
    def _load(self, file_id: int, path: str) -> list[str] | None: ...

@disjoint_base
class ChunkText:
    _db: Database
    _store: Layout
    _candidates: dict[int, list[Segment]]
    _disk: DiskText
    _on_disk: Collection[int]
    _read: tuple[int, list[str]] | None
    def __init__(
        self,
        db: Database,
        store: Layout,
        candidates: dict[int, list[Segment]],
        disk: DiskText,
        on_disk: Collection[int],
    ) -> None: ...
    def segments(self, file_id: int, path: str) -> list[Segment]: ...
    def lines(self, file_id: int, path: str) -> list[str]: ...

def text_source(
    db: Database,
    files: Sequence[FileRow],
    needle: str | None,
    case_sensitive: bool,
    *,
    store: Layout | None,
) -> tuple[ChunkText | DiskText, str | None]: ...
def _chunk_state(db: Database, store: Layout) -> tuple[int, frozenset[int]]: ...
def _candidate_chunks(
    db: Database,
    store: Layout,
    files: Sequence[FileRow],
    needle: str | None,
    case_sensitive: bool,
) -> dict[int, list[Segment]]: ...
