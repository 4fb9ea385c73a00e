"""What a server keeps running for its repositories: their watched trees, its search workers,
and the Unix socket in each repository's ``.velmora/`` that the command's searches come through."""

from __future__ import annotations

import asyncio
import fcntl
import math
import os
import socket
import sqlite3
import struct
import sys
import time
from collections.abc import Sequence
from pathlib import Path

import anyio

from velmora.index import build as indexer, safety
from velmora.serve import descriptors, readiness, wire
from velmora.serve.pool import Workers
from velmora.serve.remote_search import CommandSearch, Exited
from velmora.serve.watching import WatchedTree
from velmora.serve.worker import Refused
from velmora.storage import schema

# How often the trees' changes are taken in between searches.
_REFRESH_SECONDS = 0.5
# How long ``velmora serve`` waits for a background server of the same repository to go.
_TAKEOVER_SECONDS = 10.0


class Resident:
    """The repositories at ``roots`` (named ``names``), indexed, watched and answered."""

    def __init__(
        self, roots: Sequence[Path], names: Sequence[str], *, workers: int, background: bool = False
    ) -> None:
        # A background server (started by a search) gives way to ``velmora stop`` and to
        # ``velmora serve``; one the user started runs until they stop it.
        self.background = background
        self.trees = [WatchedTree(name, root) for name, root in zip(names, roots)]
        self.pool = Workers(roots, workers)
        self.last_search = time.monotonic()
        self.stopping = asyncio.Event()
        self._listeners: list[socket.socket] = []
        self._answering: set[asyncio.Task] = set()
        self._locks: list[int | None] = []
        self._tasks: list[asyncio.Task] = []

    async def start(self) -> bool:
        """Index and watch the trees, start the workers and listen on each tree's socket;
        False, with nothing started, when a background server finds another server holding
        one of its trees. Otherwise a tree that another server holds (or whose ``.velmora``
        cannot be written) goes without a socket."""
        for tree in self.trees:
            lock = await anyio.to_thread.run_sync(_lock, tree.root, not self.background)
            if lock is None and self.background:
                self._release()
                return False
            self._locks.append(lock)
        for tree in self.trees:
            # Watched before the first pass, so that no change falls between the two.
            await anyio.to_thread.run_sync(tree.watch)
            try:
                summary = await anyio.to_thread.run_sync(indexer.index, tree.root)
            except (safety.IndexNotWritable, sqlite3.Error, OSError) as error:
                # A read-only repository is still served, from the index as it is.
                print(f"velmora: {tree.name}: the index cannot be written ({error}); "
                      "answering from it as it is", file=sys.stderr)
            else:
                print(f"{tree.name}: {summary.line()}", file=sys.stderr)
            await anyio.to_thread.run_sync(tree.settle)
        self.pool.start()
        for number, (tree, lock) in enumerate(zip(self.trees, self._locks)):
            if lock is None:
                continue
            sock = _bound(tree.root)
            self._listeners.append(sock)
            self._tasks.append(asyncio.create_task(self._listen(number, sock)))
        self._tasks.append(asyncio.create_task(self._refresh()))
        return True

    async def stop(self) -> None:
        for task in [*self._tasks, *self._answering]:
            task.cancel()
        for listener in self._listeners:
            listener.close()
        for tree, lock in zip(self.trees, self._locks):
            tree.close()
            if lock is not None:
                try:
                    os.unlink(tree.root / ".velmora" / wire.SOCKET_NAME)
                except OSError:
                    pass
        self.pool.stop()
        self._release()

    async def fresh(self, number: int) -> bool:
        """Take in every change to tree ``number`` saved until now; False when its index could
        not be written (the search then checks the files itself)."""
        self.last_search = time.monotonic()
        return await anyio.to_thread.run_sync(self.trees[number].settle)

    def _release(self) -> None:
        for lock in self._locks:
            if lock is not None:
                os.close(lock)
        self._locks.clear()

    async def _refresh(self) -> None:
        # Between searches too, so that the next one seldom waits for an index pass.
        while True:
            await asyncio.sleep(_REFRESH_SECONDS)
            for tree in self.trees:
                if self.background and tree.index_gone():
                    self.stopping.set()
                    return
                await anyio.to_thread.run_sync(tree.settle)

    async def _listen(self, number: int, listener: socket.socket) -> None:
        loop = asyncio.get_running_loop()
        while True:
            sock, _ = await loop.sock_accept(listener)
            task = asyncio.create_task(self._answer(number, sock))
            self._answering.add(task)
            task.add_done_callback(self._answering.discard)

    async def _answer(self, number: int, sock: socket.socket) -> None:
        loop = asyncio.get_running_loop()
        streams: list[int] = []  # the client's, until a worker has them
        try:
            if _peer_uid(sock) != os.getuid():
                return
            request = wire.fields(await _request(sock, streams))
            searching = request[0] == "search" and request[1:2] == [wire.PACKAGE]
            if len(streams) != (wire.MOST_DESCRIPTORS if searching else 0):
                return  # refused: not what a client of this server sends
            if searching:
                answer = await self._search(number, request[2:], sock, streams)
            elif request[0] == "stop":
                said = b"stopping\n" if self.background else b""
                answer = wire.frame(wire.OUT, said) + wire.frame(wire.EXIT, b"0")
                if self.background:
                    self.stopping.set()
            elif request[0] == "status":
                started = "a search" if self.background else "velmora serve"
                text = f"Server: process {os.getpid()} (started by {started}) answers searches\n"
                answer = wire.frame(wire.OUT, text.encode()) + wire.frame(wire.EXIT, b"0")
            else:  # another velmora's search
                answer = wire.frame(wire.FALLBACK, b"")
            await loop.sock_sendall(sock, answer)
        except (OSError, EOFError, descriptors.Stray):
            pass  # the client went away, or sent what no client of this server sends
        finally:
            descriptors.close(streams)
            sock.close()

    async def _search(self, number: int, fields: list[str], sock: socket.socket, streams: list[int]) -> bytes:
        """The answer to a search, once its worker has written the output and closed the
        client's ``streams``; empty when the client went away (^C) first: its worker is then
        stopped at once, so that nothing is written after the client has gone."""
        fresh = await self.fresh(number)
        relay = asyncio.create_task(self._relay(CommandSearch(fields, fresh), streams))
        gone = asyncio.create_task(asyncio.get_running_loop().sock_recv(sock, 1))
        await asyncio.wait({relay, gone}, return_when=asyncio.FIRST_COMPLETED)
        gone.cancel()
        if not relay.done():
            relay.cancel()
        try:
            return await relay
        except asyncio.CancelledError:
            return b""

    async def _relay(self, request: CommandSearch, streams: list[int]) -> bytes:
        # The command has no deadline: its user stops it.
        answer = self.pool.answer(request, math.inf, streams)
        ended: Exited | Refused | None = None
        try:
            async for reply in answer:
                if isinstance(reply, (Exited, Refused)):
                    ended = reply
        finally:
            await answer.aclose()
        if isinstance(ended, Refused):  # found outside the command's own checks
            return wire.frame(wire.ERR, f"velmora: error: {ended.reason}\n".encode()) + wire.frame(wire.EXIT, b"2")
        if ended is None or ended.status is None:
            return wire.frame(wire.FALLBACK, b"")
        return wire.frame(wire.EXIT, str(ended.status).encode())


