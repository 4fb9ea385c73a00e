"""What a search looks for: one or more patterns, as plain text or a regex, and the case rule."""

from __future__ import annotations

import re
from collections.abc import Iterator, Sequence
from typing import NamedTuple

from velmora.query import posix_classes


class QueryError(ValueError):
    """The query cannot be searched for (an invalid regex, say)."""


class Query(NamedTuple):
    """What to look for, in the shape the text module takes it."""

    needle: str | None  # a plain search's text, lower-case when case is ignored
    pattern: re.Pattern[str] | None  # a regex search's compiled pattern
    case_sensitive: bool

    @classmethod
    def parse(
        cls,
        patterns: str | Sequence[str],
        *,
        fixed: bool = False,
        ignore_case: bool = False,
        smart_case: bool = False,
        word: bool = False,
        line: bool = False,
    ) -> Query:
        """A query for lines that match any of ``patterns``: Python regexes, or texts with
        ``fixed``. ``smart_case`` ignores case when no pattern has an upper-case letter
        (outside an escape); ``word`` keeps only matches that no word character touches;
        ``line`` only those that are a whole line."""
        if isinstance(patterns, str):
            patterns = [patterns]
        if not patterns:
            raise QueryError("no pattern given")
        for text in patterns:
            try:
                text.encode("utf-8")
            except UnicodeEncodeError:
                raise QueryError(f"the pattern is not valid UTF-8: {text!r}") from None
        if smart_case:
            ignore_case = not any(has_upper(text, fixed) for text in patterns)
        (first, *others) = patterns
        if not (others or word or line) and (fixed or not has_regex_syntax(first)):
            # Text without regex syntax runs as a plain search, which the index narrows.
            return cls(first.lower() if ignore_case else first, None, not ignore_case)
        try:
            sources = [re.escape(text) if fixed else posix_classes.spelt(text) for text in patterns]
            source = "|".join(f"(?:{s})" for s in sources) if others else sources[0]
            if word:
                source = rf"(?<!\w)(?:{source})(?!\w)"
            if line:
                source = rf"^(?:{source})$"
            pattern = re.compile(source, re.IGNORECASE if ignore_case else 0)
        except (re.error, OverflowError, RecursionError) as error:
            shown = " ".join(f"'{text}'" if text.isprintable() else repr(text) for text in patterns)
            raise QueryError(f"invalid regex {shown}: {error}") from None
        return cls(None, pattern, not ignore_case)


# A pattern with none of these is plain text, as a regex would match it.
_REGEX_SYNTAX = frozenset(".^$*+?{}[]\\|()")


def has_regex_syntax(text: str) -> bool:
    """Whether ``text`` means more as a regex than as plain text."""
    return not _REGEX_SYNTAX.isdisjoint(text)


def has_upper(text: str, fixed: bool) -> bool:
    """Whether ``text`` has an upper-case letter to match (in a regex, outside an escape)."""
    # In a regex an escape such as \W or \S names a class, not a letter to match.
    return any(c.isupper() for c in (text if fixed else re.sub(r"\\.", "", text)))


def kept_matches(matches: Iterator[re.Match[str]]) -> Iterator[re.Match[str]]:
    """The matches of a ``finditer`` as rg counts them: an empty match right where the
    previous one ended is not one (``.*`` matches a line once)."""
    end = -1
    for match in matches:
        if match.start() != match.end() or match.start() != end:
            yield match
        end = match.end()
