"""Orders a search's files by relevance: a definition of what was looked for first, then a
match in the file's name, then whole-word matches, then shorter paths."""

from __future__ import annotations

import re
from collections.abc import Callable, Iterable

from velmora.output.printer import match_spans
from velmora.query.pattern import Query
from velmora.search.engine import Hit

Outline = Callable[[str], list[tuple[str, str, int, "str | None"]]]
_WORD = re.compile(r"\w")


def ranked(
    results: Iterable[tuple[str, list[Hit]]], query: Query, outline: Outline
) -> list[tuple[str, list[Hit]]]:
    """``results`` best first; ``outline`` gives a file's definitions as (name, kind, line,
    scope), ``query`` finds what was looked for in a line or a name."""
    return sorted(results, key=sort_key(query, outline))


def sort_key(
    query: Query, outline: Outline
) -> Callable[[tuple[str, list[Hit]]], tuple[bool, bool, bool, int, str]]:
    """The key that sorts one repository's results best first; keys of several
    repositories' results compare with one another."""

    def key(result: tuple[str, list[Hit]]) -> tuple[bool, bool, bool, int, str]:
        path, hits = result
        lines = {hit.line for hit in hits}
        defines = bool(hits) and any(
            line in lines and names(query, name) for name, _, line, _ in outline(path)
        )
        return (
            not defines,
            not finds(query, path.rpartition("/")[2]),
            not any(_whole_word(query, hit) for hit in hits),
            len(path),
            path,
        )

    return key


def finds(query: Query, text: str) -> bool:
    """Whether ``query`` matches somewhere in ``text``."""
    if query.pattern is not None:
        return query.pattern.search(text) is not None
    needle = query.needle or ""
    return needle in (text if query.case_sensitive else text.lower())


def names(query: Query, name: str) -> bool:
    """Whether ``query`` matches the whole of ``name``: what a definition of it is called."""
    if query.pattern is not None:
        return query.pattern.fullmatch(name) is not None
    return query.needle == (name if query.case_sensitive else name.lower())


def _whole_word(query: Query, hit: Hit) -> bool:
    line = hit.context[hit.line - hit.context[0][0]][1]
    for start, end in match_spans(query, line):
        before = line[start - 1 : start]
        after = line[end : end + 1]
        if end > start and not _WORD.match(before) and not _WORD.match(after):
            return True
    return False
