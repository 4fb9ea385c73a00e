"""How matching lines print as text, laid out as rg's flags ask: file name, line number,
column, headings, only the matches, replacements, vimgrep lines, NUL after file names."""

from __future__ import annotations

import re
from collections.abc import Callable
from dataclasses import dataclass
from typing import TYPE_CHECKING

from velmora.query.pattern import Query, kept_matches

if TYPE_CHECKING:
    from velmora.search.engine import Hit, Run

PATH, NUMBER, MATCH, RESET = "\x1b[35m", "\x1b[32m", "\x1b[1;31m", "\x1b[0m"


@dataclass(frozen=True)
class Shape:
    """The layout of a search's text output. The defaults are ``path:line:column:text``."""

    filename: bool = True
    heading: bool = False  # the file name once, above its lines (only with ``filename``)
    line_number: bool = True
    column: bool = True
    only_matching: bool = False
    vimgrep: bool = False  # a line per match, each with its line and column
    replace: str | None = None  # shown in place of each match
    null: bool = False  # a NUL after each file name, in place of ":" or a line feed

    def plain(self) -> bool:
        """Whether each matching line prints once, whole and as it is."""
        return not (self.only_matching or self.vimgrep or self.replace is not None)

    def file_name(self, shown: str, color: bool = False) -> str:
        """A file name as ``-l`` and ``--files`` print it."""
        return f"{PATH}{shown}{RESET}" if color else shown

    def named(self, shown: str, tail: str) -> str:
        """A line of ``-l``/``-c``/``--files`` output for the file ``shown``: ``tail`` is
        what follows the name ("" for a bare name)."""
        if tail and not self.filename:
            return f"{tail}\n"
        if self.null:
            return f"{shown}\0{tail}\n" if tail else f"{shown}\0"
        return f"{shown}:{tail}\n" if tail else f"{shown}\n"

    def head(self, shown: str, color: bool) -> str:
        """What opens a file's lines: its name on a line of its own under ``heading``."""
        if not (self.heading and self.filename):
            return ""
        return self.file_name(shown, color) + ("\0" if self.null else "\n")

    def between_files(self, context: bool) -> str:
        """What separates one file's lines from the next one's."""
        if self.heading and self.filename:
            return "\n"
        return "--\n" if context else ""

    def prefix(self, shown: str, number: int, column: int | None, separator: str) -> str:
        """What comes before a line's text: its file, number and column, each followed by
        ``separator`` (":" on a match, "-" on a context line)."""
        out = ""
        if self.filename and not self.heading:
            out = shown + ("\0" if self.null else separator)
        if self.line_number:
            out += f"{number}{separator}"
        if column is not None and self.column:
            out += f"{column}{separator}"
        return out


# The layout the API's callers get: ``path:line:column:text``.
FULL = Shape()


def byte_column(line: str, offset: int) -> int:
    """The 1-based column of ``offset`` in ``line``, counted in UTF-8 bytes as rg counts."""
    return offset + 1 if line.isascii() else len(line[:offset].encode("utf-8", "surrogatepass")) + 1


def run_lines(shape: Shape, shown: str, runs: list[Run]) -> str:
    """A file's matching lines straight from its runs (``Shape.plain`` without colour or
    context): kept to one f-string per match."""
    prefix = shown + ("\0" if shape.null else ":") if shape.filename and not shape.heading else ""
    if shape.line_number and shape.column:
        return "".join([
            f"{prefix}{first + number - 1}:{byte_column(lines[number - 1], column)}:{lines[number - 1]}\n"
            for first, lines, matches in runs for number, column in matches
        ])
    if shape.line_number:
        return "".join([
            f"{prefix}{first + number - 1}:{lines[number - 1]}\n"
            for first, lines, matches in runs for number, _ in matches
        ])
    return "".join([
        f"{prefix}{lines[number - 1]}\n" for _, lines, matches in runs for number, _ in matches
    ])


def match_spans(query: Query, line: str) -> list[tuple[int, int]]:
    """Every match of ``query`` in ``line``, as (start, end) offsets in the line itself."""
    if query.pattern is not None:
        return [found.span() for found in kept_matches(query.pattern.finditer(line))]
    needle = query.needle or ""
    if query.case_sensitive:
        return _find_all(line, needle)
    lowered = line.lower()
    spans = _find_all(lowered, needle)
    if len(lowered) == len(line):
        return spans
    # A letter such as İ lower-cases to two characters: the spans map back onto the line.
    origin = _origins(line)
    return [(origin[start], origin[end - 1] + 1 if end > start else origin[start]) for start, end in spans]


def column_in_line(query: Query, line: str, column: int) -> int:
    """The reported column as an offset in ``line``: a case-ignoring plain search counts in
    the lower-cased line, where a letter such as İ takes two characters."""
    if query.needle is None or query.case_sensitive or line.isascii():
        return column
    return _origins(line)[column] if len(line.lower()) != len(line) else column


