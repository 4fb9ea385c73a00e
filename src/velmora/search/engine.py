"""``velmora search code``: find a text or a regex in the indexed files."""

from __future__ import annotations

import re
from bisect import bisect_right
from collections.abc import Collection, Iterable, Iterator, Sequence
from itertools import islice
from pathlib import Path
from typing import TYPE_CHECKING, NamedTuple, TypeAlias

from velmora.query import globs as glob_specs, prefilter, trigrams
from velmora.query.pattern import Query, kept_matches
from velmora.query.plan import Plan, plan
from velmora.search import chunk_groups, chunk_scan
from velmora.storage import code_text, layouts
from velmora.storage.database import Database
from velmora.storage import file_rows
from velmora.storage.file_rows import FileRow, Files, listed
from velmora.storage.layouts import ChunkLayout

if TYPE_CHECKING:
    from velmora.index.freshness import DiskOverlay

# Where whole files come from: the module's text source, or one with changed files on top.
TextSource: TypeAlias = "code_text.ChunkText | code_text.DiskText | DiskOverlay"


class Hit(NamedTuple):
    """One matching line: its number, the 0-based column of the match, and its context: the
    (number, text) of each line from ``line - before`` to ``line + after``, clipped to the file."""

    line: int
    column: int
    context: list[tuple[int, str]]


class Run(NamedTuple):
    """Consecutive lines of a file: the number of the first, the lines, and the (number within
    the run, 0-based column) of the first match on each matching line, found as it is read."""

    first: int
    lines: list[str]
    matches: Iterable[tuple[int, int]]


# A segment as the search scans it: the module's ``Segment`` (number of its first line, the
# lines, whether it ends the file), then how many of its lines cannot match, and the matches in
# the lines after those, numbered from 1 there.
ScannedSegment = tuple[int, list[str], bool, int, Iterable[tuple[int, int]]]


def matching_globs(rows: list[FileRow], globs: Sequence[str]) -> list[FileRow]:
    """The rows whose path matches the globs ("!" before a glob excludes the files it
    matches and those in the directories it matches)."""
    include = [g for g in globs if not g.startswith("!")]
    exclude = [g[1:] for g in globs if g.startswith("!")]
    if include:
        wanted = glob_specs.given(include)
        rows = [row for row in rows if wanted.names(row.path)]
    if exclude:
        unwanted = glob_specs.given(exclude)
        rows = [row for row in rows if not unwanted.covers(row.path)]
    return rows


def search(
    db: Database | None,
    query: Query,
    files: Files | Iterable[FileRow],
    *,
    root: Path,
    before: int = 0,
    after: int = 0,
    max_count: int | None = None,
    from_disk: Collection[int] = frozenset(),
    invert: bool = False,
    multiline: bool = False,
) -> tuple[Iterator[tuple[str, list[Hit]]], str | None]:
    """The matches file by file, and why the files are read from disk (None if they aren't).

    ``root`` is the repository the index ``db`` belongs to (without an index, ``db`` None,
    the files below ``root`` are read directly); ``files`` are read as far as the search
    needs them (``file_rows.Indexed``). The files whose ids are in ``from_disk`` are read
    from disk whatever the index holds (files changed since it was written). The other
    files are read a group at a time, so a search holds only one group's text. With
    ``invert`` the lines that do not match are the hits (column -1); with ``multiline`` a
    regex's match may span lines, each of which is a hit.
    """
    if invert or multiline and query.pattern is not None:
        return _whole_files(db, root, query, files, from_disk, before, after, max_count, invert)
    source, segmented, reason = _segmented(db, root, query, files, from_disk, bool(before or after))

    def per_file() -> Iterator[tuple[str, list[Hit]]]:
        for row, segments in segmented:
            hits = _file_hits(source, row, segments, before, after, max_count)
            if hits:
                yield row.path, hits

    return per_file(), reason


