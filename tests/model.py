"""The text of the indexed files, as ``search code`` reads it: chunks in the index, or the disk."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, Collection, Iterator, NamedTuple, Sequence

from velmora.storage import chunk_store
from velmora.storage.chunk_store import Layout
from velmora.utils.fsio import read_bytes_no_follow

if TYPE_CHECKING:
    import re
    import sqlite3
    from pathlib import Path

    from velmora.storage.database import Database

CODE_CHUNK_STRIDE = chunk_store.CHUNK_STRIDE
CODE_CHUNKS_DDL = chunk_store.CODE_CHUNKS_DDL

CODE_CHUNK_LINES = 64
LARGE_DATA_LANGUAGES = frozenset({"json"})
LARGE_DATA_TEXT_BYTES = 32768
FileRow = tuple[int, str, str, str | None]


def code_chunks(text: str) -> list[tuple[int, int, str]]:
    """The chunks of a file's text: (first line, last line, text), in line order."""
    lines = text.splitlines()
    if not lines:
        return [(1, 0, "")]
    return [(start + 1, min(start + CODE_CHUNK_LINES, len(lines)), "\n".join(lines[start : start + CODE_CHUNK_LINES]))
            for start in range(0, len(lines), CODE_CHUNK_LINES)]


def stored_text_bytes(text: str) -> int:
    """The UTF-8 bytes of a text as its chunks hold it: its lines joined by one LF each."""
    return len("\n".join(text.splitlines()).encode("utf-8", errors="replace"))


def text_kept_on_disk(language: str, text_bytes: int) -> bool:
    """Whether the index keeps a file's text on disk rather than in its chunks."""
    return language in LARGE_DATA_LANGUAGES and text_bytes > LARGE_DATA_TEXT_BYTES


def file_rowids(file_id: int) -> tuple[int, int]:
    """The row ids of a file's chunks, as a half-open range (first, end)."""
    return file_id * CODE_CHUNK_STRIDE, (file_id + 1) * CODE_CHUNK_STRIDE


_CHUNKED_TEXT_BYTES_SQL = (
    "(SELECT coalesce(sum(length(CAST(coalesce(c.exact, c.text) AS BLOB)) + 1), 1) - 1"
    " FROM code_chunks c WHERE c.rowid >= f.id * " + str(CODE_CHUNK_STRIDE)
    + " AND c.rowid < (f.id + 1) * " + str(CODE_CHUNK_STRIDE) + ")"
)


def keep_large_data_on_disk(cursor: sqlite3.Cursor) -> int:
    """Drop the chunks of the large data files and mark their text as kept on disk."""
    probe = cursor.execute("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'code_chunks'")
    if probe.fetchone() is None:
        return 0
    placeholders = ",".join("?" for _ in LARGE_DATA_LANGUAGES)
    rows = cursor.execute(
        "SELECT f.id, f.language, " + _CHUNKED_TEXT_BYTES_SQL
        + " FROM files f WHERE f.text_on_disk = 0 AND f.language IN (" + placeholders + ")",
        sorted(LARGE_DATA_LANGUAGES),
    ).fetchall()
    marked = []
    for row in rows:
        file_id, language, text_bytes = int(row[0]), str(row[1]), int(row[2])
        if text_kept_on_disk(language, text_bytes):
            marked.append(file_id)
    for file_id in marked:
        cursor.execute("DELETE FROM code_chunks WHERE rowid >= ? AND rowid < ?", file_rowids(file_id))
    cursor.executemany("UPDATE files SET text_on_disk = 1 WHERE id = ?", [(file_id,) for file_id in marked])
    return len(marked)


def _file_text(path: Path) -> str | None:
    """The text of an indexed file on disk (UTF-8, undecodable bytes replaced); None when it
    cannot be read, or is a symlink (``utils.fsio.read_bytes_no_follow``: a file replaced by a
    symlink to one outside the repository is not read until the watcher indexes it again)."""
    try:
        return read_bytes_no_follow(path).decode("utf-8", errors="replace")
    except (OSError, ValueError):
        return None


