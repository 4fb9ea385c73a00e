"""File reads for the index: never through a symbolic link."""

from __future__ import annotations

import os


def read_bytes_no_follow(path: str | os.PathLike[str]) -> bytes:
    """The whole file as bytes; an ``OSError`` when it cannot be read or is a symlink."""
    fd = os.open(path, os.O_RDONLY | os.O_NOFOLLOW | os.O_CLOEXEC)
    try:
        chunks = []
        while block := os.read(fd, 1 << 20):
            chunks.append(block)
        return b"".join(chunks)
    finally:
        os.close(fd)