def _whole_files(
    db: Database | None, root: Path, query: Query, files: Files | Iterable[FileRow],
    from_disk: Collection[int], before: int, after: int, max_count: int | None, invert: bool,
) -> tuple[Iterator[tuple[str, list[Hit]]], str | None]:
    """``search`` reading every file whole: inverted, or with matches that span lines."""
    # No needle: the source must not skip the files that do not hold it.
    source, _, reason = _sources(db, root, Query(None, None, True), from_disk)
    hits_in = _inverted if invert else _spanning

    def per_file() -> Iterator[tuple[str, list[Hit]]]:
        for row in listed(files).every():
            lines = source.lines(row.id, row.path)
            numbers = islice(hits_in(lines, query), max_count)
            hits = [
                _new_hit(Hit, (line, column, _numbered(lines, 1, line - before, line + after)))
                for line, column in numbers
            ]
            if hits:
                yield row.path, hits

    return per_file(), reason


def _inverted(lines: list[str], query: Query) -> Iterator[tuple[int, int]]:
    found = code_text.line_matches(lines, query.needle or "", query.pattern, query.case_sensitive)
    matched = {number for number, _ in found}
    return ((number, -1) for number in range(1, len(lines) + 1) if number not in matched)


def _spanning(lines: list[str], query: Query) -> Iterator[tuple[int, int]]:
    # Each line a match touches, with the column where the match starts, as rg prints them.
    assert query.pattern is not None
    pattern = re.compile(query.pattern.pattern, query.pattern.flags | re.MULTILINE)
    text = "\n".join(lines)
    starts = [0]
    for line in lines[:-1]:
        starts.append(starts[-1] + len(line) + 1)
    done = 0
    for found in kept_matches(pattern.finditer(text)):
        start, stop = found.span()
        first = bisect_right(starts, start)
        column = start - starts[first - 1]
        for number in range(max(first, done + 1), bisect_right(starts, max(stop - 1, start)) + 1):
            yield number, column
            done = number


def matching_lines(
    db: Database | None,
    query: Query,
    files: Files | Iterable[FileRow],
    *,
    root: Path,
    from_disk: Collection[int] = frozenset(),
) -> tuple[Iterator[tuple[str, list[Run]]], str | None]:
    """As ``search`` without context or a limit, each file's matches as runs of its lines:
    no object per match, for output that only needs each matching line and its place. A file
    may come with runs that hold no match."""
    _, segmented, reason = _segmented(db, root, query, files, from_disk, False)
    runs = (
        (row.path, [
            _new_run(Run, (first + skipped, lines[skipped:] if skipped else lines, found))
            for first, lines, _, skipped, found in segments
        ])
        for row, segments in segmented
    )
    return runs, reason


def _segmented(
    db: Database | None,
    root: Path,
    query: Query,
    files: Files | Iterable[FileRow],
    from_disk: Collection[int],
    with_last: bool,
) -> tuple[TextSource, Iterator[tuple[FileRow, list[ScannedSegment]]], str | None]:
    """The source of whole files, the files that may match with their segments, and why the
    files are read from disk ("" without an index)."""
    planned = plan(query)
    source, on_disk, reason = _sources(db, root, query, from_disk)
    texts: Iterable[tuple[FileRow, list[chunk_groups.ReadChunk]]]
    if reason is None:
        assert db is not None and db.layout is not None
        layout = db.layout
        # A case-sensitive needle is held as it is by any chunk that holds a match (where the
        # index holds a NUL as a space, a needle without one is still found).
        held = query.needle if query.case_sensitive and "\0" not in (query.needle or "\0") else None
        texts = chunk_groups.file_chunks(
            db, layout, listed(files), _trigram_query(db, layout, query, planned), on_disk,
            with_last=with_last, holding=held, widened=_widened(query, planned),
        )
    else:
        texts = ((row, []) for row in listed(files).every())
    first_line = chunk_scan.first_line_finder(query, planned)

    def per_file() -> Iterator[tuple[FileRow, list[ScannedSegment]]]:
        for row, chunks in texts:
            segments: list[ScannedSegment]
            if reason is not None or row.id in on_disk:
                segments = _whole_segments(source, row, query)
            elif chunks:
                segments = _chunk_segments(chunks, first_line, query, row.path, whole=with_last)
            else:
                # Most files of a selective search have no candidate: nothing more to do.
                continue
            if segments:
                yield row, segments

    return source, per_file(), reason