def _lines_holding(path: Path, needle: str | None, case_sensitive: bool) -> list[str] | None:
    """The lines of a file; None when it cannot be read or does not hold ``needle``."""
    content = _file_text(path)
    if content is None:
        return None
    if needle is not None:
        searched = content if case_sensitive else content.lower()
        if needle not in searched:
            return None
    return content.splitlines()


def line_matches(lines: list[str], needle: str, pattern: re.Pattern[str] | None,
                 case_sensitive: bool) -> Iterator[tuple[int, int]]:
    """The line number and column of the first match on each line that matches."""
    for number, line in enumerate(lines, 1):
        if pattern is not None:
            found = pattern.search(line)
            column = found.start() if found is not None else -1
        else:
            column = (line if case_sensitive else line.lower()).find(needle)
        if column >= 0:
            yield number, column


def context(lines: list[str], first: int, last: int, start: int = 1) -> list[dict[str, Any]]:
    """Lines ``first`` to ``last`` (1-based, clipped to ``lines``), each with its number."""
    low = max(first, start)
    high = min(last, start + len(lines) - 1)
    return [{"line": number, "content": lines[number - start]} for number in range(low, high + 1)]


def _chunk_lines(start_line: int, end_line: int, text: str) -> list[str]:
    """The lines of one stored chunk: its text split at each LF."""
    if end_line >= start_line:
        return text.split("\n")
    return []


class Segment(NamedTuple):
    """Lines of a file in a row, where a text search looks for matches."""

    first: int
    lines: list[str]
    last: bool


class DiskText:
    """The text of the files, read from disk when searched."""

    def __init__(self, repo_root: Path, needle: str | None, case_sensitive: bool) -> None:
        self._root = repo_root
        self._needle = needle
        self._case_sensitive = case_sensitive
        self._read: tuple[int, list[str] | None] | None = None

    def segments(self, file_id: int, path: str) -> list[Segment]:
        """The file whole, as one segment; none when it cannot hold a match."""
        lines = self._load(file_id, path)
        if lines is None:
            return []
        return [Segment(1, lines, True)]

    def lines(self, file_id: int, path: str) -> list[str]:
        """Every line of the file (the last file read is kept)."""
        lines = self._load(file_id, path)
        if not lines:
            return []
        return lines

    def _load(self, file_id: int, path: str) -> list[str] | None:
        """The lines of the file; None when it cannot be read or does not hold the needle."""
        if self._read is None or self._read[0] != file_id:
            lines = _lines_holding(self._root / path, self._needle, self._case_sensitive)
            self._read = (file_id, lines)
        return self._read[1]


class ChunkText:
    """The text of the files from the chunks of the index that may hold a match, and from disk
    for the files whose text the index keeps there."""

    def __init__(self, db: Database, store: Layout, candidates: dict[int, list[Segment]], disk: DiskText,
                 on_disk: Collection[int]) -> None:
        self._db = db
        self._store = store
        self._candidates = candidates
        self._disk = disk
        self._on_disk = on_disk
        self._read: tuple[int, list[str]] | None = None

    def segments(self, file_id: int, path: str) -> list[Segment]:
        """The chunks of the file that may hold a match, by line (the file whole from disk)."""
        if file_id in self._on_disk:
            return self._disk.segments(file_id, path)
        return self._candidates.get(file_id, [])

    def lines(self, file_id: int, path: str) -> list[str]:
        """Every line of the file, from all of its chunks (the last file read is kept)."""
        if file_id in self._on_disk:
            return self._disk.lines(file_id, path)
        if self._read is None or self._read[0] != file_id:
            first, end = file_rowids(file_id)
            if self._store == "compressed":
                rows = chunk_store.file_rows(self._db, first, end)
            else:
                rows = self._db.fetchall("SELECT start_line, end_line, coalesce(exact, text) FROM code_chunks"
                                         " WHERE rowid >= ? AND rowid < ? ORDER BY rowid", (first, end))
            lines: list[str] = []
            for row in rows:
                lines.extend(_chunk_lines(row[0], row[1], row[2]))
            self._read = (file_id, lines)
        return self._read[1]


