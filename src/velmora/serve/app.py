"""``velmora serve``: a search page and a JSON-lines API over the open indexes of repositories."""

from __future__ import annotations

import json
from collections.abc import AsyncGenerator, AsyncIterator, Sequence
from contextlib import asynccontextmanager
from pathlib import Path
from typing import Any

import anyio
import uvicorn
from starlette.applications import Starlette
from starlette.middleware import Middleware
from starlette.middleware.trustedhost import TrustedHostMiddleware
from starlette.requests import Request
from starlette.responses import JSONResponse, Response, StreamingResponse
from starlette.routing import Mount, Route
from starlette.staticfiles import StaticFiles

from velmora.index import status
from velmora.output import printer as output
from velmora.serve import params
from velmora.serve.headers import SecurityHeaders
from velmora.serve.params import BadRequest
from velmora.serve.resident import Resident
from velmora.serve.params import names
from velmora.serve.watching import WatchedTree
from velmora.serve.worker import FileText, Finished, Lines, Refused, Reply

# A search still running after this long is stopped (its worker is replaced) so that one
# runaway regex cannot hold a worker, nor its memory, for ever.
DEFAULT_TIMEOUT = 10.0
_LOOPBACK_NAMES = ("127.0.0.1", "localhost")


def create_app(
    roots: Sequence[Path], *, workers: int = 2, timeout: float = DEFAULT_TIMEOUT,
    hosts: Sequence[str] = ("*",),
) -> Starlette:
    """The application over the repositories at ``roots``, indexed as it starts, answering
    requests addressed to ``hosts``."""
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
        first = await anext(answer)
        if isinstance(first, Refused):
            await answer.aclose()
            return _refusal(first.reason, first.status)
        # The first reply came before any header was sent, so a bad glob still gets a 400;
        # the rest is streamed as the worker finds it.
        body = _stream(None if wanted.repo is None else shown[wanted.repo], first, answer)
        return StreamingResponse(body, media_type="application/x-ndjson")

    async def file(request: Request) -> Response:
        wanted = params.file(request, shown)
        await resident.fresh(wanted.repo)
        answer = pool.answer(wanted, timeout)
        try:
            reply = await anext(answer)
        finally:
            await answer.aclose()
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

    routes = [
        Route("/api/search", search),
        Route("/api/file", file),
        Route("/api/status", statuses),
        Mount("/", StaticFiles(packages=[("velmora.serve", "web")], html=True)),
    ]
    return Starlette(
        routes=routes, lifespan=lifespan, exception_handlers={BadRequest: bad_request},
        middleware=[Middleware(TrustedHostMiddleware, allowed_hosts=list(hosts)),
                    Middleware(SecurityHeaders)],
    )


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
    return {"name": tree.name, "root": str(tree.root), "report": status.report(tree.root)}


def serve(roots: Sequence[Path], *, host: str, port: int, workers: int, timeout: float) -> None:
    """Answer until interrupted."""
    # On a loopback address, a page of another site that has its name resolve to this
    # machine must not read the code: only requests addressed to this machine are answered.
    hosts = _LOOPBACK_NAMES if host in _LOOPBACK_NAMES else ("*",)
    app = create_app(roots, workers=workers, timeout=timeout, hosts=hosts)
    # Searches still running at shutdown are cut short with their workers.
    uvicorn.run(app, host=host, port=port, log_level="warning", timeout_graceful_shutdown=1)
