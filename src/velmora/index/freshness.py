"""The freshness check: which files were added, changed or removed since the index was written.

A search runs it first, then either brings the index up to date (the indexer, incrementally)
or, when the index cannot be written, reads the files it found from disk for that search.
The check is stat-only: each indexed file's size, mtime and inode against its row, and each
listed directory's mtime (a file added, removed or renamed touches its directory), so the
tree is listed again only when a directory changed.
"""

from __future__ import annotations

import os
import re
import sqlite3
import time
from collections.abc import Collection, Iterator
from pathlib import Path

from velmora import native
from velmora.index import safety
from velmora.storage import schema
from velmora.storage.database import Database
from velmora.storage import code_text
from velmora.utils.fsio import is_plain_relative, read_bytes_no_follow

# As the indexer's margin: a file or directory modified this close to the moment it was
# looked at may have changed again within the same clock tick, so its stat proves nothing.
_RACY_NS = 2_000_000_000

# Meta key: the directories of the last listing of the tree, one per line after the time
# the listing began. While none of them changed, no file was added or removed.
LISTED_DIRS = "listed_dirs"


class Changes:
    """What differs between the index and the tree."""

    # A plain class: dataclasses would cost every search a tenth of its start-up in imports.
    def __init__(self) -> None:
        self.changed: dict[int, str] = {}  # file id -> path, text differs
        self.removed: set[int] = set()  # file ids no longer in the tree
        self.added: list[str] = []  # paths the index does not hold
        self.listed: tuple[int, list[str]] | None = None  # a fresh listing: its start, its directories

    def __bool__(self) -> bool:
        return bool(self.changed or self.removed or self.added)


def check(db: Database, root: Path) -> Changes:
    """Compare the index with the tree at ``root`` by stat alone."""
    rows = db.fetchall("SELECT path, size, mtime_ns, inode, id FROM files")
    last_run = schema.whole_number(schema.get_meta(db, "last_run_ns"))
    changes = Changes()
    prefix = f"{root}/"
    racy_from = last_run - _RACY_NS
    # One lstat per indexed file on every search, in native code: a loop in Python costs
    # twice as much. A path that is not plain (tampered) is only stat-ed here, never read.
    for number, change in _differing(native.stat_changes(prefix, rows, racy_from)):
        path, *_, file_id = rows[number]
        if change & (_MISSING | _NOT_A_FILE):
            changes.removed.add(file_id)
        else:
            changes.changed[file_id] = path
    # A file left out (binary, say) and rewritten in place since touches no directory.
    skipped = db.fetchall("SELECT path, size, mtime_ns, inode FROM skipped")
    for number, change in _differing(native.stat_changes(prefix, skipped, racy_from)):
        if change & _STAMP_DIFFERS:
            changes.added.append(skipped[number][0])
    if changes or _directories_changed(db, root):
        _list(changes, db, root, {path: file_id for path, *_, file_id in rows})
    return changes


# How a file differs from its record, as native.stat_changes tells it: its stamp (or a racy
# mtime), no file there at all, or something other than a regular file.
_STAMP_DIFFERS, _MISSING, _NOT_A_FILE = 1, 2, 4
_DIFFERING = re.compile(b"[^\x00]")


def _differing(changes: bytes) -> Iterator[tuple[int, int]]:
    """(row number, change) of the rows that differ, found without a loop over the others."""
    return ((found.start(), changes[found.start()]) for found in _DIFFERING.finditer(changes))


def _directories_changed(db: Database, root: Path) -> bool:
    recorded = schema.get_meta(db, LISTED_DIRS)
    if not recorded:
        return True
    listed_at, *directories = recorded.split("\n")
    since = schema.whole_number(listed_at) - _RACY_NS
    prefix = f"{root}/"
    for directory in directories:
        try:
            if os.lstat(prefix + directory if directory else root).st_mtime_ns >= since:
                return True
        except OSError:
            return True
    return False


def _list(changes: Changes, db: Database, root: Path, indexed: dict[str, int]) -> None:
    # Imported here: listing is needed only when something changed.
    from velmora.index import build as indexer

    started = time.time_ns()
    listed = indexer.list_files(root)
    present = set(listed)
    # What the last pass left out (binary files, say) is no addition, unless it changed.
    left_out = {path for (path,) in db.fetchall("SELECT path FROM skipped")}
    left_out.difference_update(changes.added)
    changes.added = [path for path in listed if path not in indexed and path not in left_out]
    changes.listed = (started, _directories(listed))
    # A file the index holds but the tree no longer lists (now ignored, say) is gone too.
    changes.removed |= {file_id for path, file_id in indexed.items() if path not in present}
    for file_id in changes.removed:
        changes.changed.pop(file_id, None)


def _directories(paths: list[str]) -> list[str]:
    # Every directory above a file, not only those holding one: a file added in a new
    # directory touches only that directory's parent, which may hold directories alone.
    found: set[str] = set()
    for path in paths:
        directory = os.path.dirname(path)
        while directory not in found:
            found.add(directory)
            directory = os.path.dirname(directory)
    found.add("")
    return sorted(found)


def update(db_path: Path, root: Path, changes: Changes) -> str | None:
    """Bring the index up to date; None when done, else why it could not be written."""
    from velmora.index import build as indexer

    try:
        # A search does not wait for another pass: it reads the changed files itself.
        indexer.index(root, progress=False, wait=False)
        if changes.listed is not None:
            _record_listing(db_path, *changes.listed)
    except (sqlite3.Error, OSError, safety.IndexNotWritable) as error:
        return f"the index cannot be written ({error})"
    return None


def record_listing(db_path: Path, changes: Changes) -> None:
    """Keep a fresh listing's directories, so that the next check can skip listing."""
    if changes.listed is None or changes:
        return
    try:
        _record_listing(db_path, *changes.listed)
    except (sqlite3.Error, OSError):
        pass  # only a saving: the next check lists the tree again


def _record_listing(db_path: Path, started: int, directories: list[str]) -> None:
    # No waiting: a writer holding the index records a listing of its own soon enough.
    connection = sqlite3.connect(db_path, timeout=0)
    try:
        with connection:
            schema.set_meta(
                connection.cursor(), LISTED_DIRS, "\n".join([str(started), *directories])
            )
    finally:
        connection.close()


def text_files(root: Path, paths: Collection[str]) -> set[str]:
    """Those of ``paths`` that the indexer would index: regular text files."""
    from velmora.index import build as indexer

    kept = set()
    for path in filter(is_plain_relative, paths):
        try:
            data = read_bytes_no_follow(root / path)
        except (OSError, ValueError):
            continue
        if not indexer.is_binary(data):
            kept.add(path)
    return kept


class DiskOverlay:
    """A text source that reads some files from disk and every other one from ``source``."""

    def __init__(self, source, disk: code_text.DiskText, from_disk: Collection[int]) -> None:
        self._source = source
        self._disk = disk
        self._from_disk = from_disk

    def segments(self, file_id: int, path: str) -> list[code_text.Segment]:
        if file_id in self._from_disk:
            return self._disk.segments(file_id, path)
        return self._source.segments(file_id, path)

    def lines(self, file_id: int, path: str) -> list[str]:
        if file_id in self._from_disk:
            return self._disk.lines(file_id, path)
        return self._source.lines(file_id, path)


