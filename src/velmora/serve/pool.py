"""The server's pool of search processes, each holding every repository's index open."""

from __future__ import annotations

import asyncio
import math
import multiprocessing
import time
from collections.abc import AsyncGenerator, AsyncIterator, Sequence
from contextlib import asynccontextmanager
from dataclasses import dataclass, field
from multiprocessing.connection import Connection
from multiprocessing.process import BaseProcess
from pathlib import Path

from velmora.serve import descriptors, readiness
from velmora.serve.params import FileRequest, Search
from velmora.serve.worker import PARTIAL, CommandSearch, Ready, Refused, Reply, work


@dataclass(eq=False)
class _Worker:
    process: BaseProcess
    conn: Connection
    busy: bool = False
    ready: bool = False  # started and holding the indexes open

    async def receive(self, timeout: float = math.inf) -> Reply | None:
        """The next reply; None when none came within ``timeout`` seconds. Waited for on the
        event loop, so that a client that goes away frees its worker at once."""
        if not self.conn.poll() and not await readiness.readable(self.conn.fileno(), timeout):
            return None
        return self.conn.recv()

    def stop(self) -> None:
        self.process.kill()
        self.conn.close()
        self.process.join()


@dataclass
class Workers:
    """A pool of search processes; a search that overruns is stopped with its process."""

    roots: Sequence[Path]
    size: int
    _idle: asyncio.Queue[_Worker] = field(default_factory=asyncio.Queue)
    _all: set[_Worker] = field(default_factory=set)

    def start(self) -> None:
        for _ in range(self.size):
            self._idle.put_nowait(self._spawn())

    def stop(self) -> None:
        for worker in list(self._all):
            worker.stop()
        self._all.clear()

    def _spawn(self) -> _Worker:
        # spawn, not fork: the server has threads, and its SQLite handles must not be shared.
        context = multiprocessing.get_context("spawn")
        mine, theirs = context.Pipe()
        process = context.Process(target=work, args=(theirs, self.roots), daemon=True)
        process.start()
        theirs.close()
        worker = _Worker(process, mine)
        self._all.add(worker)
        return worker

    @asynccontextmanager
    async def _held(self) -> AsyncIterator[_Worker]:
        worker = await self._idle.get()
        if not worker.process.is_alive():  # killed while idle: replaced, unnoticed
            self._all.discard(worker)
            worker.stop()
            worker = self._spawn()
        try:
            yield worker
        finally:
            if worker.busy:
                # Stopped mid-answer (deadline, or the client left): its pipe holds a
                # half-read reply, so it is replaced rather than reused.
                self._all.discard(worker)
                worker.stop()
                worker = self._spawn()
            self._idle.put_nowait(worker)

    async def answer(
        self, request: Search | FileRequest | CommandSearch, timeout: float, handing: list[int] | None = None
    ) -> AsyncGenerator[Reply, None]:
        """Send one request to a free worker, and with it the descriptors in ``handing``
        (closed here once the worker has them), and yield its replies until the last one, or
        a timeout. The worker is held for as long as the replies are read, which may outlive
        the handler that asked. A worker found dead before its first reply (killed while
        idle, say) is replaced, and the request sent to the next one."""
        last = self.size + 1  # every idle worker may have been killed at once
        for attempt in range(1, last + 1):
            async with self._held() as worker:
                worker.busy = True
                replied = False
                try:
                    while not worker.ready:  # the deadline does not count the start-up
                        started = await worker.receive()
                        worker.ready = isinstance(started, Ready)
                    worker.conn.send(request)
                    if handing:
                        descriptors.hand(worker.conn, handing)
                    deadline = time.monotonic() + timeout
                    while worker.busy:
                        remaining = deadline - time.monotonic()
                        if remaining <= 0:
                            yield Refused(422, f"the search took longer than {timeout:g} s "
                                          "and was stopped")
                            return
                        reply = await worker.receive(remaining)
                        if reply is not None:
                            worker.busy = isinstance(reply, PARTIAL)
                            replied = True
                            yield reply
                    return
                except (EOFError, OSError):
                    if replied or attempt == last:
                        yield Refused(500, "the search process ended unexpectedly; try again")
                        return
