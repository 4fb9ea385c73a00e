"""One search over several repositories: each file named with its repository, the files
in path order (repository by repository) or best first across them all."""

from __future__ import annotations

from collections.abc import Iterator, Sequence

from velmora.api import Repository
from velmora.search.engine import Hit
from velmora.search.ranking import sort_key
from velmora.serve.params import Search


def search(
    repos: Sequence[Repository], names: Sequence[str], search: Search
) -> tuple[Iterator[tuple[str, str, list[Hit]]], str | None]:
    """The files of the repositories ``search`` asks for, as (repository's name, path,
    hits), and why files were read from disk (None when none were)."""
    numbers = range(len(repos)) if search.repo is None else [search.repo]
    found, reasons = [], []
    for number in numbers:
        # Freshness is the server's concern (it watches the trees and refreshes before
        # dispatching): workers only read, unless the server could not write the index.
        results, reason = repos[number].search(
            search.parsed, name=names[number], globs=search.globs, types=search.types,
            before=search.before, after=search.after, refresh=not search.fresh,
        )
        found.append((number, results))
        if reason:
            reasons.append(reason if len(numbers) == 1 else f"{names[number]}: {reason}")
    reason = "; ".join(reasons) or None
    if not search.relevance:
        return ((names[n], path, hits) for n, results in found for path, hits in results), reason
    return _best_first(repos, names, search, found), reason


def _best_first(
    repos: Sequence[Repository], names: Sequence[str], search: Search,
    found: list[tuple[int, Iterator[tuple[str, list[Hit]]]]],
) -> Iterator[tuple[str, str, list[Hit]]]:
    # Every file is found before the first is sent: the limit keeps the best.
    scored = []
    for number, results in found:
        key = sort_key(search.query, repos[number].outline)
        scored += [(key(result), names[number], result) for result in results]
    scored.sort(key=lambda item: item[:2])
    for _, name, (path, hits) in scored:
        yield name, path, hits