class StoredGroup(NamedTuple):
    """Files of a search, a group at a time: which of their stored chunks to read
    (``chunk_groups.PlannedGroup``; the chunks of a file read from disk are read, to be
    counted, but not searched), and the hits of the files read from disk, by file id."""

    planned: chunk_groups.PlannedGroup
    disk_hits: dict[int, list[Hit]]


def stored_groups(
    db: Database,
    query: Query,
    files: Files | Iterable[FileRow],
    *,
    root: Path,
    max_count: int | None = None,
    from_disk: Collection[int] = frozenset(),
) -> Iterator[StoredGroup] | None:
    """The search's files with which of their chunks to read, for a scan that reads and
    decodes them itself; None when the layout does not store frames or every file is read
    from disk."""
    layout = db.layout
    if layout is None or not layout.stores_frames:
        return None
    source, on_disk, reason = _sources(db, root, query, from_disk)
    if reason is not None:
        return None
    planned = plan(query)
    groups = chunk_groups.planned_groups(
        db, layout, listed(files), _trigram_query(db, layout, query, planned), on_disk
    )

    def per_group() -> Iterator[StoredGroup]:
        for group in groups:
            disk_hits = {
                row.id: _file_hits(source, row, _whole_segments(source, row, query), 0, 0, max_count)
                for row in group.files if row.id in on_disk
            }
            yield StoredGroup(group, disk_hits)

    return per_group()


def _sources(
    db: Database | None, root: Path, query: Query, from_disk: Collection[int]
) -> tuple[TextSource, Collection[int], str | None]:
    """The source of whole files, the ids of the files read from disk (those the index keeps
    there, and ``from_disk``), and why every file is read from disk (None if it isn't;
    without an index, "")."""
    if db is None:
        return code_text.DiskText(root, query.needle, query.case_sensitive), frozenset(), ""
    source: TextSource
    source, reason = layouts.text_source(db, root, query.needle, query.case_sensitive)
    on_disk: Collection[int] = frozenset()
    if reason is None:
        assert db.layout is not None
        on_disk = file_rows.on_disk_ids(db)
    if from_disk:
        from velmora.index.freshness import DiskOverlay

        disk = code_text.DiskText(root, query.needle, query.case_sensitive)
        source = DiskOverlay(source, disk, from_disk)
        on_disk = frozenset(on_disk) | frozenset(from_disk)
    return source, on_disk, reason


def _whole_segments(source: TextSource, row: FileRow, query: Query) -> list[ScannedSegment]:
    """A file's segments as the source gives them, with their matches."""
    needle, pattern, case_sensitive = query.needle or "", query.pattern, query.case_sensitive
    return [
        (first, lines, last, 0, code_text.line_matches(lines, needle, pattern, case_sensitive))
        for first, lines, last in source.segments(row.id, row.path)
    ]


def _widened(query: Query, planned: Plan) -> prefilter.Search | None:
    """The pattern's widened search: a chunk it finds nothing in holds no match."""
    if query.pattern is None or planned.widened is None:
        return None
    return prefilter.widened_search(planned.widened)


def _trigram_query(db: Database, layout: ChunkLayout, query: Query, planned: Plan) -> str | None:
    """The plan's query of the chunks to read, or for a needle of two characters the one
    the index's own trigrams give."""
    if planned.trigram_query is not None or query.needle is None:
        return planned.trigram_query
    terms = layout.pair_terms(db)
    return None if terms is None else trigrams.pair_query(query.needle, query.case_sensitive, terms)


