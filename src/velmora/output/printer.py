"""How search results are printed, as rg prints them: matching lines, counts, file names,
JSON lines and statistics. Each file's output is built as one str."""

from __future__ import annotations

import base64
import json
import os
import time
from collections.abc import Callable, Iterable
from itertools import accumulate
from typing import TextIO

from velmora.output.line_format import FULL, Shape, lines_shown, match_spans, run_lines, text_lines
from velmora.query.pattern import Query
from velmora.search.engine import Hit, Run
from velmora.utils.fsio import is_utf8


class Stats:
    """What a search found and did, as rg counts it for ``--stats`` and its JSON summary."""

    def __init__(self) -> None:
        self.matches = self.matched_lines = self.files_with_matches = 0
        self.files_searched = self.bytes_searched = self.bytes_printed = 0
        self.searching = 0.0  # seconds spent in the search itself, output aside

    def report(self, elapsed: float) -> str:
        return (
            f"\n{self.matches} matches\n{self.matched_lines} matched lines\n"
            f"{self.files_with_matches} files contained matches\n"
            f"{self.files_searched} files searched\n{self.bytes_printed} bytes printed\n"
            f"{self.bytes_searched} bytes searched\n{self.searching:.6f} seconds spent searching\n"
            f"{elapsed:.6f} seconds\n"
        )


def plain_block(
    mode: str, shown_path: str, hits: list[Hit], query: Query, shape: Shape = FULL, color: bool = False,
) -> str:
    """One file's output in a mode without context or statistics, laid out by ``shape``: its
    matching lines ("lines"), their count ("count", of matches under ``only_matching``) or
    its name ("files")."""
    if mode == "lines":
        return text_lines(shown_path, hits, query, context=False, color=color, shape=shape)
    name = shape.file_name(shown_path, color)
    if mode == "files":
        return shape.named(name, "")
    return shape.named(name, str(match_count(query, hits) if shape.only_matching else len(hits)))


def match_count(query: Query, hits: list[Hit]) -> int:
    """The matches on the matching lines of ``hits`` (a line of ``-v`` has none)."""
    return sum(len(match_spans(query, _matched_text(hit))) for hit in hits if hit.column >= 0)


def json_records(
    shown_path: str, hits: list[Hit], query: Query, data: bytes | None, totals: Stats,
    elapsed: float = 0.0, repo: str | None = None,
) -> str:
    """One file's results as rg's JSON lines (begin, match and context, end), counted into
    ``totals``. ``data``, the file's bytes, gives each line's offset and line ending; without
    it the offset is null and the ending a line feed. Offsets and spans count bytes. With
    ``repo``, each record's data names that repository first."""
    from json.encoder import encode_basestring as quoted

    named = "{" if repo is None else f'{{"repo":{quoted(repo)},'
    if shown_path.isascii() or is_utf8(shown_path):
        path = f'{named}"path":{{"text":{quoted(shown_path)}}}'
    else:  # as rg shows a name that is not UTF-8
        path = f'{named}"path":{{"bytes":"{base64.b64encode(os.fsencode(shown_path)).decode()}"}}'
    parts: list[str] = []
    starts: list[int] = []
    if data is not None:
        text = data.decode("utf-8", "surrogateescape")
        parts = text.splitlines(True)
        sizes = map(len, parts) if data.isascii() else (
            len(part.encode("utf-8", "surrogateescape")) for part in parts
        )
        starts = list(accumulate(sizes, initial=0))
    matched = {hit.line for hit in hits}
    out = [f'{{"type":"begin","data":{path}}}}}\n']
    matches = 0
    for number, line in lines_shown(hits).items():
        if number <= len(parts):
            part = parts[number - 1]
            # The disk's line is the indexed one and its ending, unless its bytes are not UTF-8.
            body = line if part.startswith(line) else part.splitlines()[0]
            line_end = part[len(body) :]
            offset: int | str = starts[number - 1]
        else:
            line_end, offset = "\n", "null"
        if number in matched:
            kind, spans = "match", match_spans(query, line)
            matches += len(spans)
            ascii_line = line.isascii()
            submatches = ",".join([
                f'{{"match":{{"text":{quoted(line[start:end])}}},"start":'
                f'{start if ascii_line else _size(line[:start])},'
                f'"end":{end if ascii_line else _size(line[:end])}}}'
                for start, end in spans
            ])
        else:
            kind, submatches = "context", ""
        out.append(
            f'{{"type":"{kind}","data":{path},"lines":{{"text":{quoted(line + line_end)}}},'
            f'"line_number":{number},"absolute_offset":{offset},"submatches":[{submatches}]}}}}\n'
        )
    block = "".join(out)
    searched, printed = len(data) if data is not None else 0, _size(block)
    end_stats = _json_stats(elapsed, 1, 1, searched, printed, len(hits), matches)
    totals.matches += matches
    totals.matched_lines += len(hits)
    totals.files_with_matches += 1
    totals.bytes_searched += searched
    totals.bytes_printed += printed
    return f'{block}{{"type":"end","data":{path},"binary_offset":null,"stats":{end_stats}}}}}\n'