def text_source(db: Database, files: Sequence[FileRow], needle: str | None, case_sensitive: bool, *,
                store: Layout | None) -> tuple[ChunkText | DiskText, str | None]:
    """Where a text search reads the files: their chunks in the index, or the disk."""
    # The index lives two directories below the repository root.
    disk = DiskText(db.db_path.parent.parent.parent, needle, case_sensitive)
    if store is None:
        return disk, "read from the files on disk: this index has no table of the files' text"
    unchunked, on_disk = _chunk_state(db, store)
    if unchunked != 0:
        return disk, ("read from the files on disk: " + str(unchunked)
                      + " indexed file(s) have no chunks yet (the next index pass parses them)")
    candidates = _candidate_chunks(db, store, files, needle, case_sensitive)
    return ChunkText(db, store, candidates, disk, on_disk), None


def _chunk_state(db: Database, store: Layout) -> tuple[int, frozenset[int]]:
    """How many indexed files that should have chunks have none (the indexer writes at least one
    for every file whose text the index keeps), and the files whose text the index keeps on disk;
    one row."""
    if store == "compressed":
        table, key = chunk_store.COMPRESSED_TABLE, "id"
    else:
        table, key = "code_chunks", "rowid"
    # A file has chunks exactly when its first chunk exists: one key lookup per file.
    row = db.fetchone(
        "SELECT (SELECT COUNT(*) FROM files f WHERE f.text_on_disk = 0 AND NOT EXISTS (SELECT 1 FROM "
        + table + " c WHERE c." + key + " = f.id * " + str(CODE_CHUNK_STRIDE)
        + ")), (SELECT group_concat(id) FROM files WHERE text_on_disk = 1)"
    )
    if row is None:
        return 0, frozenset()
    unchunked = int(row[0])
    ids = str(row[1] or "")
    return unchunked, frozenset(int(piece) for piece in ids.split(",") if piece)


def _candidate_chunks(db: Database, store: Layout, files: Sequence[FileRow], needle: str | None,
                      case_sensitive: bool) -> dict[int, list[Segment]]:
    """The chunks of the searched files that may hold a match, per file, by line."""
    searched = {row[0] for row in files}
    narrows = needle is not None and "\x00" not in needle and (case_sensitive or needle.isascii())
    if store == "compressed":
        match = chunk_store.trigram_query(needle) if narrows else None
        rows = chunk_store.matching_rows(db, match, searched)
    elif narrows:
        rows = db.fetchall(
            "SELECT c.rowid, c.start_line, c.end_line, coalesce(c.exact, c.text),"
            " NOT EXISTS (SELECT 1 FROM code_chunks n WHERE n.rowid = c.rowid + 1)"
            " FROM code_chunks c WHERE c.text LIKE ?",
            ("%" + needle + "%",),
        )
    else:
        rows = db.fetchall(
            "SELECT c.rowid, c.start_line, c.end_line, coalesce(c.exact, c.text),"
            " NOT EXISTS (SELECT 1 FROM code_chunks n WHERE n.rowid = c.rowid + 1)"
            " FROM code_chunks c"
        )
    found: dict[int, list[tuple[int, Segment]]] = {}
    for row in rows:
        rowid, start_line, end_line, text, last = row
        file_id = int(rowid) // CODE_CHUNK_STRIDE
        if file_id not in searched:
            continue
        lines = _chunk_lines(int(start_line), int(end_line), str(text))
        segment = Segment(int(start_line), lines, bool(last))
        found.setdefault(file_id, []).append((int(rowid), segment))
    return {file_id: [segment for _, segment in sorted(pairs, key=lambda pair: pair[0])]
            for file_id, pairs in found.items()}
