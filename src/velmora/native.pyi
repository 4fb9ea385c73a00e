"""The host's native code: chunks read from the index and scanned to printed output, and
the freshness check's lstat of every indexed file."""

from os import PathLike
from typing import Any, final

from velmora.output.line_format import Shape

class DamagedChunk(ValueError): ...

@final
class ChunkReader:
    """Read-only connections to one index file, all opened when it is made, for the chunk
    rows (id, start_line, end_line, body) of ``table``, read on any thread: each read takes a
    connection of its own (waiting for one while all are busy), in one read transaction,
    without the GIL. A failure raises the ``sqlite3`` module's error for it."""

    def __new__(cls, path: str | bytes | PathLike[str], table: str, connections: int) -> ChunkReader: ...
    def read(self, wanted: list[int], whole_files: bool, stride: int) -> ChunkRows:
        """The rows whose ids are ``wanted``, or with ``whole_files`` every row of the files
        whose ids are (a file's rows are those from its id * stride on), in that order, each
        file's by id."""
    def matching_ids(self, fts_table: str, match: str) -> bytes:
        """The row ids, in order, that the full-text ``match`` expression selects in
        ``fts_table``, as the bytes of an ``array("q")``."""
    def close(self) -> None:
        """Close the connections; a read that runs ends first, and later reads fail."""

@final
class ChunkRows:
    """What ``ChunkReader.read`` read, held natively for ``scan_chunks``; ``len()`` counts
    the rows."""

    def __len__(self) -> int: ...

@final
class FrameDictionary:
    def __new__(cls, data: bytes) -> FrameDictionary: ...

def decode_frames(dictionary: FrameDictionary, bodies: list[Any]) -> tuple[bytes, list[int]]: ...

def scan_chunks(
    dictionary: FrameDictionary,
    rows: ChunkRows | list[tuple[Any, ...]],
    files: list[tuple[int, str, bytes]],
    stride: int,
    needle: str,
    case_sensitive: bool,
    mode: str,
    max_count: int | None,
    shape: Shape | None = None,
    color: bool = False,
) -> tuple[bytes, list[tuple[int, int]], str | None]: ...
def shares_sqlite_with(path: str | bytes | PathLike[str], /) -> bool:
    """Whether the loaded module at ``path`` (the interpreter's ``_sqlite3``) calls the SQLite
    this module calls: only then may a ``ChunkReader`` read beside its connections."""
def stat_changes(prefix: str, rows: list[tuple[Any, ...]], racy_from: int) -> bytes: ...
