"""The index side against the model: random small indexes in both chunk layouts, and random
rows as a database (or chunk_store) might hand them over, odd shapes and values included."""

from __future__ import annotations

from pathlib import Path
from typing import Any, Callable

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import model
from conftest import STRIDE as S
from conftest import FakeDatabase
from strategies import lines, needles, texts
from velmora.db import Database
from velmora.storage import chunk_store
from velmora.storage import code_text as native

SETTINGS = settings(max_examples=80, deadline=None, suppress_health_check=[HealthCheck.too_slow])


def outcome(call: Callable[[], Any]) -> tuple[Any, ...]:
    """The value of a call, or the type and message of what it raised."""
    try:
        return ("value", call())
    except Exception as error:  # noqa: BLE001 - both sides must fail alike
        return ("error", type(error), str(error))


def shape(value: Any) -> Any:
    """A value with the types of what it holds spelled out, so that 1 and True differ."""
    if isinstance(value, dict):
        return [("dict", shape(k), shape(v)) for k, v in value.items()]
    if isinstance(value, (list, tuple)):
        return (type(value).__name__, [shape(item) for item in value])
    if isinstance(value, frozenset):
        return ("frozenset", sorted(value))
    return (type(value).__name__, value)


# --- Random small indexes ----------------------------------------------------------------------


@st.composite
def file_texts(draw: st.DrawFn) -> str:
    """Mostly short texts; sometimes enough lines for several chunks."""
    if draw(st.integers(0, 3)):
        return draw(texts(surrogates=False, max_size=40))
    pool = draw(st.lists(lines(surrogates=False, max_size=6), min_size=1, max_size=4))
    picks = draw(st.lists(st.integers(0, len(pool) - 1), min_size=60, max_size=200))
    return "\n".join(pool[i] for i in picks) + draw(st.sampled_from(["", "\n", "\r\n"]))


@st.composite
def indexes(draw: st.DrawFn) -> tuple[str, list[tuple[int, str, int, str]]]:
    store = draw(st.sampled_from(["code_chunks", "compressed"]))
    ids = draw(st.lists(st.integers(0, 9), unique=True, max_size=5))
    files = [
        (
            file_id,
            draw(file_texts()),
            draw(st.sampled_from([0, 0, 0, 1, 2])),  # text_on_disk: 2 is neither kind
            draw(st.sampled_from(["all", "all", "all", "none", "no_first"])),
        )
        for file_id in ids
    ]
    return store, files


def build(store: str, files: list[tuple[int, str, int, str]]) -> Database:
    db = Database(":memory:")
    db.db_path = Path("/nowhere/x/y/index.db")
    with db.transaction() as cursor:
        cursor.execute(
            "CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT, language TEXT,"
            " text_on_disk INTEGER NOT NULL DEFAULT 0)"
        )
        chunk_store.create_tables(cursor, store)
        for file_id, text, flag, chunks in files:
            cursor.execute("INSERT INTO files VALUES (?, ?, 'text', ?)", (file_id, f"f{file_id}", flag))
            if chunks == "none":
                continue
            chunk_store.store_chunks(cursor, store, file_id, model.code_chunks(text))
            if chunks == "no_first":
                table, key = ("code_chunks", "rowid") if store == "code_chunks" else (chunk_store.COMPRESSED_TABLE, "id")
                cursor.execute(f"DELETE FROM {table} WHERE {key} = ?", (file_id * S,))
    return db


@st.composite
def searches(draw: st.DrawFn, files: list[tuple[int, str, int, str]]) -> tuple[Any, ...]:
    ids = [f[0] for f in files]
    searched = draw(st.lists(st.sampled_from(ids + [42]), max_size=6)) if ids else []
    case_sensitive = draw(st.booleans())
    if draw(st.integers(0, 4)) == 0:
        needle = None
    else:
        text = draw(st.sampled_from([f[1] for f in files] + [""]))
        # sqlite3 cannot bind a lone surrogate: the search refuses such a query before.
        needle = draw(needles(text, lower=not case_sensitive).filter(lambda n: n.isascii() or n == n.encode("utf-8", "replace").decode()))
    return [(i, f"f{i}", "text", None) for i in searched], needle, case_sensitive


