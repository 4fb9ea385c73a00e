"""``velmora search code``: find a text or a regex in the indexed files."""

from __future__ import annotations

import re
from collections.abc import Iterable, Iterator, Sequence
from itertools import islice
from typing import Any, NamedTuple

from velmora.db import Database
from velmora.storage import chunk_store, code_text


class QueryError(ValueError):
    """The query cannot be searched for (an invalid regex, say)."""


class Query(NamedTuple):
    """What to look for, in the shape the text module takes it."""

    needle: str | None  # a plain search's text, lower-case when case is ignored
    pattern: re.Pattern[str] | None  # a regex search's compiled pattern
    case_sensitive: bool

    @classmethod
    def parse(cls, text: str, *, regex: bool = False, ignore_case: bool = False) -> Query:
        try:
            text.encode("utf-8")
        except UnicodeEncodeError:
            raise QueryError("the query is not valid UTF-8") from None
        if not regex:
            return cls(text.lower() if ignore_case else text, None, not ignore_case)
        try:
            pattern = re.compile(text, re.IGNORECASE if ignore_case else 0)
        except re.error as error:
            raise QueryError(f"invalid regex {text!r}: {error}") from None
        return cls(None, pattern, not ignore_case)

    def span(self, line: str, column: int) -> tuple[int, int] | None:
        """Where the match reported at ``column`` lies in ``line``, for highlighting."""
        if self.pattern is not None:
            found = self.pattern.search(line)
            return found.span() if found else None
        assert self.needle is not None
        # An ignore-case column counts in the lower-cased line, which may be longer.
        if not self.case_sensitive and len(line.lower()) != len(line):
            return None
        return column, column + len(self.needle)


class Hit(NamedTuple):
    """One matching line: its number, the 0-based column of the match, and its context."""

    line: int
    column: int
    context: list[dict[str, Any]]


def select_files(db: Database, globs: Sequence[str] = ()) -> list[code_text.FileRow]:
    """The indexed files, by path, that match the globs ("!" before a glob excludes)."""
    rows = db.fetchall("SELECT id, path, language, NULL FROM files ORDER BY path")
    include = [g for g in globs if not g.startswith("!")]
    exclude = [g[1:] for g in globs if g.startswith("!")]
    if globs:
        # Imported here: it costs more start-up time than a selective search takes.
        import pathspec
    if include:
        wanted = pathspec.GitIgnoreSpec.from_lines(include)
        rows = [row for row in rows if wanted.match_file(row[1])]
    if exclude:
        unwanted = pathspec.GitIgnoreSpec.from_lines(exclude)
        rows = [row for row in rows if not unwanted.match_file(row[1])]
    return rows


def search(
    db: Database,
    query: Query,
    files: Sequence[code_text.FileRow],
    *,
    context_lines: int = 0,
    max_count: int | None = None,
) -> tuple[Iterator[tuple[str, list[Hit]]], str | None]:
    """The matches file by file, and why the files are read from disk (None if they aren't)."""
    source, reason = code_text.text_source(
        db, files, query.needle, query.case_sensitive, store=chunk_store.layout(db)
    )

    def per_file() -> Iterator[tuple[str, list[Hit]]]:
        segments_of = source.segments
        for row in files:
            file_id, path = row[0], row[1]
            segments = segments_of(file_id, path)
            # Most files of a selective search have no candidate: nothing more to do.
            if segments:
                hits = _file_hits(source, file_id, path, segments, query, context_lines, max_count)
                if hits:
                    yield path, hits

    return per_file(), reason


def _file_hits(
    source,
    file_id: int,
    path: str,
    segments: list[code_text.Segment],
    query: Query,
    context_lines: int,
    max_count: int | None,
) -> list[Hit]:
    # Runs once per match: the work per match is kept to the module's calls and a tuple.
    needle, pattern, case_sensitive = query.needle or "", query.pattern, query.case_sensitive
    line_matches, context = code_text.line_matches, code_text.context
    hits: list[Hit] = []
    for first, lines, last in segments:
        found: Iterable[tuple[int, int]] = line_matches(lines, needle, pattern, case_sensitive)
        if max_count is not None:
            room = max_count - len(hits)
            if room <= 0:
                break
            found = islice(found, room)  # stops the scan at the last match wanted
        if not context_lines:
            # A match's context is its own line, always inside the segment.
            hits += [
                _new_hit(Hit, (line, column, context(lines, line, line, first)))
                for number, column in found
                for line in (first + number - 1,)
            ]
            continue
        end = first + len(lines) - 1
        for number, column in found:
            line = first + number - 1
            low, high = max(1, line - context_lines), line + context_lines
            if low >= first and (high <= end or last):
                records = context(lines, low, high, first)
            else:
                # The context reaches past the segment: take it from the whole file.
                records = context(source.lines(file_id, path), low, high)
            hits.append(_new_hit(Hit, (line, column, records)))
    return hits


# Makes a Hit without the Python-level constructor of a named tuple.
_new_hit = tuple.__new__
