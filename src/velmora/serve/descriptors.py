"""A client's output descriptors on their way to the worker that writes to them: taken from a
request's ancillary data strictly, handed over a worker's pipe, and never kept."""

from __future__ import annotations

import array
import os
import socket
from collections.abc import Iterable
from multiprocessing.connection import Connection

from velmora.serve import wire

# Room for one more than a search hands over, so that one too many is seen, not cut.
_ROOM = socket.CMSG_SPACE((wire.MOST_DESCRIPTORS + 1) * array.array("i").itemsize)


class Stray(ValueError):
    """Ancillary data that is more or other than the descriptors of one search."""


def take(ancillary: Iterable[tuple[int, int, bytes]], flags: int, held: list[int]) -> None:
    """Add the descriptors of one ``recvmsg``'s ancillary data to ``held``. Raise Stray when
    it held anything else, was cut short, or brought more than a search hands over; every
    descriptor that came is in ``held`` all the same, for its owner to close."""
    stray = bool(flags & socket.MSG_CTRUNC)
    for level, kind, data in ancillary:
        if (level, kind) == (socket.SOL_SOCKET, socket.SCM_RIGHTS):
            fds = array.array("i")
            fds.frombytes(data[: len(data) - len(data) % fds.itemsize])
            held.extend(fds)
        else:
            stray = True
    if stray or len(held) > wire.MOST_DESCRIPTORS:
        raise Stray


def received(sock: socket.socket, size: int, held: list[int]) -> bytes:
    """Up to ``size`` bytes from ``sock``, the descriptors that came with them added to
    ``held`` (see ``take``); close-on-exec, so that no process started later inherits one."""
    data, ancillary, flags, _ = sock.recvmsg(size, _ROOM, socket.MSG_CMSG_CLOEXEC)
    take(ancillary, flags, held)
    return data


def close(held: list[int]) -> None:
    while held:
        os.close(held.pop())


def hand(conn: Connection, held: list[int]) -> None:
    """Send the descriptors in ``held`` over a worker's pipe, then close them: the worker
    owns them now. On failure they stay in ``held``."""
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM, fileno=conn.fileno())
    try:
        sock.sendmsg([b"d"], [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", held))])
    finally:
        sock.detach()  # the pipe stays the Connection's
    close(held)


def handed(conn: Connection) -> list[int]:
    """The descriptors that ``hand`` sent over the pipe, the worker's end of it."""
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM, fileno=conn.fileno())
    held: list[int] = []
    try:
        received(sock, 1, held)
    except Stray:
        close(held)
        raise
    finally:
        sock.detach()
    return held
