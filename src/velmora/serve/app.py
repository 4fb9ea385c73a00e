"""``velmora serve``: a search page and a JSON-lines API over the open indexes of repositories."""

from __future__ import annotations

import asyncio
import json
import multiprocessing
import os
import sys
import threading
import time
from collections.abc import AsyncGenerator, AsyncIterator, Sequence
from contextlib import asynccontextmanager
from dataclasses import dataclass, field
from multiprocessing.connection import Connection
from pathlib import Path
from typing import Any

import anyio
import uvicorn
import watchfiles
from starlette.applications import Starlette
from starlette.middleware import Middleware
from starlette.middleware.trustedhost import TrustedHostMiddleware
from starlette.requests import Request
from starlette.responses import JSONResponse, Response, StreamingResponse
from starlette.routing import Mount, Route
from starlette.staticfiles import StaticFiles
from starlette.types import ASGIApp, Message, Receive, Scope, Send

from velmora.index import build as indexer, status
from velmora.output import printer as output
from velmora.query import file_types
from velmora.storage import schema
from velmora.api import Repository, RepositoryError
from velmora.query.pattern import Query, QueryError

# Bounds on what one request may ask for: the server answers many people at once.
MAX_QUERY_CHARS = 1000
MAX_CONTEXT = 50
MAX_LIMIT = 10_000
DEFAULT_LIMIT = 1000
# A search still running after this long is stopped (its worker is replaced) so that one
# runaway regex cannot hold a worker, nor its memory, for ever.
DEFAULT_TIMEOUT = 10.0
# How often a waiting request looks up from the worker's pipe, so that a client that
# went away frees its worker promptly.
_POLL_SECONDS = 0.25
# How long start-up waits for the trees' watchers before indexing without them.
_WATCHER_START_SECONDS = 10.0

# The HTTP status of a worker's refusal.
_STATUS = {"error": 400, "timeout": 422, "failed": 500}
_LOOPBACK_NAMES = ("127.0.0.1", "localhost")
_SECURITY_HEADERS = [
    (b"content-security-policy", b"default-src 'self'; img-src 'self' data:; object-src 'none'"),
    (b"x-content-type-options", b"nosniff"),
    (b"referrer-policy", b"no-referrer"),
]


class BadRequest(Exception):
    """A request the server will not run; the message says why."""


@dataclass
class Search:
    """One search as a request asks for it, checked."""

    repo: int
    query: Query
    globs: list[str]
    types: list[str]
    before: int
    after: int
    limit: int


# --- the worker processes -------------------------------------------------------------------
# Python's re cannot be interrupted from another thread, so searches run in worker
# processes: a search past its deadline is stopped by ending its worker.


def _work(conn: Connection, roots: Sequence[Path]) -> None:
    threading.Thread(target=_exit_with, args=(os.getppid(),), daemon=True).start()
    repos = [Repository.open(root, create=False) for root in roots]
    conn.send(("ready", None))
    while True:
        try:
            request = conn.recv()
        except (EOFError, KeyboardInterrupt):
            return
        try:
            if request[0] == "file":
                conn.send(("text", repos[request[1]].indexed_text(request[2])))
            else:
                _search_into(conn, repos, request[1])
        except KeyError:
            conn.send(("error", "no such indexed file"))
        except (QueryError, ValueError) as error:  # a bad glob, say
            conn.send(("error", str(error)))
        except RepositoryError as error:  # a damaged index: the server's fault, not the request's
            conn.send(("failed", str(error)))


def _exit_with(parent: int) -> None:
    # A server that died without stopping its workers must not leave one running a search.
    while os.getppid() == parent:
        time.sleep(1)
    os._exit(0)


def _search_into(conn: Connection, repos: list[Repository], search: Search) -> None:
    started = time.perf_counter()
    # Freshness is the server's concern (it watches the trees and refreshes before
    # dispatching): workers only read.
    results, reason = repos[search.repo].search(
        search.query, globs=search.globs, types=search.types, before=search.before,
        after=search.after, refresh=False,
    )
    totals = output.Stats()
    for path, hits in results:
        hits = hits[: search.limit - totals.matched_lines]
        conn.send(("lines", output.json_records(path, hits, search.query, None, totals)))
        if totals.matched_lines >= search.limit:
            break
    elapsed = time.perf_counter() - started
    totals.searching = elapsed
    summary = json.loads(output.json_summary(totals, elapsed))
    summary["data"] |= {"limited": totals.matched_lines >= search.limit, "reason": reason}
    conn.send(("end", summary))