def _chunk_segments(
    chunks: list[chunk_groups.ReadChunk], first_line: chunk_scan.FirstLine | None, query: Query,
    path: str, *, whole: bool,
) -> list[ScannedSegment]:
    """The chunks of the file at ``path`` that may hold a match, as segments with their
    matches (found as read). Without ``whole`` (no context is shown), a segment may leave
    out the lines that come before the first match or after the last."""
    chunk_lines, line_matches = chunk_groups.chunk_lines, code_text.line_matches
    needle, pattern, case_sensitive = query.needle or "", query.pattern, query.case_sensitive
    trimmed = not whole and pattern is None and case_sensitive
    segments: list[ScannedSegment] = []
    for first, end, text, last, picked in chunks:
        if picked is not None:
            lines = chunk_lines(first, end, text)
            _check_numbers(path, first, end, len(lines))
            if lines:
                segments.append((first, lines, last, picked[0], _judged(lines, picked, query)))
            continue
        if trimmed and end >= first:
            # Most of a chunk's lines hold no match: they are never made into strs.
            held = _held_lines(text, needle)
            if held is not None:
                _check_numbers(path, first, end, text.count("\n") + 1)
                lines = held[1]
                segments.append((first + held[0], lines, last, 0, line_matches(lines, needle, None, True)))
            continue
        skipped = 0 if first_line is None else first_line(text)
        if skipped < 0:
            continue  # no match
        lines = chunk_lines(first, end, text)
        _check_numbers(path, first, end, len(lines))
        if not lines:
            continue  # a file without a line
        rest = lines[skipped:] if skipped else lines
        segments.append((first, lines, last, skipped, line_matches(rest, needle, pattern, case_sensitive)))
    return segments


def _judged(lines: list[str], picked: list[int], query: Query) -> Iterator[tuple[int, int]]:
    """The matches among a chunk's lines picked by the widened search (the only lines that
    may match), numbered from 1 at the first picked, as a segment's matches are."""
    found = code_text.line_matches([lines[i] for i in picked], "", query.pattern, query.case_sensitive)
    skipped = picked[0] - 1
    return ((picked[number - 1] - skipped, column) for number, column in found)


def _check_numbers(path: str, first: int, end: int, count: int) -> None:
    if count != end - first + 1:
        # Numbers that disagree with the text would put its matches on other lines, or
        # past the file's end, where they are lost.
        raise ValueError(f"a chunk of {path} numbers lines {first}-{end} but holds {count}")


def _held_lines(text: str, needle: str) -> tuple[int, list[str]] | None:
    """The lines of a chunk's text from the first that holds ``needle`` to the last, after
    how many lines they come; None when no line holds it."""
    at = text.find(needle)
    if at < 0:
        return None
    start = text.rfind("\n", 0, at) + 1
    end = text.find("\n", text.rfind(needle) + len(needle))
    return text.count("\n", 0, start), (text[start:] if end < 0 else text[start:end]).split("\n")


def _file_hits(
    source, row: FileRow, segments: list[ScannedSegment],
    before: int, after: int, max_count: int | None,
) -> list[Hit]:
    # Runs once per match: the work per match is kept to a few tuples.
    file_id, path = row.id, row.path
    hits: list[Hit] = []
    for first, lines, last, skipped, found in segments:
        if max_count is not None:
            room = max_count - len(hits)
            if room <= 0:
                break
            found = islice(found, room)  # stops the scan at the last match wanted
        base = first + skipped - 1  # the number of the line before the first that may match
        if not (before or after):
            # A match's context is its own line, always inside the segment.
            hits += [
                _new_hit(Hit, (line, column, [(line, lines[line - first])]))
                for number, column in found
                for line in (base + number,)
            ]
            continue
        end = first + len(lines) - 1
        for number, column in found:
            line = base + number
            low, high = max(1, line - before), line + after
            if low >= first and (high <= end or last):
                hits.append(_new_hit(Hit, (line, column, _numbered(lines, first, low, high))))
            else:
                # The context reaches past the segment: take it from the whole file.
                whole = source.lines(file_id, path)
                hits.append(_new_hit(Hit, (line, column, _numbered(whole, 1, low, high))))
    return hits


def _numbered(lines: list[str], first: int, low: int, high: int) -> list[tuple[int, str]]:
    """Lines ``low`` to ``high`` of ``lines`` (whose first is line ``first``), clipped to them."""
    low = max(low, first)
    return list(zip(range(low, high + 1), lines[low - first : high - first + 1]))


# Make a Hit or a Run without the Python-level constructor of a named tuple.
_new_hit = _new_run = tuple.__new__
