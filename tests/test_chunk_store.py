"""The two chunk layouts of ``chunk_store``: writing, reading, narrowing and deleting."""

from __future__ import annotations

import pytest

from velmora.storage.database import Database
from velmora.storage import chunk_store
from velmora.storage import layouts

STRIDE = chunk_store.CHUNK_STRIDE

# Chunks as the indexer hands them over: (first line, last line, text).
FILES = {
    1: [(1, 64, "def Hello_World():\n    return 'quoted \"text\"'"), (65, 65, "tail\0with NUL")],
    2: [(1, 0, "")],
    3: [(1, 2, "école ÉCOLE\nα β γ"), (3, 4, "100% of a_b\nNEEDLE here"), (5, 5, "needle")],
}


def make_db(path, store, files=FILES) -> Database:
    db = Database(path)
    with db.transaction() as cursor:
        layouts.named(store).create_tables(cursor)
        for file_id, chunks in files.items():
            layouts.named(store).store_chunks(cursor, file_id, chunks)
    return db


def all_rows(db, ids):
    return sorted(chunk_store.matching_rows(db, None, ids))


def expected_rows(files, ids):
    return sorted(
        (file_id * STRIDE + i, s, e, t, i == len(chunks) - 1)
        for file_id, chunks in files.items() if file_id in ids
        for i, (s, e, t) in enumerate(chunks)
    )


@pytest.mark.parametrize("store", ["compressed", "code_chunks"])
def test_layout_is_told_from_the_tables(tmp_path, store):
    db = make_db(tmp_path / "i.db", store)
    assert chunk_store.layout(db) == store
    with db.transaction() as cursor:
        layouts.drop_tables(cursor)
    assert chunk_store.layout(db) is None


def test_code_chunks_rows_hold_nul_as_space_and_exact_only_when_it_differs(tmp_path):
    db = make_db(tmp_path / "i.db", "code_chunks")
    rows = db.fetchall("SELECT rowid, start_line, end_line, text, exact FROM code_chunks ORDER BY rowid")
    assert rows[:2] == [
        (STRIDE, 1, 64, FILES[1][0][2], None),
        (STRIDE + 1, 65, 65, "tail with NUL", "tail\0with NUL"),
    ]
    assert [r[0] for r in rows] == [r[0] for r in expected_rows(FILES, FILES)]


def test_compressed_rows_and_file_rows(tmp_path):
    db = make_db(tmp_path / "i.db", "compressed")
    assert all_rows(db, {1, 2, 3}) == expected_rows(FILES, {1, 2, 3})
    assert all_rows(db, {3, 99}) == expected_rows(FILES, {3})
    assert all_rows(db, set()) == []
    # Consecutive ids are read as one range; ids scattered over more runs than the range
    # queries take are read in one pass over the table, filtered.
    assert all_rows(db, set(range(1, 200))) == expected_rows(FILES, FILES)
    assert all_rows(db, {1, 3}) == expected_rows(FILES, {1, 3})
    assert all_rows(db, set(range(1, 2000, 2))) == expected_rows(FILES, {1, 3})
    for file_id, chunks in FILES.items():
        assert chunk_store.file_rows(db, file_id * STRIDE, (file_id + 1) * STRIDE) == chunks
    assert chunk_store.file_rows(db, 50 * STRIDE, 51 * STRIDE) == []


@pytest.mark.parametrize("store", ["compressed", "code_chunks"])
def test_drop_chunks_forgets_the_file_and_only_it(tmp_path, store):
    db = make_db(tmp_path / "i.db", store)
    with db.transaction() as cursor:
        layouts.named(store).drop_chunks(cursor, 1)
        layouts.named(store).drop_chunks(cursor, 7)  # a file without chunks
    # A changed file is stored again under the same row ids.
    new = [(1, 1, "fresh text")]
    with db.transaction() as cursor:
        layouts.named(store).drop_chunks(cursor, 3)
        layouts.named(store).store_chunks(cursor, 3, new)

    def chunk_ids(needle):
        if store == "compressed":
            rows = chunk_store.matching_rows(db, chunk_store.trigram_query(needle), {1, 2, 3})
            return {row[0] for row in rows}
        rows = db.fetchall("SELECT rowid FROM code_chunks WHERE code_chunks MATCH ?", (f'"{needle}"',))
        return {row[0] for row in rows}

    # The trigram index no longer answers for the old text...
    assert chunk_ids("hello_world") == chunk_ids("needle") == set()
    assert chunk_ids("fresh") == {3 * STRIDE}
    if store == "compressed":
        assert all_rows(db, {1, 2, 3}) == expected_rows({2: FILES[2], 3: new}, {2, 3})
        # ...and the index stays sound for further writes.
        with db.transaction() as cursor:
            layouts.named(store).drop_chunks(cursor, 3)
        assert chunk_ids("fresh") == set()
    else:
        assert db.fetchall("SELECT rowid FROM code_chunks ORDER BY rowid") == [(2 * STRIDE,), (3 * STRIDE,)]
