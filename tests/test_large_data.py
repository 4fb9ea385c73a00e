"""The migration step on real SQLite indexes: the module against the model, call by call."""

from __future__ import annotations

import sqlite3

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import model
from conftest import STRIDE, RecordingCursor
from velmora.storage import code_text as native

# A file: (language, text_on_disk, sizes of its chunks' texts, or None for no chunk at all).
FILES = st.lists(
    st.tuples(
        st.sampled_from(["json", "JSON", "python", " json", ""]),
        st.sampled_from([0, 0, 1, 2]),
        st.one_of(
            st.none(),
            st.lists(st.integers(0, 33_000), min_size=1, max_size=3),
            st.sampled_from([[32768], [32769], [20000, 10000, 2766], [20000, 10000, 2767]]),
        ),
    ),
    max_size=6,
)


def build(files, *, exact: bool) -> sqlite3.Connection:
    connection = sqlite3.connect(":memory:")
    connection.execute(
        "CREATE TABLE files (id INTEGER PRIMARY KEY, language TEXT, text_on_disk INTEGER)"
    )
    connection.execute(native.CODE_CHUNKS_DDL)
    for file_id, (language, on_disk, sizes) in enumerate(files, start=1):
        connection.execute("INSERT INTO files VALUES (?, ?, ?)", (file_id, language, on_disk))
        for offset, size in enumerate(sizes or []):
            # Multi-byte text, and now and then the exact text beside the searchable one.
            text = "é" * (size // 2) + "x" * (size % 2)
            connection.execute(
                "INSERT INTO code_chunks (rowid, start_line, end_line, text, exact) VALUES (?, 1, 1, ?, ?)",
                (file_id * STRIDE + offset, text.replace("é", "e") if exact else text, text if exact else None),
            )
    return connection


def state(connection: sqlite3.Connection):
    return (
        connection.execute("SELECT id, language, text_on_disk FROM files ORDER BY id").fetchall(),
        connection.execute("SELECT rowid, text, exact FROM code_chunks ORDER BY rowid").fetchall(),
    )


@settings(max_examples=150, suppress_health_check=[HealthCheck.too_slow])
@given(FILES, st.booleans(), st.integers(1, 2))
def test_migration_equals_the_model(files, exact: bool, runs: int) -> None:
    results = {}
    for impl in (model, native):
        connection = build(files, exact=exact)
        cursor = RecordingCursor(connection.cursor())
        counts = [impl.keep_large_data_on_disk(cursor) for _ in range(runs)]
        results[impl.__name__] = (counts, cursor.calls, state(connection))
    assert results["velmora.storage.code_text"] == results["model"]
    counts = results["model"][0]
    if runs == 2:
        assert counts[1] == 0


def test_no_code_chunks_table_runs_only_the_probe() -> None:
    connection = sqlite3.connect(":memory:")
    connection.execute("CREATE TABLE files (id INTEGER PRIMARY KEY, language TEXT, text_on_disk INTEGER)")
    connection.execute("INSERT INTO files VALUES (1, 'json', 0)")
    cursor = RecordingCursor(connection.cursor())
    assert native.keep_large_data_on_disk(cursor) == 0
    assert [call[0] for call in cursor.calls] == ["execute", "fetchone"]
    assert state_files(connection) == [(1, "json", 0)]


def state_files(connection):
    return connection.execute("SELECT id, language, text_on_disk FROM files").fetchall()


def test_database_errors_pass_unchanged_and_leave_the_transaction_to_the_caller() -> None:
    connection = sqlite3.connect(":memory:")
    connection.execute("CREATE TABLE files (id INTEGER PRIMARY KEY, language TEXT)")
    connection.execute(native.CODE_CHUNKS_DDL)
    with pytest.raises(sqlite3.OperationalError, match="no such column: f.text_on_disk"):
        native.keep_large_data_on_disk(connection.cursor())
    assert not connection.in_transaction


@pytest.mark.parametrize("cursor", [None, 5, object()])
def test_a_cursor_without_execute_fails_cleanly(cursor) -> None:
    with pytest.raises(AttributeError, match="execute"):
        native.keep_large_data_on_disk(cursor)