@SETTINGS
@given(st.data())
def test_a_random_index_reads_as_the_model_reads_it(data: st.DataObject) -> None:
    store, files = data.draw(indexes())
    searched, needle, case_sensitive = data.draw(searches(files))
    db = build(store, files)
    try:
        assert native._chunk_state(db, store) == model._chunk_state(db, store)
        got = native._candidate_chunks(db, store, searched, needle, case_sensitive)
        want = model._candidate_chunks(db, store, searched, needle, case_sensitive)
        assert shape(got) == shape(want)

        source, reason = native.text_source(db, searched, needle, case_sensitive, store=store)
        expected, expected_reason = model.text_source(db, searched, needle, case_sensitive, store=store)
        assert (type(source).__name__, reason) == (type(expected).__name__, expected_reason)
        if reason is None:
            assert shape(source._candidates) == shape(expected._candidates)
            assert source._on_disk == expected._on_disk
            for file_id, path, *_ in searched + [(f[0], f"f{f[0]}") for f in files]:
                assert source.segments(file_id, path) == expected.segments(file_id, path)
                assert shape(source.lines(file_id, path)) == shape(expected.lines(file_id, path))
    finally:
        db.close()


# --- Rows as handed over ---------------------------------------------------------------------

ROW_IDS = st.one_of(
    st.integers(-3 * S, 12 * S),
    st.integers(0, 11).map(lambda f: f * S),
    st.sampled_from([2**63 - 1, -(2**63), 2**63, 2**90, -(2**90), 7 * S - 1]),
)
LINE_NUMBERS = st.one_of(st.integers(-2, 70), st.sampled_from([2**64, -(2**64)]))
VALUES = st.one_of(
    st.tuples(ROW_IDS, LINE_NUMBERS, LINE_NUMBERS, texts(max_size=12), st.sampled_from([0, 1, True, None, "", 2])),
    st.tuples(ROW_IDS.map(str), st.integers(1, 3).map(float), st.just(True), st.binary(max_size=4), st.just(0)),
)
ROWS = st.one_of(
    VALUES,
    VALUES.map(list),
    st.lists(st.integers(0, 3), max_size=7).map(tuple),  # the wrong number of values
    st.sampled_from([7, None]),  # not a row at all
)
SEARCHED = st.lists(
    st.one_of(st.integers(-3, 12), st.sampled_from([2.0, True, 1.5, 2**90 // S, "3"])), max_size=5
)


class StubStore:
    """chunk_store's compressed layout, answering with given rows."""

    def __init__(self, rows: list[Any]) -> None:
        self.rows = rows
        self.COMPRESSED_TABLE = "chunk_blobs"

    def trigram_query(self, needle: str) -> Any:
        return ("query", needle)

    def matching_rows(self, db: Any, match: Any, ids: Any) -> Any:
        return iter(self.rows)

    def file_rows(self, db: Any, first: int, end: int) -> Any:
        return list(self.rows)


@SETTINGS
@given(
    rows=st.lists(ROWS, max_size=8),
    searched=SEARCHED,
    store=st.sampled_from(["code_chunks", "compressed"]),
    needle=st.sampled_from([None, "a", "a\x00", "é"]),
    case_sensitive=st.booleans(),
)
def test_rows_are_taken_as_the_model_takes_them(rows: list[Any], searched: list[Any], store: str,
                                                needle: Any, case_sensitive: bool) -> None:
    stub = StubStore(rows)
    files = [(file_id, "f", "c", None) for file_id in searched]
    with pytest.MonkeyPatch.context() as patch:
        for name in ("COMPRESSED_TABLE", "trigram_query", "matching_rows", "file_rows"):
            patch.setattr(chunk_store, name, getattr(stub, name))

        def run(impl: Any) -> tuple[Any, ...]:
            db = FakeDatabase(rows=lambda sql, params: list(rows))
            return outcome(lambda: shape(impl._candidate_chunks(db, store, files, needle, case_sensitive)))

        assert run(native) == run(model)

        def read(impl: Any) -> tuple[Any, ...]:
            db = FakeDatabase(rows=lambda sql, params: list(rows))
            chunks = impl.ChunkText(db, store, {}, None, ())
            return outcome(lambda: shape(chunks.lines(searched[0] if searched else 0, "f")))

        assert read(native) == read(model)