def _origins(line: str) -> list[int]:
    # For each character of line.lower(), the offset in line of the letter it comes from.
    return [at for at, char in enumerate(line) for _ in char.lower()] + [len(line)]


def _find_all(text: str, needle: str) -> list[tuple[int, int]]:
    spans, size = [], len(needle)
    at = text.find(needle)
    while at >= 0:
        spans.append((at, at + size))
        at = text.find(needle, at + (size or 1))
    return spans


def text_lines(
    shown_path: str, hits: list[Hit], query: Query, *, context: bool, color: bool,
    shape: Shape = FULL,
) -> str:
    """One file's matches (and context lines) laid out by ``shape``, with ``--`` between
    runs of lines that do not touch. A hit whose column is negative (``-v``) has none."""
    lines = lines_shown(hits)
    columns = {hit.line: hit.column for hit in hits}
    if query.needle is not None and not query.case_sensitive:
        columns = {n: c if c < 0 else column_in_line(query, lines[n], c) for n, c in columns.items()}
    shown = f"{PATH}{shown_path}{RESET}" if color else shown_path
    replace = _replacer(query, shape.replace) if shape.replace is not None else None
    out = [shape.head(shown_path, color)]
    after = next(iter(lines))
    for number, text in lines.items():
        if number != after and context:
            out.append("--\n")
        after = number + 1
        shown_number = f"{NUMBER}{number}{RESET}" if color else number
        column = columns.get(number)
        if column is None:
            out.append(f"{shape.prefix(shown, shown_number, None, '-')}{text}\n")  # type: ignore[arg-type]
        elif column < 0 or shape.plain() and not color:
            at = None if column < 0 else byte_column(text, column)
            out.append(f"{shape.prefix(shown, shown_number, at, ':')}{text}\n")  # type: ignore[arg-type]
        else:
            out += _match_lines(query, shape, shown, shown_number, text, column, replace, color)
    return "".join(out)


def _match_lines(
    query: Query, shape: Shape, shown: str, number: object, text: str, column: int,
    replace: Callable[[re.Match[str]], str] | None, color: bool,
) -> list[str]:
    """A matching line as printed: once, or once per match with ``-o`` and ``--vimgrep``."""
    if replace is not None:
        spans = [(found.start(), found.end(), replace(found)) for found in _matches(query, text)]
    else:
        spans = [(start, end, text[start:end]) for start, end in match_spans(query, text)]
    if color:
        spans = [(start, end, f"{MATCH}{shown_text}{RESET}" if end > start else shown_text)
                 for start, end, shown_text in spans]
    whole = _substituted(text, spans)
    if shape.only_matching:
        return [f"{shape.prefix(shown, number, byte_column(text, start), ':')}{part}\n"  # type: ignore[arg-type]
                for start, _, part in spans]
    if shape.vimgrep:
        return [f"{shape.prefix(shown, number, byte_column(text, start), ':')}{whole}\n"  # type: ignore[arg-type]
                for start, _, _ in spans]
    return [f"{shape.prefix(shown, number, byte_column(text, column), ':')}{whole}\n"]  # type: ignore[arg-type]


def _substituted(text: str, spans: list[tuple[int, int, str]]) -> str:
    pieces, done = [], 0
    for start, end, shown in spans:
        pieces += [text[done:start], shown]
        done = end
    pieces.append(text[done:])
    return "".join(pieces)


def _matches(query: Query, line: str) -> list[re.Match[str]]:
    # The matches themselves, for their groups: a plain needle as the regex it stands for.
    pattern = query.pattern or re.compile(
        re.escape(query.needle or ""), 0 if query.case_sensitive else re.IGNORECASE
    )
    return list(kept_matches(pattern.finditer(line)))


# $1, ${1}, $name, ${name} and $$, as rg expands a replacement.
_GROUP = re.compile(r"\$(?:(\$)|\{(\w+)\}|(\w+))")


def _replacer(query: Query, template: str) -> Callable[[re.Match[str]], str]:
    def expand(found: re.Match[str]) -> str:
        def group(ref: re.Match[str]) -> str:
            if ref.group(1):
                return "$"
            name = ref.group(2) or ref.group(3)
            try:
                return found.group(int(name) if name.isdecimal() else name) or ""
            except IndexError:
                return ""  # no such group: nothing, as rg has it

        return _GROUP.sub(group, template)

    return expand


def lines_shown(hits: list[Hit]) -> dict[int, str]:
    # Contexts overlap and follow one another: merged, each line once, in order.
    lines: dict[int, str] = {}
    for hit in hits:
        lines.update(hit.context)
    return lines
