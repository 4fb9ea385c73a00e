"""_chunk_state against the model where the row, or the sibling's table name, is unusual."""

from __future__ import annotations

import sqlite3
from typing import Any

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

import model
from conftest import FakeDatabase
from velmora.storage import chunk_store
from velmora.storage import code_text as native


def outcome(impl: Any, db: Any, store: str) -> tuple[Any, ...]:
    try:
        state = impl._chunk_state(db, store)
    except Exception as error:  # noqa: BLE001 - both sides must fail alike
        return ("error", type(error), str(error))
    return ("value", type(state[0]), state)


def row_object(values: tuple[Any, ...]) -> sqlite3.Row:
    connection = sqlite3.connect(":memory:")
    connection.row_factory = sqlite3.Row
    return connection.execute("SELECT ?, ?", values).fetchone()


@pytest.mark.parametrize(
    "row",
    [
        (0, " 3, 4 ,+5,1_000"),  # int() takes blanks, signs and underscores
        (0, "12345678901234567890123,-0,007"),
        (0, "\u0663,\uff17"),  # other decimal digits
        (0, "3,x"),
        (0, "3.5"),
        (True, b"4,5"),
        (2.9, 0.0),
        ("x", "1"),
        [3, "1,2"],
        row_object((1, "8,9")),
        (0,),
        (),
        7,
    ],
)
def test_odd_rows_read_as_in_the_model(row: Any) -> None:
    assert outcome(native, FakeDatabase(one=row), "code_chunks") == outcome(model, FakeDatabase(one=row), "code_chunks")


@pytest.mark.parametrize("table", [42, None, type("Named", (str,), {})("chunk_blobs")])
def test_compressed_table_names_as_in_the_model(table: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(chunk_store, "COMPRESSED_TABLE", table)
    got, want = FakeDatabase(one=(0, None)), FakeDatabase(one=(0, None))
    assert outcome(native, got, "compressed") == outcome(model, want, "compressed")
    assert got.calls == want.calls


@settings(max_examples=200, deadline=None)
@given(st.lists(st.one_of(st.integers(-(2**70), 2**70), st.integers(0, 999)), max_size=12), st.integers(0, 5))
def test_id_lists_as_group_concat_gives_them(ids: list[int], count: int) -> None:
    text = ",".join(map(str, ids))
    assert native._chunk_state(FakeDatabase(one=(count, text)), "x") == (count, frozenset(ids))
