"""The resident server's Unix socket: where it is, and how a request and its answer are framed.

Imported by the command's fast path, so it imports nothing but builtin modules.

A request is one frame of NUL-separated fields; a search's carries the client's standard output
and error as descriptors (SCM_RIGHTS), which the search writes to itself. The answer is a series
of frames, each a kind byte, a 4-byte big-endian length and that many bytes, ending with
``EXIT`` or ``FALLBACK``.
"""

from __future__ import annotations

import _socket
import os
import sys

# In the repository's .velmora/, beside the index.
SOCKET_NAME = "server.sock"
# Held (flock) by the process that serves the socket, for as long as it does.
LOCK_NAME = "server.lock"

OUT = b"o"  # bytes for standard output
ERR = b"e"  # bytes for standard error
EXIT = b"x"  # the exit status, in ASCII digits: the answer is complete
FALLBACK = b"f"  # the server does not answer this one: the command runs it itself

# The velmora that a search comes from: a server of another (another checkout, or the one
# before an upgrade) leaves the search to the command.
PACKAGE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# A search hands over its standard output and error, no more.
MOST_DESCRIPTORS = 2

# sun_path holds 108 bytes; a longer path is reached through the directory's descriptor.
_MAX_ADDRESS = 100


def frame(kind: bytes, payload: bytes) -> bytes:
    return kind + len(payload).to_bytes(4, "big") + payload


def request(fields: list[str]) -> bytes:
    return frame(b"q", "\0".join(fields).encode("utf-8", "surrogateescape"))


def send(sock: _socket.socket, data: bytes, descriptors: list[int]) -> None:
    """Send all of ``data``, the descriptors riding with its first bytes."""
    rights = b"".join(fd.to_bytes(4, sys.byteorder, signed=True) for fd in descriptors)
    sent = sock.sendmsg([data], [(_socket.SOL_SOCKET, _socket.SCM_RIGHTS, rights)] if rights else [])
    if sent < len(data):
        sock.sendall(data[sent:])


def fields(payload: bytes) -> list[str]:
    return payload.decode("utf-8", "surrogateescape").split("\0")


def read_frame(sock: _socket.socket) -> tuple[bytes, bytes] | None:
    """The next frame from a blocking socket; None when it closed before a whole one came."""
    head = _read_exact(sock, 5)
    if head is None:
        return None
    payload = _read_exact(sock, int.from_bytes(head[1:], "big"))
    return None if payload is None else (head[:1], payload)


def _read_exact(sock: _socket.socket, size: int) -> bytes | None:
    parts, left = [], size
    while left:
        part = sock.recv(min(left, 1 << 20))
        if not part:
            return None
        parts.append(part)
        left -= len(part)
    return b"".join(parts)


def connect(root: str) -> _socket.socket | None:
    """A connection to the server of the repository at ``root``; None when none listens."""
    sock = _socket.socket(_socket.AF_UNIX, _socket.SOCK_STREAM | _socket.SOCK_CLOEXEC)
    try:
        at(root, sock.connect)
    except OSError:
        sock.close()
        return None
    return sock


def at(root: str, use) -> None:
    """Call ``use`` (a socket's bind or connect) with the address of ``root``'s socket."""
    directory = os.path.join(root, ".velmora")
    path = os.path.join(directory, SOCKET_NAME)
    if len(os.fsencode(path)) <= _MAX_ADDRESS:
        use(path)
        return
    fd = os.open(directory, os.O_PATH | os.O_DIRECTORY | os.O_NOFOLLOW | os.O_CLOEXEC)
    try:
        use(f"/proc/self/fd/{fd}/{SOCKET_NAME}")
    finally:
        os.close(fd)