@dataclass(eq=False)
class _Worker:
    process: Any
    conn: Connection
    busy: bool = False
    ready: bool = False  # started and holding the indexes open

    def receive(self, timeout: float) -> tuple[str, Any] | None:
        return self.conn.recv() if self.conn.poll(timeout) else None

    def stop(self) -> None:
        self.process.kill()
        self.conn.close()
        self.process.join()


@dataclass
class Workers:
    """A pool of search processes, each holding every repository's index open."""

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
        process = context.Process(target=_work, args=(theirs, self.roots), daemon=True)
        process.start()
        theirs.close()
        worker = _Worker(process, mine)
        self._all.add(worker)
        return worker

    @asynccontextmanager
    async def worker(self) -> AsyncIterator[_Worker]:
        worker = await self._idle.get()
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

    async def replies(self, worker: _Worker, request: tuple, timeout: float) -> AsyncIterator[
        tuple[str, Any]
    ]:
        """Send one request and yield its replies until the last one, or a timeout."""
        worker.busy = True
        while not worker.ready:  # a search's deadline does not count its worker's start-up
            started = await anyio.to_thread.run_sync(worker.receive, _POLL_SECONDS)
            worker.ready = started is not None
        worker.conn.send(request)
        deadline = time.monotonic() + timeout
        while True:
            remaining = deadline - time.monotonic()
            if remaining <= 0:
                yield "timeout", f"the search took longer than {timeout:g} s and was stopped"
                return
            reply = await anyio.to_thread.run_sync(worker.receive, min(remaining, _POLL_SECONDS))
            if reply is None:
                continue
            if reply[0] != "lines":
                worker.busy = False
            yield reply
            if not worker.busy:
                return


# --- freshness ------------------------------------------------------------------------------


@dataclass
class _Tree:
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


# --- the HTTP side --------------------------------------------------------------------------


def create_app(
    roots: Sequence[Path], *, workers: int = 2, timeout: float = DEFAULT_TIMEOUT,
    hosts: Sequence[str] = ("*",),
) -> Starlette:
    """The application over the repositories at ``roots``, indexed as it starts, answering
    requests addressed to ``hosts``."""
    trees = [_Tree(_names(roots)[n], root) for n, root in enumerate(roots)]
    pool = Workers(roots, workers)

    @asynccontextmanager
    async def lifespan(app: Starlette) -> AsyncIterator[None]:
        watchers = [asyncio.create_task(tree.watch()) for tree in trees]
        # Indexed once the watchers are in place, so that no change falls between the two.
        _, late = await asyncio.wait(
            [asyncio.create_task(tree.watched.wait()) for tree in trees],
            timeout=_WATCHER_START_SECONDS,
        )
        for waiting in late:
            waiting.cancel()
        for tree in trees:
            summary = await anyio.to_thread.run_sync(indexer.index, tree.root)
            print(f"{tree.name}: {summary.line()}", file=sys.stderr)
        pool.start()
        try:
            yield
        finally:
            for task in watchers:
                task.cancel()
            pool.stop()

    async def search(request: Request) -> Response:
        wanted = _parse_search(request, trees)
        await trees[wanted.repo].fresh()
        answer = _answer(pool, ("search", wanted), timeout)
        kind, first = await anext(answer)
        if kind != "lines" and kind != "end":
            await answer.aclose()
            return _refusal(first, _STATUS[kind])
        # The first reply came before any header was sent, so a bad glob still gets a 400;
        # the rest is streamed as the worker finds it.
        body = _stream(trees[wanted.repo].name, (kind, first), answer)
        return StreamingResponse(body, media_type="application/x-ndjson")

    async def file(request: Request) -> Response:
        tree = _repo_of(request, trees)
        path = request.query_params.get("path", "")
        await trees[tree].fresh()
        async with pool.worker() as worker:
            async for kind, value in pool.replies(worker, ("file", tree, path), timeout):
                if kind == "text":
                    return JSONResponse({"repo": trees[tree].name, "path": path, "text": value})
                return _refusal(value, 404 if kind == "error" else _STATUS[kind])
        raise AssertionError("a worker always answers")

    async def statuses(request: Request) -> Response:
        return JSONResponse({"repositories": [
            await anyio.to_thread.run_sync(_status, tree) for tree in trees
        ]})

    async def bad_request(request: Request, error: Exception) -> Response:
        return _refusal(str(error), 400)

    routes = [
        Route("/api/search", search),
        Route("/api/file", file),
        Route("/api/status", statuses),
        Mount("/", StaticFiles(packages=[("velmora.serve", "web")], html=True)),
    ]
    return Starlette(
        routes=routes, lifespan=lifespan, exception_handlers={BadRequest: bad_request},
        middleware=[Middleware(TrustedHostMiddleware, allowed_hosts=list(hosts)),
                    Middleware(_SecurityHeaders)],
    )


