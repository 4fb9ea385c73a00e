"""The requests the API takes, checked and bounded before any worker sees them."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any, NamedTuple

from starlette.requests import Request

from velmora.query import file_types, language
from velmora.query.pattern import Query, QueryError
from velmora.utils.fsio import escaped_name

# Bounds on what one request may ask for: the server answers many people at once.
MAX_QUERY_CHARS = 1000
MAX_CONTEXT = 50
MAX_LIMIT = 10_000
DEFAULT_LIMIT = 1000


class BadRequest(Exception):
    """A request the server will not run; the message says why."""


@dataclass
class Search:
    """One search as a request asks for it, checked."""

    repo: int | None  # None: every repository
    parsed: language.Parsed
    query: Query  # finds the matches within the lines shown
    globs: list[str]
    types: list[str]
    before: int
    after: int
    limit: int
    relevance: bool  # best first, rather than by path
    # Whether the server took in every change saved before the search; when it could not
    # write the index, the worker checks the files itself.
    fresh: bool = True


class FileRequest(NamedTuple):
    """The indexed text of one file of one repository, by its path in the index."""

    repo: int
    path: str


def names(roots: Sequence[Path]) -> list[str]:
    """Each repository's name in URLs: its directory's name (escaped where it is not
    UTF-8), numbered where two clash."""
    found: list[str] = []
    for root in roots:
        name = escaped_name(root.name) or "root"
        found.append(name if name not in found else f"{name}-{len(found) + 1}")
    return found


def repo_number(request: Request, names: Sequence[str]) -> int:
    """The repository a request names (default the first), as its place in ``names``."""
    name = request.query_params.get("repo")
    if name is None:
        return 0
    if name not in names:
        raise BadRequest(f"no such repository: {name}")
    return names.index(name)


def search(request: Request, names: Sequence[str]) -> Search:
    params = request.query_params
    text = params.get("q", "")
    if not text:
        raise BadRequest("the query (q) is empty")
    if len(text) > MAX_QUERY_CHARS:
        raise BadRequest(f"the query is longer than {MAX_QUERY_CHARS} characters")
    try:
        parsed = language.parse(
            text, fixed=_flag(params, "fixed"), word=_flag(params, "word"),
            case="yes" if _flag(params, "case", default=True) else "no",
        )
    except QueryError as error:
        raise BadRequest(str(error)) from None
    context = _number(params, "context", 0, MAX_CONTEXT)
    types = [kind for kind in params.getlist("type") if kind]
    try:
        file_types.matcher(types)
    except file_types.UnknownType as error:
        raise BadRequest(str(error)) from None
    every = len(names) > 1 and not params.get("repo")
    order = params.get("sort", "relevance")
    if order not in ("relevance", "path"):
        raise BadRequest(f"sort must be relevance or path, not {order!r}")
    return Search(
        None if every else repo_number(request, names), parsed, parsed.shown_query(),
        [glob for glob in params.getlist("glob") if glob],
        types, _number(params, "before", context, MAX_CONTEXT),
        _number(params, "after", context, MAX_CONTEXT),
        _number(params, "limit", DEFAULT_LIMIT, MAX_LIMIT, low=1), order == "relevance",
    )


def file(request: Request, names: Sequence[str]) -> FileRequest:
    return FileRequest(repo_number(request, names), request.query_params.get("path", ""))


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
