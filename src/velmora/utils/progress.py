"""A one-line progress bar for long passes over the index."""

from __future__ import annotations

import sys
import time
from typing import TextIO


class Progress:
    """A one-line progress bar on a terminal; silent otherwise."""

    def __init__(
        self, total: int, stream: TextIO | None = None, *, label: str = "indexing", unit: str = "files"
    ) -> None:
        self.stream = stream if stream is not None else sys.stderr
        self.total = total
        self.label, self.unit = label, unit
        self.shown = self.stream.isatty()
        self.last = 0.0

    def update(self, done: int, force: bool = False) -> None:
        now = time.monotonic()
        if not self.shown or (now - self.last < 0.1 and not force):
            return
        self.last = now
        width = 30
        filled = width * done // max(self.total, 1)
        self.stream.write(
            f"\r{self.label} [{'#' * filled}{'.' * (width - filled)}] {done}/{self.total} {self.unit}"
        )
        self.stream.flush()

    def close(self) -> None:
        if self.shown:
            self.update(self.total, force=True)
            self.stream.write("\n")
            self.stream.flush()
