"""The index side against the model: random small indexes in both chunk layouts, read through
text_source call by call, and rows as a database (or chunk_store) might hand them over."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import pytest
from hypothesis import given
from hypothesis import strategies as st

import model
from conftest import FakeDatabase, outcome, shape
from strategies import lines, needles, texts
from velmora.search import chunk_groups
from velmora.storage.database import Database
from velmora.storage import chunk_store
from velmora.storage import layouts
from velmora.storage import code_text as native

S = chunk_store.CHUNK_STRIDE
LAYOUTS = ["code_chunks", "compressed"]


@st.composite
def file_texts(draw: st.DrawFn) -> str:
    """Mostly short texts; sometimes enough lines for several chunks."""
    if draw(st.integers(0, 3)):
        return draw(texts(surrogates=False, max_size=40))
    pool = draw(st.lists(lines(surrogates=False, max_size=6), min_size=1, max_size=4))
    picks = draw(st.lists(st.integers(0, len(pool) - 1), min_size=60, max_size=200))
    return "\n".join(pool[i] for i in picks) + draw(st.sampled_from(["", "\n", "\r\n"]))


# A file: (id, text, text_on_disk (2 is neither kind), which of its chunks are stored).
FILES = st.lists(st.integers(0, 9), unique=True, max_size=5).flatmap(
    lambda ids: st.tuples(*[
        st.tuples(st.just(i), file_texts(), st.sampled_from([0, 0, 0, 1, 2]),
                  st.sampled_from(["all", "all", "all", "none", "no_first"]))
        for i in ids
    ]).map(list)
)


def build(store: str, files: list[tuple[int, str, int, str]]) -> Database:
    db = Database(":memory:")
    db.db_path = Path("/nowhere/x/y/index.db")
    with db.transaction() as cursor:
        cursor.execute("CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT, language TEXT,"
                       " text_on_disk INTEGER NOT NULL DEFAULT 0)")
        layouts.named(store).create_tables(cursor)
        for file_id, text, flag, chunks in files:
            cursor.execute("INSERT INTO files VALUES (?, ?, 'text', ?)", (file_id, f"f{file_id}", flag))
            if chunks != "none":
                layouts.named(store).store_chunks(cursor, file_id, model.code_chunks(text))
            if chunks == "no_first":
                table, key = ("code_chunks", "rowid") if store == "code_chunks" else (chunk_store.COMPRESSED_TABLE, "id")
                cursor.execute(f"DELETE FROM {table} WHERE {key} = ?", (file_id * S,))
    return db


def read_all(impl: Any, db: Database, store: Any, searched: list[Any], files: list[Any], needle: Any,
             case_sensitive: bool) -> Any:
    """Everything a search reads, with every statement it ran (so the order of queries too)."""
    recorded = FakeDatabase(real=db)
    source, reason = impl.text_source(recorded, searched, needle, case_sensitive, store=store)
    seen = [type(source).__name__, reason, shape(impl._chunk_state(db, store)) if store else None]
    if type(source).__name__ == "ChunkText":
        seen += [shape(source._candidates), shape(source._on_disk)]
    for file_id, path, *_ in searched + [(f[0], f"f{f[0]}") for f in files]:
        seen.append(outcome(lambda: (shape(source.segments(file_id, path)), shape(source.lines(file_id, path)))))
    return seen, recorded.calls


@given(store=st.sampled_from(LAYOUTS + [None]), files=FILES, choice=st.data(), case_sensitive=st.booleans())
def test_a_random_index_reads_as_the_model_reads_it(store: Any, files: list[Any], choice: Any,
                                                      case_sensitive: bool) -> None:
    ids = [f[0] for f in files]
    searched = [(i, f"f{i}", "text", None) for i in choice.draw(st.lists(st.sampled_from(ids + [42]), max_size=6))]
    needle = None
    if choice.draw(st.integers(0, 4)):
        text = choice.draw(st.sampled_from([f[1] for f in files] + [""]))
        # sqlite3 cannot bind a lone surrogate: the search refuses such a query before.
        needle = choice.draw(needles(text, lower=not case_sensitive).filter(
            lambda n: n == n.encode("utf-8", "replace").decode()))
    db = build(store or "code_chunks", files)
    try:
        got = read_all(native, db, store, searched, files, needle, case_sensitive)
        assert got == read_all(model, db, store, searched, files, needle, case_sensitive)
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
ROWS = st.one_of(VALUES, VALUES.map(list), st.lists(st.integers(0, 3), max_size=7).map(tuple), st.sampled_from([7, None]))
SEARCHED = st.lists(st.one_of(st.integers(-3, 12), st.sampled_from([2.0, True, 1.5, 2**90 // S, "3"])), max_size=5)


@given(rows=st.lists(ROWS, max_size=8), searched=SEARCHED, store=st.sampled_from(LAYOUTS),
       needle=st.sampled_from([None, "a", "a\x00", "é"]), case_sensitive=st.booleans())
def test_rows_are_taken_as_the_model_takes_them(rows: list[Any], searched: list[Any], store: str,
                                                needle: Any, case_sensitive: bool) -> None:
    files = [(file_id, "f", "c", None) for file_id in searched]
    with pytest.MonkeyPatch.context() as patch:
        patch.setattr(chunk_store, "trigram_query", lambda needle: ("query", needle))
        patch.setattr(chunk_store, "matching_rows", lambda db, match, ids: iter(rows))
        patch.setattr(chunk_store, "file_rows", lambda db, first, end: list(rows))

        def run(impl: Any) -> Any:
            db = FakeDatabase(rows=lambda sql, params: list(rows))
            candidates = outcome(lambda: shape(impl._candidate_chunks(db, store, files, needle, case_sensitive)))
            chunks = impl.ChunkText(db, store, {}, None, ())
            return candidates, outcome(lambda: shape(chunks.lines(searched[0] if searched else 0, "f"))), db.calls

        assert run(native) == run(model)


def test_rows_out_of_row_id_order_come_back_in_it() -> None:
    rows = [(S + 1, 65, 65, "b", 1), (S, 1, 64, "a", 0)]
    for impl in (native, model):
        assert impl._candidate_chunks(FakeDatabase(rows=rows), "code_chunks", [(1,)], None, True) == {
            1: [impl.Segment(1, ["a"], False), impl.Segment(65, ["b"], True)]}


@given(text=texts(max_size=200), first=st.integers(0, 3), end=st.integers(-1, 3))
def test_the_search_splits_a_chunk_as_the_module_does(text: str, first: int, end: int) -> None:
    for chunk in [*native.code_chunks(text), (first, end, text)]:
        assert chunk_groups.chunk_lines(*chunk) == native._chunk_lines(*chunk)