async def _answer(
    pool: Workers, request: tuple, timeout: float
) -> AsyncGenerator[tuple[str, Any], None]:
    # Holds a worker for as long as its replies are read, which outlives the handler.
    async with pool.worker() as worker:
        async for reply in pool.replies(worker, request, timeout):
            yield reply


async def _stream(
    name: str, first: tuple[str, Any], answer: AsyncGenerator[tuple[str, Any], None]
) -> AsyncIterator[str]:
    reply: tuple[str, Any] | None = first
    try:
        while reply is not None:
            kind, value = reply
            if kind == "lines":
                yield value
            elif kind == "end":
                value["data"]["repo"] = name
                yield _json(value)
            else:  # stopped after the first files: out of time, or a damaged index
                yield _json({"type": "error", "data": {"message": value}})
            reply = await anext(answer, None)
    finally:
        await answer.aclose()


def _json(record: dict[str, Any]) -> str:
    return json.dumps(record, ensure_ascii=False, separators=(",", ":")) + "\n"


def _refusal(reason: str, status: int) -> Response:
    return JSONResponse({"error": reason}, status_code=status)


def _names(roots: Sequence[Path]) -> list[str]:
    """Each repository's name in URLs: its directory's name, numbered where two clash."""
    names: list[str] = []
    for root in roots:
        name = root.name or "root"
        names.append(name if name not in names else f"{name}-{len(names) + 1}")
    return names


def _repo_of(request: Request, trees: Sequence[_Tree]) -> int:
    name = request.query_params.get("repo")
    if name is None:
        return 0
    for number, tree in enumerate(trees):
        if tree.name == name:
            return number
    raise BadRequest(f"no such repository: {name}")


def _parse_search(request: Request, trees: Sequence[_Tree]) -> Search:
    params = request.query_params
    text = params.get("q", "")
    if not text:
        raise BadRequest("the query (q) is empty")
    if len(text) > MAX_QUERY_CHARS:
        raise BadRequest(f"the query is longer than {MAX_QUERY_CHARS} characters")
    try:
        query = Query.parse(
            text, fixed=_flag(params, "fixed"), word=_flag(params, "word"),
            ignore_case=not _flag(params, "case", default=True),
        )
    except QueryError as error:
        raise BadRequest(str(error)) from None
    context = _number(params, "context", 0, MAX_CONTEXT)
    types = [kind for kind in params.getlist("type") if kind]
    try:
        file_types.matcher(types)
    except file_types.UnknownType as error:
        raise BadRequest(str(error)) from None
    return Search(
        _repo_of(request, trees), query, [glob for glob in params.getlist("glob") if glob], types,
        _number(params, "before", context, MAX_CONTEXT),
        _number(params, "after", context, MAX_CONTEXT),
        _number(params, "limit", DEFAULT_LIMIT, MAX_LIMIT, low=1),
    )


def _flag(params: Any, name: str, *, default: bool = False) -> bool:
    value = params.get(name)
    if value is None:
        return default
    if value not in ("0", "1", "true", "false"):
        raise BadRequest(f"{name} must be 0 or 1, not {value!r}")
    return value in ("1", "true")


def _number(params: Any, name: str, default: int, high: int, *, low: int = 0) -> int:
    value = params.get(name)
    if value is None:
        return default
    if not value.isascii() or not value.isdigit() or not low <= int(value) <= high:
        raise BadRequest(f"{name} must be a whole number from {low} to {high}, not {value!r}")
    return int(value)


def _status(tree: _Tree) -> dict[str, Any]:
    return {"name": tree.name, "root": str(tree.root), "report": status.report(tree.root)}


class _SecurityHeaders:
    """Adds headers that keep the page from running anything it did not ship."""

    def __init__(self, app: ASGIApp) -> None:
        self.app = app

    async def __call__(self, scope: Scope, receive: Receive, send: Send) -> None:
        async def with_headers(message: Message) -> None:
            if message["type"] == "http.response.start":
                message["headers"] = [*message.get("headers", []), *_SECURITY_HEADERS]
            await send(message)

        await self.app(scope, receive, with_headers)


def serve(roots: Sequence[Path], *, host: str, port: int, workers: int, timeout: float) -> None:
    """Answer until interrupted."""
    # On a loopback address, a page of another site that has its name resolve to this
    # machine must not read the code: only requests addressed to this machine are answered.
    hosts = _LOOPBACK_NAMES if host in _LOOPBACK_NAMES else ("*",)
    app = create_app(roots, workers=workers, timeout=timeout, hosts=hosts)
    # Searches still running at shutdown are cut short with their workers.
    uvicorn.run(app, host=host, port=port, log_level="warning", timeout_graceful_shutdown=1)
