"""The server's listening socket, bound before anything is indexed, and the address it serves."""

from __future__ import annotations

import errno
import ipaddress
import socket


class ListenError(Exception):
    """The server cannot listen where it was asked to; the message says why."""


def bind(host: str, port: int) -> socket.socket:
    """A socket bound to ``host`` and ``port`` (0: a free port), not yet listening."""
    if not 0 <= port <= 65535:
        raise ListenError(f"port {port} is out of range")
    sock = socket.socket(socket.AF_INET6 if ":" in host else socket.AF_INET)
    try:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        sock.bind((host, port))
    except (OSError, UnicodeError) as error:
        sock.close()
        if getattr(error, "errno", None) == errno.EADDRINUSE:
            raise ListenError(f"port {port} is in use") from None
        reason = getattr(error, "strerror", None) or error
        raise ListenError(f"cannot listen on {host} port {port}: {reason}") from None
    return sock


def url(sock: socket.socket) -> str:
    """The address a browser opens to reach ``sock``: an IPv6 literal in brackets, the port
    the system chose for port 0."""
    host, port = sock.getsockname()[:2]
    return f"http://[{host}]:{port}/" if sock.family == socket.AF_INET6 else f"http://{host}:{port}/"


def is_loopback(host: str) -> bool:
    """Whether ``host`` names this machine only: only then is the Host header checked."""
    if host == "localhost":
        return True
    try:
        return ipaddress.ip_address(host).is_loopback
    except ValueError:
        return False
