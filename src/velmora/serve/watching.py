"""A served tree whose index is kept as fresh as a search from the command line finds it: its
changes are watched, and before a search every change saved until then is taken in.

The watcher's events arrive in the order the kernel queued them. A search writes a mark file
in ``.velmora/`` and takes events until the mark's own comes: every change saved before the
search started came before it. Only when something changed does the indexer run (its stat
pass finds what); a search that finds nothing changed does no per-file work at all.
"""

from __future__ import annotations

import os
import sqlite3
import threading
import time
from pathlib import Path

from watchfiles._rust_notify import RustNotify

from velmora.index import build as indexer
from velmora.storage import schema

# Written by each search; its event closes the changes saved before the search.
MARK_NAME = "watch-mark"
# How long a search waits for its mark to come through before it trusts a stat pass instead.
_MARK_SECONDS = 2.0


class WatchedTree:
    """One served repository: its watcher, and whether its index is behind its files."""

    def __init__(self, name: str, root: Path) -> None:
        self.name = name
        self.root = root
        self._inside = str(root / schema.INDEX_DIR.parts[0])
        self._mark = os.path.join(self._inside, MARK_NAME)
        self._notify: RustNotify | None = None
        self._lock = threading.Lock()
        # Behind until the first pass: nothing was watched before.
        self._behind = True
        self._index_file: tuple[int, int] | None = None

    def watch(self) -> None:
        """Start watching; a tree that cannot be watched is refreshed by stat before each search."""
        try:
            self._notify = RustNotify([str(self.root)], False, False, 50, True, True)
        except (OSError, RuntimeError):
            self._notify = None

    def close(self) -> None:
        if self._notify is not None:
            self._notify.close()
            self._notify = None

    def index_gone(self) -> bool:
        """Whether the index this tree was served from was removed since."""
        return self._index_file is not None and _identity(schema.index_path(self.root)) is None

    def settle(self, *, wait_for_mark: bool = True) -> bool:
        """Bring the index up to date with every change saved before this call (without
        ``wait_for_mark``, with those seen so far); False when it could not be written: the
        search then checks the files itself. A failed pass is tried again by the next call."""
        with self._lock:
            self._take(wait_for_mark)
            if _identity(schema.index_path(self.root)) != self._index_file:
                self._behind = True  # rebuilt or removed by someone else
            if not self._behind:
                return True
            try:
                indexer.index(self.root, progress=False)
            except (sqlite3.Error, OSError, schema.SchemaError):
                return False
            self._behind = False
            self._index_file = _identity(schema.index_path(self.root))
            return True

    def _take(self, wait_for_mark: bool) -> None:
        if self._notify is None:
            self._behind = True
            return
        mark = None
        if wait_for_mark:
            try:
                _write_mark(self._mark)
                mark = self._mark
            except OSError:
                self._behind = True  # no mark, no proof: the stat pass decides
        deadline = time.monotonic() + _MARK_SECONDS
        while True:
            changes = self._notify.watch(0, 0, 1, None)
            seen = False
            if isinstance(changes, set):
                for _, path in changes:
                    if path == mark:
                        seen = True
                    elif not self._is_index(path):
                        self._behind = True
            if mark is None or seen:
                return
            if time.monotonic() > deadline:
                self._behind = True
                return

    def _is_index(self, path: str) -> bool:
        # The index's own writes change nothing; a root file named like it (.velmorarc) does.
        return path == self._inside or path.startswith(self._inside + "/")


def _write_mark(path: str) -> None:
    fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_NOFOLLOW | os.O_CLOEXEC | os.O_NONBLOCK, 0o600)
    try:
        os.write(fd, b"1")
    finally:
        os.close(fd)


def _identity(path: Path) -> tuple[int, int] | None:
    try:
        info = os.stat(path)
    except OSError:
        return None
    return info.st_dev, info.st_ino

