"""The migration step on real SQLite indexes: the module against the model, call by call."""

from __future__ import annotations

import sqlite3

import pytest
from hypothesis import given
from hypothesis import strategies as st

import model
from conftest import RecordingCursor, outcome
from velmora.storage import chunk_store
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


def build(files, *, exact: bool, chunk_table: bool) -> sqlite3.Connection:
    connection = sqlite3.connect(":memory:")
    connection.execute("CREATE TABLE files (id INTEGER PRIMARY KEY, language TEXT, text_on_disk INTEGER)")
    if chunk_table:
        connection.execute(native.CODE_CHUNKS_DDL)
    for file_id, (language, on_disk, sizes) in enumerate(files, start=1):
        connection.execute("INSERT INTO files VALUES (?, ?, ?)", (file_id, language, on_disk))
        for offset, size in enumerate(sizes if chunk_table and sizes else []):
            # Multi-byte text, and now and then the exact text beside the searchable one.
            text = "é" * (size // 2) + "x" * (size % 2)
            connection.execute(
                "INSERT INTO code_chunks (rowid, start_line, end_line, text, exact) VALUES (?, 1, 1, ?, ?)",
                (file_id * chunk_store.CHUNK_STRIDE + offset, text.replace("é", "e") if exact else text,
                 text if exact else None),
            )
    return connection


def state(connection: sqlite3.Connection):
    tables = {name for (name,) in connection.execute("SELECT name FROM sqlite_master WHERE type = 'table'")}
    chunks = connection.execute("SELECT rowid, text, exact FROM code_chunks ORDER BY rowid").fetchall() \
        if "code_chunks" in tables else None
    return connection.execute("SELECT * FROM files ORDER BY id").fetchall(), chunks, connection.in_transaction


@given(FILES, st.booleans(), st.booleans(), st.integers(1, 2))
def test_migration_equals_the_model(files, exact: bool, chunk_table: bool, runs: int) -> None:
    results = []
    for impl in (model, native):
        connection = build(files, exact=exact, chunk_table=chunk_table)
        cursor = RecordingCursor(connection.cursor())
        counts = [outcome(lambda: impl.keep_large_data_on_disk(cursor)) for _ in range(runs)]
        results.append((counts, cursor.calls, state(connection)))
    assert results[0] == results[1]
    assert runs == 1 or results[0][0][1] == ("value", 0)


def test_database_errors_pass_unchanged() -> None:
    connection = sqlite3.connect(":memory:")
    connection.execute("CREATE TABLE files (id INTEGER PRIMARY KEY, language TEXT)")
    connection.execute(native.CODE_CHUNKS_DDL)
    cursor = connection.cursor()
    assert outcome(lambda: native.keep_large_data_on_disk(cursor)) == outcome(
        lambda: model.keep_large_data_on_disk(cursor))
    assert not connection.in_transaction


@pytest.mark.parametrize(("language", "size", "kept"), [("json", 32768, False), ("json", 32769, True), ("JSON", 10**6, False)])
def test_the_large_data_threshold(language: str, size: int, kept: bool) -> None:
    assert native.text_kept_on_disk(language, size) is model.text_kept_on_disk(language, size) is kept
