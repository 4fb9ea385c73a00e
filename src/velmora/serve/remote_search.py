"""A command-line search run in a server's worker, its output sent back byte for byte as the
command would have printed it."""

from __future__ import annotations

import contextlib
import io
import os
from collections.abc import Sequence
from multiprocessing.connection import Connection
from pathlib import Path
from typing import NamedTuple

from velmora import cli
from velmora.api import Repository
from velmora.serve import wire


class Output(NamedTuple):
    """Bytes a command-line search printed: to standard output (``wire.OUT``) or error."""

    stream: bytes
    data: bytes


class Exited(NamedTuple):
    """The end of a command-line search: its exit status; None when the worker leaves the
    search to the command (another repository's, say)."""

    status: int | None


class CommandSearch(NamedTuple):
    """A search as the command was given it: its directory, whether its standard output is
    a terminal, that output's encoding and error handler, and its arguments; ``fresh`` says
    whether the server took in every change saved before it."""

    fields: list[str]
    fresh: bool


class NotServed(Exception):
    """The search is of a repository this server does not hold."""


class _Frames(io.RawIOBase):
    """A stream whose writes go to the server as frames of one kind."""

    def __init__(self, conn: Connection, kind: bytes, tty: bool) -> None:
        super().__init__()
        self._conn, self._kind, self._tty = conn, kind, tty

    def writable(self) -> bool:
        return True

    def isatty(self) -> bool:
        return self._tty  # the client's terminal decides --color auto

    def write(self, data) -> int:
        self._conn.send(Output(self._kind, bytes(data)))
        return len(data)


def answer(conn: Connection, repos: Sequence[Repository], fields: list[str], fresh: bool) -> None:
    """Run the search that ``fields`` (a request's, after its kind) describe; ``fresh`` says
    whether the server brought the index up to date for it."""
    cwd, tty, encoding, errors, *argv = fields
    served = {repo.root: repo for repo in repos}

    def repository(root: Path) -> tuple[Repository, bool]:
        if root not in served:
            raise NotServed(root)
        return served[root], fresh

    streams = [
        io.TextIOWrapper(io.BufferedWriter(_Frames(conn, kind, tty == "1")), encoding, errors)
        for kind in (wire.OUT, wire.ERR)
    ]
    try:
        os.chdir(cwd)
        with contextlib.redirect_stdout(streams[0]), contextlib.redirect_stderr(streams[1]):
            try:
                status = cli.main(argv, served=repository)
            except SystemExit as stop:  # argparse's answer to a bad option, or --help
                status = stop.code if isinstance(stop.code, int) else 2
            finally:
                for stream in streams:
                    stream.flush()
    except (NotServed, OSError):  # another repository, or a directory gone
        conn.send(Exited(None))
        return
    conn.send(Exited(status))
