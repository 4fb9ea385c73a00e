"""Each served tree's watcher, and the refresh of its index before a request after a change."""

from __future__ import annotations

import asyncio
from dataclasses import dataclass, field
from pathlib import Path

import anyio
import watchfiles

from velmora.index import build as indexer
from velmora.storage import schema


@dataclass
class Tree:
    """One served repository and whether its files changed since it was last refreshed."""

    name: str
    root: Path
    dirty: bool = False
    # Set while the watcher runs: without it (not yet, or no longer) every request
    # refreshes the index, which costs seconds on a large tree but stays correct.
    watched: asyncio.Event = field(default_factory=asyncio.Event)
    lock: asyncio.Lock = field(default_factory=asyncio.Lock)

    async def watch(self) -> None:
        index_dir = str(self.root / schema.INDEX_DIR.parts[0])

        def outside_index(change: watchfiles.Change, path: str) -> bool:
            return not path.startswith(index_dir)  # the index's own writes change nothing

        try:
            # The first yield, with changes or after a quiet second, says that the
            # watcher is in place.
            async for changes in watchfiles.awatch(
                self.root, watch_filter=outside_index, step=20, debounce=200,
                rust_timeout=1000, yield_on_timeout=True,
            ):
                self.dirty = self.dirty or bool(changes)
                self.watched.set()
        finally:
            self.watched.clear()

    async def fresh(self) -> None:
        async with self.lock:
            if self.dirty or not self.watched.is_set():
                self.dirty = False
                await anyio.to_thread.run_sync(lambda: indexer.index(self.root, progress=False))


def names(roots: list[Path]) -> list[str]:
    """Each repository's name in URLs: its directory's name, numbered where two clash."""
    found: list[str] = []
    for root in roots:
        name = root.name or "root"
        found.append(name if name not in found else f"{name}-{len(found) + 1}")
    return found
