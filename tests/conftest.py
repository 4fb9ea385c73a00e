"""The one hypothesis profile, and the helpers that compare the native module with the model."""

from __future__ import annotations

import math
import os
import sqlite3
from pathlib import Path
from typing import Any, Callable

from hypothesis import HealthCheck, settings

# No deadline: a busy machine must not fail a test. In CI the examples are the same on every
# run. The counts keep the whole test command within minutes on two shared cores.
settings.register_profile(
    "velmora",
    deadline=None,
    max_examples=150,
    derandomize=os.environ.get("CI") == "true",
    suppress_health_check=[HealthCheck.too_slow, HealthCheck.data_too_large],
)
settings.load_profile("velmora")

# No test starts a background server by accident; those that want one start it themselves.
os.environ["VELMORA_NO_SERVER"] = "1"


def outcome(call: Callable[[], Any]) -> tuple[Any, ...]:
    """The value of a call, or the type and message of what it raised: both sides must fail alike."""
    try:
        return ("value", call())
    except Exception as error:  # noqa: BLE001 - the error is the result compared
        return ("error", type(error), str(error))


def shape(value: Any) -> Any:
    """A value with the types of what it holds spelled out, so that 1 and True differ."""
    if isinstance(value, dict):
        return ("dict", [(shape(k), shape(v)) for k, v in value.items()])
    if isinstance(value, (list, tuple)):
        return (type(value).__name__, [shape(item) for item in value])
    if isinstance(value, (set, frozenset)):
        return (type(value).__name__, sorted(map(repr, value)))
    if isinstance(value, float) and math.isnan(value):
        return ("float", "nan")
    if isinstance(value, (str, int, float, bytes, bytearray, type(None))):
        return (type(value).__name__, value)
    return (type(value).__name__,)  # an object handed through: which one is not compared


class FakeDatabase:
    """A ``Database`` that records its calls and answers from a real connection or from
    ``one`` (fetchone) and ``rows`` (fetchall; a callable is called with sql and params)."""

    def __init__(self, *, real: Any = None, one: Any = None, rows: Any = ()) -> None:
        self._real, self._one, self._rows = real, one, rows
        self.db_path = Path("/r/x/y/index.db") if real is None else real.db_path
        self.calls: list[tuple[Any, ...]] = []

    def fetchone(self, sql: str) -> Any:
        self.calls.append(("fetchone", sql))
        return self._real.fetchone(sql) if self._real is not None else self._one

    def fetchall(self, sql: str, parameters: Any = ()) -> Any:
        self.calls.append(("fetchall", sql, tuple(parameters)))
        if self._real is not None:
            return self._real.fetchall(sql, parameters)
        return self._rows(sql, parameters) if callable(self._rows) else list(self._rows)


class RecordingCursor:
    """Passes every call on to a real cursor and records it with what it gave."""

    def __init__(self, cursor: sqlite3.Cursor) -> None:
        self._cursor = cursor
        self.calls: list[tuple[Any, ...]] = []

    def execute(self, sql: str, *parameters: Any) -> RecordingCursor:
        self.calls.append(("execute", sql, *map(tuple, parameters)))
        self._cursor.execute(sql, *parameters)
        return self

    def executemany(self, sql: str, batch: Any) -> RecordingCursor:
        batch = [tuple(parameters) for parameters in batch]
        self.calls.append(("executemany", sql, batch))
        self._cursor.executemany(sql, batch)
        return self

    def fetchone(self) -> Any:
        self.calls.append(("fetchone", row := self._cursor.fetchone()))
        return row

    def fetchall(self) -> list[Any]:
        self.calls.append(("fetchall", rows := self._cursor.fetchall()))
        return rows
