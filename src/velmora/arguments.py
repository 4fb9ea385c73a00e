"""Checks of the Python API's arguments: a wrong type or value is the caller's mistake, named."""

from __future__ import annotations

import sys
from collections.abc import Iterable


def strings(argument: str, value: object) -> list[str]:
    """``value``, a collection of str, as a list; a lone str is refused, not iterated."""
    if isinstance(value, (str, bytes)) or not isinstance(value, Iterable):
        raise TypeError(f"{argument} must be a list of str, not {type(value).__name__}")
    items = list(value)
    for item in items:
        if not isinstance(item, str):
            raise TypeError(f"{argument} must hold str, not {type(item).__name__}")
    return items


def count(argument: str, value: object) -> int:
    """``value``, a whole number from 0; one past any file's length means no bound."""
    if isinstance(value, bool) or not isinstance(value, int):
        raise TypeError(f"{argument} must be an int, not {type(value).__name__}")
    if value < 0:
        raise ValueError(f"{argument} must not be negative, not {value}")
    return min(value, sys.maxsize)


def flag(argument: str, value: object) -> bool:
    if not isinstance(value, bool):
        raise TypeError(f"{argument} must be a bool, not {type(value).__name__}")
    return value