def json_summary(totals: Stats, elapsed: float, extra: dict[str, object] | None = None) -> str:
    """rg's closing JSON line: the whole search's counts and times, then ``extra``'s fields."""
    stats = _json_stats(
        totals.searching, totals.files_searched, totals.files_with_matches,
        totals.bytes_searched, totals.bytes_printed, totals.matched_lines, totals.matches,
    )
    more = "".join(
        f",{json.dumps(name)}:{json.dumps(value, ensure_ascii=False)}"
        for name, value in (extra or {}).items()
    )
    return f'{{"type":"summary","data":{{"elapsed_total":{_json_time(elapsed)},"stats":{stats}{more}}}}}\n'


def _json_stats(elapsed, searches, with_match, searched, printed, lines, matches) -> str:
    return (
        f'{{"elapsed":{_json_time(elapsed)},"searches":{searches},"searches_with_match":{with_match},'
        f'"bytes_searched":{searched},"bytes_printed":{printed},"matched_lines":{lines},'
        f'"matches":{matches}}}'
    )


def _json_time(seconds: float) -> str:
    whole, nanos = divmod(round(seconds * 1e9), 1_000_000_000)
    return f'{{"secs":{whole},"nanos":{nanos},"human":"{seconds:.6f}s"}}'


def _size(text: str) -> int:
    return len(text) if text.isascii() else len(text.encode())


class Printer:
    """Writes one search's results file by file, one write per file, in one of rg's modes:
    "lines" (the default), "count" (-c), "files" (-l) or "json"; text laid out by ``shape``."""

    def __init__(
        self,
        query: Query,
        out: TextIO,
        *,
        mode: str = "lines",
        context: bool = False,
        color: bool = False,
        shown: Callable[[str], str] = str,
        read: Callable[[str], bytes | None] = lambda path: None,
        stats: bool = False,
        shape: Shape = FULL,
    ) -> None:
        self.query, self.out, self.mode, self.shape = query, out, mode, shape
        self.context, self.color, self.shown, self.read = context, color, shown, read
        self.totals = Stats() if stats or mode == "json" else None
        self.started = time.perf_counter()
        self.found = False

    def print_all(self, results: Iterable[tuple[str, list[Hit]]]) -> bool:
        """Print every file's results; whether anything matched."""
        totals, clock = self.totals, time.perf_counter
        write, mode, shown, shape = self.out.write, self.mode, self.shown, self.shape
        took = clock()
        for path, hits in results:
            searched = clock() - took
            if mode == "json":
                assert totals is not None
                totals.searching += searched
                block = json_records(shown(path), hits, self.query, self.read(path), totals, searched)
            else:
                if mode == "lines":
                    block = text_lines(
                        shown(path), hits, self.query, context=self.context, color=self.color,
                        shape=shape,
                    )
                    if self.found:
                        block = shape.between_files(self.context) + block
                else:
                    block = plain_block(mode, shown(path), hits, self.query, shape, self.color)
                if totals is not None:
                    self._count(hits, block, searched)
            write(block)
            self.found = True
            took = clock()
        return self.found

    def print_runs(self, results: Iterable[tuple[str, list[Run]]]) -> bool:
        """Print every file's matching lines, as ``print_all`` does with neither context,
        colour, statistics nor JSON, in a plain shape: formatted straight from the runs;
        whether anything matched."""
        write, mode, shown, shape, found = self.out.write, self.mode, self.shown, self.shape, self.found
        for path, runs in results:
            if mode == "files":
                if not any(any(True for _ in matches) for _, _, matches in runs):
                    continue
                block = shape.named(shown(path), "")
            elif mode == "count":
                count = sum(sum(1 for _ in matches) for _, _, matches in runs)
                if not count:
                    continue
                block = shape.named(shown(path), str(count))
            else:
                block = run_lines(shape, shown(path), runs)
                if not block:
                    continue
                opening = shape.between_files(False) if found else ""
                block = opening + shape.head(shown(path), False) + block
            write(block)
            found = True
        self.found = found
        return found

    def _count(self, hits: list[Hit], block: str, searched: float) -> None:
        totals = self.totals
        assert totals is not None
        totals.searching += searched
        totals.files_with_matches += 1
        totals.matched_lines += len(hits)
        totals.matches += match_count(self.query, hits)
        totals.bytes_printed += _size(block)

    def finish(self, files_searched: int, bytes_searched: int) -> None:
        """The closing summary, when one was asked for: a JSON line, or rg's statistics."""
        if self.totals is None:
            return
        self.totals.files_searched, self.totals.bytes_searched = files_searched, bytes_searched
        elapsed = time.perf_counter() - self.started
        closing = json_summary if self.mode == "json" else Stats.report
        self.out.write(closing(self.totals, elapsed))


def _matched_text(hit: Hit) -> str:
    # The context runs from its first line, up to ``before`` lines above the match.
    return hit.context[hit.line - hit.context[0][0]][1]
