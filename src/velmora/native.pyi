"""The host's native code: chunks scanned from their compressed bodies to printed output,
and the freshness check's lstat of every indexed file."""

from typing import Any, final

from velmora.output.line_format import Shape

class DamagedChunk(ValueError): ...

@final
class FrameDictionary:
    def __new__(cls, data: bytes) -> FrameDictionary: ...

def decode_frames(dictionary: FrameDictionary, bodies: list[Any]) -> tuple[bytes, list[int]]: ...

def scan_chunks(
    dictionary: FrameDictionary,
    rows: list[tuple[Any, ...]],
    files: list[tuple[int, str, bytes]],
    stride: int,
    needle: str,
    case_sensitive: bool,
    mode: str,
    max_count: int | None,
    shape: Shape | None = None,
    color: bool = False,
) -> tuple[list[tuple[int, bytes]], str | None]: ...
def stat_changes(prefix: str, rows: list[tuple[Any, ...]], racy_from: int) -> bytes: ...
