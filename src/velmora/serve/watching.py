"""A served tree whose index is kept as fresh as a search from the command line finds it: its
changes are watched, and before a search every change saved until then is taken in.

Before each search the tree's queue of changes is read to the end (``tree_events``): it
holds every change saved before the search started. Only when something changed does the
indexer run (its stat pass finds what); a search that finds nothing changed does no
per-file work at all.
"""

from __future__ import annotations

import sqlite3
import threading
from pathlib import Path

from velmora.index import build as indexer
from velmora.serve.tree_events import TreeEvents
from velmora.storage import schema
from velmora.storage.database import file_identity


class WatchedTree:
    """One served repository: its watcher, and whether its index is behind its files."""

    def __init__(self, name: str, root: Path) -> None:
        self.name = name
        self.root = root
        self._events: TreeEvents | None = None
        self._lock = threading.Lock()
        # Behind until the first pass: nothing was watched before.
        self._behind = True
        self._index_file: tuple[int, int] | None = None

    def watch(self) -> None:
        """Start watching; a tree that cannot be watched is refreshed by stat before each search."""
        try:
            self._events = TreeEvents(str(self.root), str(self.root / schema.INDEX_DIR.parts[0]))
        except OSError:
            self._events = None

    def close(self) -> None:
        if self._events is not None:
            self._events.close()
            self._events = None

    def index_gone(self) -> bool:
        """Whether the index this tree was served from was removed since."""
        return self._index_file is not None and file_identity(schema.index_path(self.root)) is None

    def settle(self) -> bool:
        """Bring the index up to date with every change saved before this call; False when
        it could not be written: the search then checks the files itself. A failed pass is
        tried again by the next call."""
        with self._lock:
            if self._events is None or self._events.changed():
                self._behind = True
            if file_identity(schema.index_path(self.root)) != self._index_file:
                self._behind = True  # rebuilt or removed by someone else
            if not self._behind:
                return True
            try:
                indexer.index(self.root, progress=False)
            except (sqlite3.Error, OSError, schema.SchemaError):
                return False
            self._behind = False
            self._index_file = file_identity(schema.index_path(self.root))
            return True

