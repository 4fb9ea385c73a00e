"""Which requests the server answers: those addressed to it by name, from its own page."""

from __future__ import annotations

from collections.abc import Collection
from urllib.parse import urlsplit

from starlette.responses import JSONResponse
from starlette.types import ASGIApp, Receive, Scope, Send

# The names a request to a loopback server may be addressed to.
LOOPBACK_NAMES = frozenset({"localhost", "127.0.0.1", "::1"})


class SameOrigin:
    """Refuses a request addressed to a host name outside ``hosts`` (None: any), so that a
    site whose name resolves to this machine cannot read through it, and an API request
    that another site's page sends (its Origin is not this server's), so that no page can
    keep the workers busy."""

    def __init__(self, app: ASGIApp, hosts: Collection[str] | None) -> None:
        self.app = app
        self.hosts = hosts

    async def __call__(self, scope: Scope, receive: Receive, send: Send) -> None:
        if scope["type"] == "http":
            headers = dict(scope["headers"])
            host = headers.get(b"host", b"").decode("latin-1")
            origin = headers.get(b"origin")
            if self.hosts is not None and _name(host) not in self.hosts:
                return await JSONResponse({"error": "invalid host header"}, 400)(
                    scope, receive, send)
            if origin is not None and scope["path"].startswith("/api/") and (
                urlsplit(origin.decode("latin-1")).netloc != host
            ):
                return await JSONResponse({"error": "cross-origin request refused"}, 403)(
                    scope, receive, send)
        await self.app(scope, receive, send)


def _name(host: str) -> str:
    # "[::1]:8080" -> "::1"; "localhost:8080" -> "localhost"
    if host.startswith("["):
        return host[1 : host.find("]")] if "]" in host else host
    return host.rsplit(":", 1)[0] if host.count(":") == 1 else host
