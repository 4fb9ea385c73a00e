"""``velmora serve``: a search page and a JSON-lines API over the open indexes of repositories."""

from __future__ import annotations

import asyncio
import json
import os
import socket
import sys
from collections.abc import AsyncGenerator, AsyncIterator, Awaitable, Collection, Sequence
from contextlib import asynccontextmanager
from pathlib import Path
from typing import Any

import anyio
import uvicorn
from starlette.applications import Starlette
from starlette.middleware import Middleware
from starlette.requests import Request
from starlette.responses import JSONResponse, Response, StreamingResponse
from starlette.routing import Mount, Route
from starlette.staticfiles import StaticFiles

from velmora.index import status
from velmora.output import printer as output
from velmora.serve import params
from velmora.serve.headers import SecurityHeaders
from velmora.serve.listening import is_loopback
from velmora.serve.origins import LOOPBACK_NAMES, SameOrigin
from velmora.serve.params import BadRequest
from velmora.serve.resident import Resident
from velmora.serve.params import names
from velmora.serve.watching import WatchedTree
from velmora.serve.worker import FileText, Finished, Lines, Refused, Reply
from velmora.utils.fsio import escaped_name

# A search still running after this long is stopped (its worker is replaced) so that one
# runaway regex cannot hold a worker, nor its memory, for ever.
DEFAULT_TIMEOUT = 10.0
# The answer to a client that went away before it came: nobody reads it.
_GONE = Response(status_code=499)


def create_app(
    roots: Sequence[Path], *, workers: int = 2, timeout: float = DEFAULT_TIMEOUT,
    hosts: Collection[str] | None = None,
) -> Starlette:
    """The application over the repositories at ``roots``, indexed as it starts, answering
    requests addressed to ``hosts`` (None: to any name)."""
    shown = names(list(roots))
    resident = Resident(roots, shown, workers=workers)
    trees, pool = resident.trees, resident.pool

    @asynccontextmanager
    async def lifespan(app: Starlette) -> AsyncIterator[None]:
        await resident.start()
        try:
            yield
        finally:
            await resident.stop()

    async def search(request: Request) -> Response:
        wanted = params.search(request, shown)
        numbers = range(len(shown)) if wanted.repo is None else [wanted.repo]
        wanted.fresh = all([await resident.fresh(number) for number in numbers])
        answer = pool.answer(wanted, timeout)
        first = await _unless_gone(request, anext(answer))
        if first is None or isinstance(first, Refused):
            await answer.aclose()
            return _refusal(first.reason, first.status) if first else _GONE
        # The first reply came before any header was sent, so a bad glob still gets a 400;
        # the rest is streamed as the worker finds it.
        body = _stream(None if wanted.repo is None else shown[wanted.repo], first, answer)
        return StreamingResponse(body, media_type="application/x-ndjson")

    async def file(request: Request) -> Response:
        wanted = params.file(request, shown)
        await resident.fresh(wanted.repo)
        answer = pool.answer(wanted, timeout)
        try:
            reply = await _unless_gone(request, anext(answer))
        finally:
            await answer.aclose()
        if reply is None:
            return _GONE
        if isinstance(reply, FileText):
            symbols = [
                {"name": name, "kind": kind, "line": line, "scope": scope}
                for name, kind, line, scope in reply.symbols
            ]
            return JSONResponse({
                "repo": shown[wanted.repo], "path": wanted.path, "text": reply.text,
                "symbols": symbols,
            })
        assert isinstance(reply, Refused), reply
        return _refusal(reply.reason, reply.status)

    async def statuses(request: Request) -> Response:
        return JSONResponse({"repositories": [
            await anyio.to_thread.run_sync(_status, tree) for tree in trees
        ]})

    async def bad_request(request: Request, error: Exception) -> Response:
        return _refusal(str(error), 400)

    async def failed(request: Request, error: Exception) -> Response:
        return _refusal(f"the server failed: {type(error).__name__}: {error}", 500)

    routes = [
        Route("/api/search", search),
        Route("/api/file", file),
        Route("/api/status", statuses),
        Mount("/", StaticFiles(packages=[("velmora.serve", "web")], html=True)),
    ]
    return Starlette(
        routes=routes, lifespan=lifespan, exception_handlers={BadRequest: bad_request, Exception: failed},
        middleware=[Middleware(SameOrigin, hosts=hosts), Middleware(SecurityHeaders)],
    )


async def _unless_gone(request: Request, reply: Awaitable[Reply]) -> Reply | None:
    """The first reply, or None once the client went away: an abandoned request must not
    keep its worker (leaving here stops the worker mid-search)."""
    waiting = asyncio.ensure_future(reply)
    gone = asyncio.ensure_future(_disconnect(request))
    await asyncio.wait([waiting, gone], return_when=asyncio.FIRST_COMPLETED)
    gone.cancel()
    if not waiting.done():
        waiting.cancel()
        return None
    return waiting.result()


async def _disconnect(request: Request) -> None:
    while (await request.receive())["type"] != "http.disconnect":
        pass


async def _stream(
    name: str | None, first: Reply, answer: AsyncGenerator[Reply, None]
) -> AsyncIterator[str]:
    reply: Reply | None = first
    try:
        while reply is not None:
            if isinstance(reply, Lines):
                yield reply.text
            elif isinstance(reply, Finished):
                yield output.json_summary(reply.stats, reply.elapsed, {
                    "limited": reply.limited, "reason": reply.reason, "repo": name})
            elif isinstance(reply, Refused):  # stopped after the first files: timed out, or damaged
                yield _json({"type": "error", "data": {"message": reply.reason}})
            reply = await anext(answer, None)
    finally:
        await answer.aclose()


def _json(record: dict[str, Any]) -> str:
    return json.dumps(record, ensure_ascii=False, separators=(",", ":")) + "\n"


def _refusal(reason: str, status: int) -> Response:
    return JSONResponse({"error": reason}, status_code=status)


def _status(tree: WatchedTree) -> dict[str, Any]:
    return {"name": tree.name, "root": escaped_name(str(tree.root)),
            "report": status.report(tree.root)}


def serve(
    roots: Sequence[Path], sock: socket.socket, *, workers: int, timeout: float
) -> None:
    """Answer on ``sock``, bound to the address asked for, until interrupted."""
    # Workers are spawned in the server's working directory with its import path: neither
    # may be the directory it was started in, which may be a served repository whose
    # folders are named like standard modules.
    started_in = os.getcwd()
    home = str(Path(__file__).resolve().parents[2])  # where velmora itself is imported from
    sys.path[:] = [entry for entry in sys.path if entry not in ("", started_in) or entry == home]
    os.chdir("/")
    # On a loopback address, a page of another site that has its name resolve to this
    # machine must not read the code: only requests addressed to this machine are answered.
    host = sock.getsockname()[0]
    app = create_app(roots, workers=workers, timeout=timeout,
                     hosts=LOOPBACK_NAMES if is_loopback(host) else None)
    # Searches still running at shutdown are cut short with their workers.
    config = uvicorn.Config(app, log_level="warning", timeout_graceful_shutdown=1)
    uvicorn.Server(config).run(sockets=[sock])