async def _request(sock: socket.socket, streams: list[int]) -> bytes:
    """The payload of the request frame on ``sock``; the descriptors that came with it go
    to ``streams``."""
    head = await _exactly(sock, 5, streams)
    return await _exactly(sock, int.from_bytes(head[1:], "big"), streams)


async def _exactly(sock: socket.socket, size: int, streams: list[int]) -> bytes:
    """``size`` bytes from ``sock`` as they come; EOFError when it closes first."""
    data = b""
    while len(data) < size:
        try:
            part = descriptors.received(sock, min(size - len(data), 1 << 20), streams)
        except BlockingIOError:
            await readiness.readable(sock.fileno())
            continue
        if not part:
            raise EOFError
        data += part
    return data


def _peer_uid(sock: socket.socket) -> int:
    credentials = sock.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i"))
    return struct.unpack("3i", credentials)[1]


def _lock(root: Path, take_over: bool) -> int | None:
    """The server lock of the repository at ``root``, held by the returned descriptor; None
    when another server holds it (``take_over`` asks a background one to go, and waits)."""
    try:
        directory = safety.index_file(root).parent.parent
        fd = os.open(directory / wire.LOCK_NAME, os.O_RDWR | os.O_CREAT | os.O_NOFOLLOW | os.O_CLOEXEC, 0o600)
    except (OSError, schema.SchemaError):
        return None
    deadline = time.monotonic() + _TAKEOVER_SECONDS
    asked = False
    while True:
        try:
            fcntl.flock(fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
            return fd
        except BlockingIOError:
            pass
        if take_over and not asked:
            asked = True
            take_over = ask(root, "stop") != ""  # one that the user started stays
        if not take_over or time.monotonic() >= deadline:
            os.close(fd)
            return None
        time.sleep(0.05)


def ask(root: Path, kind: str) -> str | None:
    """What the server of the repository at ``root`` answers a request of ``kind`` ("stop",
    "status"); None when none listens."""
    sock = wire.connect(str(root))
    if sock is None:
        return None
    try:
        sock.sendall(wire.request([kind]))
        said = []
        while (answer := wire.read_frame(sock)) is not None and answer[0] != wire.EXIT:
            said.append(answer[1])
    except OSError:
        return None
    finally:
        sock.close()
    return b"".join(said).decode()


def _bound(root: Path) -> socket.socket:
    """The repository's socket, listening, reachable by its user alone."""
    path = root / ".velmora" / wire.SOCKET_NAME
    try:
        os.unlink(path)  # left by a server that died: the lock says none holds it now
    except FileNotFoundError:
        pass
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    wire.at(str(root), sock.bind)
    os.chmod(path, 0o600)
    sock.listen(64)
    sock.setblocking(False)  # accepted on the event loop
    return sock
