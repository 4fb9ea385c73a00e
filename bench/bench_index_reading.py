"""Reading the index for a search: _candidate_chunks and ChunkText.lines, the model's time over
the module's, on an index of the interpreter's standard library in each chunk layout.

Much of a call's time is SQLite's (or, in the compressed layout, chunk_store's zlib), which
both sides pay alike; each workload prints that share, and is timed again with the rows
already fetched, so that the module's own work can be read on its own.
"""

from __future__ import annotations

import tempfile
from pathlib import Path
from typing import Any, Callable

from common import best_time, model, native, report, stdlib_files
from velmora.storage.database import Database
from velmora.storage import chunk_store
from velmora.storage import layouts

GOAL = 3
SELECTIVE = "getaddrinfo"
COMMON = "self"

LIKE_SQL = (
    "SELECT c.rowid, c.start_line, c.end_line, coalesce(c.exact, c.text),"
    " NOT EXISTS (SELECT 1 FROM code_chunks n WHERE n.rowid = c.rowid + 1)"
    " FROM code_chunks c WHERE c.text LIKE ?"
)
ALL_SQL = LIKE_SQL.removesuffix(" WHERE c.text LIKE ?")
FILE_SQL = (
    "SELECT start_line, end_line, coalesce(exact, text) FROM code_chunks"
    " WHERE rowid >= ? AND rowid < ? ORDER BY rowid"
)


def build_index(root: Path, store: str) -> tuple[Database, list[tuple[int, str, str, None]]]:
    """The standard library's files indexed at root/x/y/index.db (the files stay where they are:
    nothing here reads them from disk)."""
    (root / "x" / "y").mkdir(parents=True)
    db = Database(root / "x" / "y" / "index.db")
    files = []
    with db.transaction() as cursor:
        cursor.execute(
            "CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT, language TEXT,"
            " text_on_disk INTEGER NOT NULL DEFAULT 0)"
        )
        layouts.named(store).create_tables(cursor)
        for file_id, path in enumerate(stdlib_files(), start=1):
            text = path.read_bytes().decode("utf-8", errors="replace")
            cursor.execute("INSERT INTO files VALUES (?, ?, 'python', 0)", (file_id, str(path)))
            layouts.named(store).store_chunks(cursor, file_id, native.code_chunks(text))
            files.append((file_id, str(path), "python", None))
        layouts.named(store).optimize(cursor)
    return db, files


class Fetched:
    """A Database whose statements were run once already: the same rows, no SQLite."""

    def __init__(self, db: Database) -> None:
        self.db_path = db.db_path
        self._db = db
        self._rows: dict[Any, list[Any]] = {}

    def fetchall(self, sql: str, parameters: tuple[Any, ...] = ()) -> list[Any]:
        key = (sql, tuple(parameters))
        if key not in self._rows:
            self._rows[key] = self._db.fetchall(sql, parameters)
        return self._rows[key]


def every_file(impl: Any, db: Any, store: str, files: list[Any]) -> Callable[[], None]:
    def run() -> None:
        chunks = impl.ChunkText(db, store, {}, None, frozenset())
        for file_id, path, *_ in files:
            chunks.lines(file_id, path)

    return run


def share(name: str, part: float, whole: float) -> None:
    print(f"    {name}: {part * 1e3:.1f} ms, {100 * part / whole:.0f}% of the module's time")


# Every line handed out is a new str, made by the same CPython routine on both sides; with
# the rows fetched, that (and the collector it wakes) is most of what is left to time.


