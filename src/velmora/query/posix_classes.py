"""The POSIX classes of a bracket expression (``[[:digit:]]``), which rg's regexes take, spelt
as Python's re spells them: it has none, and reads ``[[:`` as a set of characters."""

from __future__ import annotations

import re

# ASCII, as in rg.
_CLASSES = {
    "alnum": "0-9A-Za-z", "alpha": "A-Za-z", "ascii": "\\x00-\\x7F", "blank": "\\t ",
    "cntrl": "\\x00-\\x1F\\x7F", "digit": "0-9", "graph": "!-~", "lower": "a-z",
    "print": " -~", "punct": "!-/:-@\\[-`{-~", "space": "\\t\\n\\v\\f\\r ", "upper": "A-Z",
    "word": "0-9A-Za-z_", "xdigit": "0-9A-Fa-f",
}
_NAMED = re.compile(r"\[:(\^?)([a-z]+):\]")


def spelt(source: str) -> str:
    """``source`` with each POSIX class inside brackets replaced by its characters; a
    negated one (``[[:^digit:]]``) must be its brackets' only member (``re.error``)."""
    if "[:" not in source:
        return source
    out: list[str] = []
    index, in_class = 0, False
    while index < len(source):
        char = source[index]
        if char == "\\":
            out.append(source[index : index + 2])
            index += 2
            continue
        if not in_class:
            out.append(char)
            index += 1
            if char == "[":
                in_class = True
                for member in "^]":  # a "]" first (after a "^") is a member, not the end
                    if source.startswith(member, index):
                        out.append(member)
                        index += 1
            continue
        named = _NAMED.match(source, index)
        if named is not None and named.group(2) in _CLASSES:
            members = _CLASSES[named.group(2)]
            if named.group(1):
                if out[-1] != "[" or not source.startswith("]", named.end()):
                    raise re.error(f"{named.group()} must stand alone in its brackets")
                members = "^" + members
            out.append(members)
            index = named.end()
            continue
        in_class = char != "]"
        out.append(char)
        index += 1
    return "".join(out)
