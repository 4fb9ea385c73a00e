"""A command-line search run in a server's worker, writing to the client's own standard output
and error, as the command would have printed it."""

from __future__ import annotations

import contextlib
import os
from collections.abc import Sequence
from multiprocessing.connection import Connection
from pathlib import Path
from typing import NamedTuple

from velmora import cli
from velmora.api import Repository
from velmora.serve import descriptors


class Exited(NamedTuple):
    """The end of a command-line search: its exit status; None when the worker leaves the
    search to the command (another repository's, say)."""

    status: int | None


class CommandSearch(NamedTuple):
    """A search as the command was given it: its directory, its standard output's encoding
    and error handler, and its arguments; ``fresh`` says whether the server took in every
    change saved before it. The client's output descriptors follow it over the pipe."""

    fields: list[str]
    fresh: bool


class NotServed(Exception):
    """The search is of a repository this server does not hold."""


def answer(conn: Connection, repos: Sequence[Repository], search: CommandSearch, streams: list[int]) -> None:
    """Run ``search`` with ``streams`` (the client's standard output and error) as its own,
    and close them before the exit status goes back: once the client exits on it, nothing
    here holds its output open."""
    cwd, encoding, errors, *argv = search.fields
    served = {repo.root: repo for repo in repos}

    def repository(root: Path) -> tuple[Repository, bool]:
        if root not in served:
            raise NotServed(root)
        return served[root], search.fresh

    # Buffered as the interpreter buffers its own: output by line on a terminal, errors by line.
    opened = []
    try:
        for fd, buffering in zip(streams, (-1, 1)):
            opened.append(open(fd, "w", buffering, encoding, errors, closefd=False))
        out, err = opened
        os.chdir(cwd)
        with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
            try:
                status = cli.main(argv, served=repository)
            except SystemExit as stop:  # argparse's answer to a bad option, or --help
                status = stop.code if isinstance(stop.code, int) else 2
    except (NotServed, OSError, LookupError):  # another repository, a directory gone
        status = None
    finally:
        for stream in opened:
            with contextlib.suppress(OSError):
                stream.close()  # marked closed even when its last flush fails
        descriptors.close(streams)
    conn.send(Exited(status))
