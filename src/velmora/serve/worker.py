"""What runs in a search process of the server, and the records it sends back."""

from __future__ import annotations

import os
import sys
import threading
import time
from collections.abc import Sequence
from multiprocessing.connection import Connection
from pathlib import Path
from typing import NamedTuple

from velmora.api import Repository, RepositoryError
from velmora.output import printer as output
from velmora.query.pattern import QueryError
from velmora.serve import descriptors, every_repo, remote_search
from velmora.serve.remote_search import CommandSearch, Exited
from velmora.serve.params import FileRequest, Search, names
from velmora.storage import schema


class Ready(NamedTuple):
    """The worker holds every index open and takes requests."""


class Lines(NamedTuple):
    """One file's results, as the JSON lines the API streams."""

    text: str


class Finished(NamedTuple):
    """The last reply of a search: what it counted and whether the limit cut it short."""

    stats: output.Stats
    elapsed: float
    limited: bool
    reason: str | None


class FileText(NamedTuple):
    """The indexed text of one file, and its definitions as (name, kind, line, scope)."""

    text: str
    symbols: list[tuple[str, str, int, str | None]]


class Refused(NamedTuple):
    """A request the worker could not answer: the HTTP status it deserves, and why."""

    status: int
    reason: str


Reply = Ready | Lines | Finished | FileText | Refused | Exited
# The replies after which more come.
PARTIAL = (Lines,)


# Python's re cannot be interrupted from another thread, so searches run in worker
# processes: a search past its deadline is stopped by ending its worker.
def work(conn: Connection, roots: Sequence[Path]) -> None:
    threading.Thread(target=_exit_with, args=(os.getppid(),), daemon=True).start()
    # A command's search runs in its own directory, in the searched repository: a relative
    # entry of the module path ("" under python -c) would import that repository's code.
    sys.path[:] = [entry for entry in sys.path if os.path.isabs(entry)]
    indexes = OpenIndexes(roots)
    shown = names(roots)
    conn.send(Ready())
    while True:
        try:
            request = conn.recv()
        except (EOFError, KeyboardInterrupt):
            return
        streams: list[int] = []
        try:
            if isinstance(request, CommandSearch):
                streams = descriptors.handed(conn)
            repos = indexes.current()
            if isinstance(request, CommandSearch):
                remote_search.answer(conn, repos, request, streams)
            elif isinstance(request, Search):
                _search_into(conn, repos, shown, request)
            else:
                _file_into(conn, repos, request)
        except (QueryError, ValueError) as error:  # a bad glob, say
            conn.send(Refused(400, str(error)))
        except RepositoryError as error:  # a damaged index: the server's fault, not the request's
            conn.send(Refused(500, str(error)))
        finally:
            descriptors.close(streams)  # a search that never ran holds none of its client's output


class OpenIndexes:
    """The repositories' indexes held open, each opened again once it was replaced
    (``velmora index --rebuild``, or a removed index made anew)."""

    def __init__(self, roots: Sequence[Path]) -> None:
        self._repos = [_opened(root) for root in roots]
        self._files = [_identity(repo) for repo in self._repos]

    def current(self) -> list[Repository]:
        for number, repo in enumerate(self._repos):
            now = _identity(repo)
            if now is not None and now != self._files[number]:
                repo.close()
                self._repos[number] = _opened(repo.root)
                self._files[number] = now
        return self._repos


def _opened(root: Path) -> Repository:
    repo = Repository.at(root, create=False)
    repo.updates_index = False  # the server's concern
    return repo


def _identity(repo: Repository) -> tuple[int, int] | None:
    try:
        info = os.stat(schema.index_path(repo.root))
    except OSError:
        return None
    return info.st_dev, info.st_ino


def _exit_with(parent: int) -> None:
    # A server that died without stopping its workers must not leave one running a search.
    while os.getppid() == parent:
        time.sleep(1)
    os._exit(0)


def _file_into(conn: Connection, repos: list[Repository], request: FileRequest) -> None:
    try:
        repo = repos[request.repo]
        conn.send(FileText(repo.indexed_text(request.path), repo.outline(request.path)))
    except (KeyError, ValueError):
        conn.send(Refused(404, "no such indexed file"))


def _search_into(
    conn: Connection, repos: list[Repository], repo_names: list[str], search: Search
) -> None:
    started = time.perf_counter()
    results, reason = every_repo.search(repos, repo_names, search)
    totals = output.Stats()
    # A query of fields alone lists files without lines: the limit counts those.
    files_only = search.parsed.lists_files
    limited = False  # whether more matched than the limit let through
    for repo, path, hits in results:
        shown = totals.files_with_matches if files_only else totals.matched_lines
        limited = shown >= search.limit or not files_only and shown + len(hits) > search.limit
        if shown >= search.limit:
            break
        hits = hits[: search.limit - totals.matched_lines]
        conn.send(Lines(output.json_records(path, hits, search.query, None, totals, repo=repo)))
    numbers = range(len(repos)) if search.repo is None else [search.repo]
    searched = [file for n in numbers for file in repos[n].files(globs=search.globs, types=search.types)]
    totals.files_searched = len(searched)
    totals.bytes_searched = sum(size for _, size in searched)
    totals.searching = time.perf_counter() - started
    conn.send(Finished(totals, totals.searching, limited, reason))
