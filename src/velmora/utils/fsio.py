"""File reads for the index: regular files only, never through a symbolic link."""

from __future__ import annotations

import errno
import codecs
import os
import stat

_DIRECTORY_FLAGS = os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW | os.O_CLOEXEC
# O_NONBLOCK: opening a FIFO would otherwise wait for a writer.
_FILE_FLAGS = os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC


def read_bytes_no_follow(path: str | bytes | os.PathLike[str] | os.PathLike[bytes]) -> bytes:
    """The whole file as bytes; an ``OSError`` when it cannot be read, is not a regular
    file, or any component of its path is a symlink or "..".

    Callers pass a resolved repository root joined with a path from the index, so a
    symlink anywhere on the way (a directory replaced by a link out of the repository,
    say) is one that was planted there, and is refused.
    """
    # Bytes throughout: a name that is not UTF-8 is still a name.
    text = os.fsencode(path)
    parts = [part for part in text.split(b"/") if part not in (b"", b".")]
    if not parts or b".." in parts:
        raise OSError(errno.EINVAL, "not a plain path to a file", text)
    fd = os.open(b"/" if text.startswith(b"/") else b".", _DIRECTORY_FLAGS)
    try:
        for part in parts[:-1]:
            parent, fd = fd, os.open(part, _DIRECTORY_FLAGS, dir_fd=fd)
            os.close(parent)
        # Checked before the open too: opening a device can have effects of its own.
        if not stat.S_ISREG(os.stat(parts[-1], dir_fd=fd, follow_symlinks=False).st_mode):
            raise OSError(errno.EINVAL, "not a regular file", text)
        parent, fd = fd, os.open(parts[-1], _FILE_FLAGS, dir_fd=fd)
        os.close(parent)
        if not stat.S_ISREG(os.fstat(fd).st_mode):
            raise OSError(errno.EINVAL, "not a regular file", text)
        chunks = []
        while block := os.read(fd, 1 << 20):
            chunks.append(block)
        return b"".join(chunks)
    finally:
        os.close(fd)


def is_utf8(path: str) -> bool:
    """Whether a name decoded from the file system (with surrogate escapes) was UTF-8,
    and so can be stored as text."""
    try:
        path.encode("utf-8")
    except UnicodeEncodeError:
        return False
    return True


def escaped_name(path: str) -> str:
    """A name that is not UTF-8 as text the index can hold and a person can read: each byte
    that is not UTF-8 as ``\\xHH``, a backslash doubled, as in a C string."""
    return os.fsencode(path).replace(b"\\", b"\\\\").decode("utf-8", "backslashreplace")


def unescaped_name(text: str) -> str:
    """The name ``escaped_name`` made ``text`` from."""
    return os.fsdecode(codecs.escape_decode(text.encode("utf-8"))[0])


def is_plain_relative(path: object) -> bool:
    """Whether ``path`` (read from the index, say) names a file below a root: relative,
    "/"-separated, no empty, "." or ".." component, no NUL. (A backslash is a character
    of a name here, as git and the file system take it, not a separator.)"""
    if not isinstance(path, str) or not path or "\0" in path:
        return False
    return not path.startswith("/") and all(
        part not in ("", ".", "..") for part in path.split("/")
    )