def code_chunks_layout(db: Database, files: list[Any]) -> None:
    store = "code_chunks"
    fetched = Fetched(db)
    workloads = [
        (f"selective needle {SELECTIVE!r}", SELECTIVE, (LIKE_SQL, (f"%{SELECTIVE}%",))),
        (f"common needle {COMMON!r}", COMMON, (LIKE_SQL, (f"%{COMMON}%",))),
        ("regex (every chunk read)", None, (ALL_SQL, ())),
    ]
    for name, needle, statement in workloads:
        rows = len(db.fetchall(*statement))
        print(f"\n_candidate_chunks, {name}: {rows} chunk rows")
        report("  end to end", lambda: model._candidate_chunks(db, store, files, needle, True),
               lambda: native._candidate_chunks(db, store, files, needle, True), goal=GOAL, repeats=3)
        whole = best_time(lambda: native._candidate_chunks(db, store, files, needle, True), 3)
        share("SQLite (the bare fetchall)", best_time(lambda: db.fetchall(*statement), 3), whole)
        report("  rows already fetched", lambda: model._candidate_chunks(fetched, store, files, needle, True),
               lambda: native._candidate_chunks(fetched, store, files, needle, True), goal=GOAL, repeats=3)
        texts = [row[3] for row in fetched.fetchall(*statement)]
        share("making the line strings (str.split of each chunk, kept)",
              best_time(lambda: [text.split("\n") for text in texts], 3),
              best_time(lambda: native._candidate_chunks(fetched, store, files, needle, True), 3))

    print(f"\nChunkText.lines of every file ({len(files)} files)")
    report("  end to end", every_file(model, db, store, files), every_file(native, db, store, files),
           goal=GOAL, repeats=3)
    whole = best_time(every_file(native, db, store, files), 3)
    bare = best_time(lambda: [db.fetchall(FILE_SQL, native.file_rowids(f[0])) for f in files], 3)
    share("SQLite (the bare fetchall of each file)", bare, whole)
    every_file(native, fetched, store, files)()  # fetch once
    report("  rows already fetched", every_file(model, fetched, store, files),
           every_file(native, fetched, store, files), goal=GOAL, repeats=3)
    per_file = [[row[2] for row in fetched.fetchall(FILE_SQL, native.file_rowids(f[0]))] for f in files]

    def split_files() -> None:
        for texts in per_file:
            [text.split("\n") for text in texts]

    share("making the line strings (str.split of each chunk, one file at a time)",
          best_time(split_files, 3), best_time(every_file(native, fetched, store, files), 3))


def compressed_layout(db: Database, files: list[Any]) -> None:
    store = "compressed"
    ids = {f[0] for f in files}
    for name, needle in [(f"selective needle {SELECTIVE!r}", SELECTIVE), (f"common needle {COMMON!r}", COMMON),
                         ("regex (every chunk read)", None)]:
        match = chunk_store.trigram_query(needle) if needle is not None else None
        rows = list(chunk_store.matching_rows(db, match, ids))
        print(f"\n_candidate_chunks, {name}: {len(rows)} chunk rows")
        report("  end to end", lambda: model._candidate_chunks(db, store, files, needle, True),
               lambda: native._candidate_chunks(db, store, files, needle, True), goal=GOAL, repeats=3)
        whole = best_time(lambda: native._candidate_chunks(db, store, files, needle, True), 3)
        share("chunk_store.matching_rows (SQLite and zlib)",
              best_time(lambda: list(chunk_store.matching_rows(db, match, ids)), 3), whole)

    print(f"\nChunkText.lines of every file ({len(files)} files)")
    report("  end to end", every_file(model, db, store, files), every_file(native, db, store, files),
           goal=GOAL, repeats=3)
    whole = best_time(every_file(native, db, store, files), 3)
    bare = best_time(lambda: [chunk_store.file_rows(db, *native.file_rowids(f[0])) for f in files], 3)
    share("chunk_store.file_rows (SQLite and zlib)", bare, whole)


def main() -> None:
    with tempfile.TemporaryDirectory() as temp:
        for store, run in (("code_chunks", code_chunks_layout), ("compressed", compressed_layout)):
            db, files = build_index(Path(temp) / store, store)
            print(f"\n=== {store} layout: the standard library, {len(files)} files ===")
            run(db, files)
            db.close()


if __name__ == "__main__":
    main()
