"""Where the index is written: only inside the repository's own .velmora/, private to the user."""

from __future__ import annotations

import errno
import fcntl
import os
import stat
import sys
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from velmora.storage import schema
from velmora.storage.database import Database


class UnsafeIndexPath(schema.SchemaError):
    """A path the index would be written through leads elsewhere."""


class IndexNotWritable(schema.SchemaError):
    """The index cannot be written here (a read-only repository, say); it can be read."""


class IndexBusy(IndexNotWritable):
    """Another index pass is writing the index."""


# Beside the database: held by the process that runs an index pass.
PASS_LOCK = "pass.lock"


@contextmanager
def pass_lock(db_path: Path, *, wait: bool, say: bool) -> Iterator[None]:
    """Held for one index pass: two at once would each add the files the other found new.
    Without ``wait``, ``IndexBusy`` when another pass holds it; with ``say``, waiting is
    said on standard error."""
    path = db_path.with_name(PASS_LOCK)
    try:
        fd = os.open(path, os.O_RDWR | os.O_CREAT | os.O_NOFOLLOW | os.O_CLOEXEC, 0o600)
    except OSError as error:
        raise IndexNotWritable(f"cannot write {path}: {error.strerror}") from None
    try:
        try:
            fcntl.flock(fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            if not wait:
                raise IndexBusy("another index pass is running") from None
            if say:
                print("velmora: waiting for another index pass to finish", file=sys.stderr)
            fcntl.flock(fd, fcntl.LOCK_EX)
        yield
    finally:
        os.close(fd)


def index_file(root: Path) -> Path:
    """The index database's path, with its directories made (0700) and checked.

    Nothing is created through a symbolic link: ``.velmora``, ``.velmora/index``, the
    database and ``.velmora/.gitignore`` must each be what they seem, or nothing is written.
    """
    db_path = schema.index_path(root)
    for directory in (db_path.parent.parent, db_path.parent):
        try:
            os.mkdir(directory, 0o700)
        except FileExistsError:
            pass
        except OSError as error:
            raise IndexNotWritable(f"cannot create {directory}: {error.strerror}") from None
        _refuse_link(directory, stat.S_ISDIR)
        _tighten(directory, 0o700)
    # Keep the index out of git's view of the work tree.
    _write_private(db_path.parent.parent / ".gitignore", b"*\n")
    for path in (db_path, *_companions(db_path)):
        if os.path.lexists(path):
            _refuse_link(path, stat.S_ISREG)
            _tighten(path, 0o600)
    return db_path


def create_private_file(path: Path) -> None:
    """Create an empty file readable by the user alone, for SQLite to fill."""
    _write_private(path, b"", exclusive=True)


def for_writing(db: Database) -> None:
    """Let readers go on while this connection writes (WAL), and wait for another writer."""
    db.connection.execute("PRAGMA journal_mode = WAL")
    db.connection.execute("PRAGMA synchronous = NORMAL")
    db.connection.execute("PRAGMA busy_timeout = 5000")


def remove_index_file(path: Path) -> None:
    """Delete a database and its journal files, if they are there."""
    for each in (path, *_companions(path)):
        try:
            os.unlink(each)
        except FileNotFoundError:
            pass


def replace_index_file(built: Path, db_path: Path) -> None:
    """Put a complete, closed database in place of the old one, its journals gone with it."""
    for each in _companions(db_path):
        try:
            os.unlink(each)
        except FileNotFoundError:
            pass
    os.replace(built, db_path)


def _companions(db_path: Path) -> tuple[Path, ...]:
    return tuple(db_path.with_name(db_path.name + suffix) for suffix in ("-wal", "-shm", "-journal"))


def _refuse_link(path: Path, is_kind) -> None:
    info = os.lstat(path)
    if stat.S_ISLNK(info.st_mode):
        raise UnsafeIndexPath(f"{path} is a symbolic link: the index is written only inside the repository")
    if not is_kind(info.st_mode):
        raise UnsafeIndexPath(f"{path} is not a {'directory' if is_kind is stat.S_ISDIR else 'regular file'}")


def _tighten(path: Path, mode: int) -> None:
    # An index made by an older velmora was readable by all.  The mode is set through a
    # descriptor opened without following a link, so a link put in its place is refused.
    # One already private is left unopened: closing a descriptor of a database file drops
    # every SQLite lock this process holds on it, and another process may then reset the
    # WAL index under a connection of this one.
    try:
        if stat.S_IMODE(os.lstat(path).st_mode) == mode:
            return
    except OSError:
        pass  # the open below says what is wrong
    try:
        fd = os.open(path, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC)
    except OSError as error:
        raise UnsafeIndexPath(f"cannot open {path}: {error.strerror}") from None
    try:
        if stat.S_IMODE(os.fstat(fd).st_mode) != mode:
            os.fchmod(fd, mode)
    finally:
        os.close(fd)


def _write_private(path: Path, data: bytes, exclusive: bool = False) -> None:
    # Never blocks on a FIFO put in the file's place.
    flags = os.O_WRONLY | os.O_CREAT | os.O_NOFOLLOW | os.O_CLOEXEC | os.O_NONBLOCK
    flags |= os.O_EXCL if exclusive else os.O_TRUNC
    try:
        fd = os.open(path, flags, 0o600)
    except OSError as error:
        if error.errno == errno.ELOOP:
            raise UnsafeIndexPath(
                f"{path} is a symbolic link: the index is written only inside the repository"
            ) from None
        raise IndexNotWritable(f"cannot write {path}: {error.strerror}") from None
    try:
        os.write(fd, data)
    finally:
        os.close(fd)
