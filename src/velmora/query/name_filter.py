"""What SQLite can test of a name before a regex does: a literal that every match holds,
looked up through an index when the regex anchors it at the start."""

from __future__ import annotations

import re

from re import _parser as sre_parse  # type: ignore[attr-defined]

# Letters whose other case lies outside ASCII (K and the Kelvin sign, s and the long s, i
# and the dotless one): SQL's ASCII-only LIKE would miss a name spelt with those.
_FOLDS_BEYOND_ASCII = frozenset("iksIKS")


def sql_filter(pattern: re.Pattern[str], column: str) -> tuple[str, list[str]] | None:
    """A condition on ``column`` that holds for every name ``pattern`` finds (and for some it
    does not), with its parameters; None when no literal is known."""
    try:
        parsed = sre_parse.parse(pattern.pattern, pattern.flags)
    except (re.error, RecursionError, OverflowError):
        return None
    ignore_case = bool(pattern.flags & re.IGNORECASE)
    runs, anchored = _literal_runs(list(parsed), ignore_case)
    if not runs:
        return None
    if anchored and not ignore_case:
        # A prefix: a range of the index on names.
        return f"{column} >= ? AND {column} < ?", [anchored, anchored + "\U0010ffff"]
    longest = max(runs, key=len)
    if ignore_case:
        escaped = longest.replace("\\", "\\\\").replace("%", "\\%").replace("_", "\\_")
        return f"{column} LIKE ? ESCAPE '\\'", [f"%{escaped}%"]
    return f"instr({column}, ?) > 0", [longest]


def _literal_runs(items: list, ignore_case: bool) -> tuple[list[str], str]:
    """The runs of two or more literal characters in a top-level sequence (a top-level
    alternation has none that every match holds), and the run that begins the name when
    the regex anchors one there ("" when none does)."""
    anchored = bool(items) and items[0] == (sre_parse.AT, sre_parse.AT_BEGINNING)
    body = items[1:] if anchored else items
    runs: list[str] = []
    current: list[str] = []
    for op, arg in body:
        if op == sre_parse.LITERAL and _usable(chr(arg), ignore_case):
            current.append(chr(arg))
            continue
        runs.append("".join(current))
        current = []
    runs.append("".join(current))
    # The first run begins the name when the anchor is followed by a literal at once.
    prefix = runs[0] if anchored and len(runs[0]) >= 2 else ""
    return [run for run in runs if len(run) >= 2], prefix


def _usable(char: str, ignore_case: bool) -> bool:
    return not ignore_case or char.isascii() and char not in _FOLDS_BEYOND_ASCII
