"""No call leaks: a two-phase check of the interpreter's allocated blocks around many calls.

The first phase warms every cache (interned strings, free lists, type caches); the second
must leave the block count where the first left it, within a small slack for the
interpreter's own bookkeeping.
"""

from __future__ import annotations

import gc
import sqlite3
import sys

import pytest

from velmora.storage import code_text as native

CALLS = 20_000
SLACK = 50


def allocated_blocks() -> int:
    gc.collect()
    return sys.getallocatedblocks()


def assert_no_leak(call) -> None:
    for _ in range(CALLS // 10):
        call()
    before = allocated_blocks()
    for _ in range(CALLS):
        call()
    grown = allocated_blocks() - before
    assert grown < SLACK, f"{grown} blocks left behind by {CALLS} calls"


def raises(fn, *args, **kwargs):
    def call():
        try:
            fn(*args, **kwargs)
        except Exception:
            pass
        else:
            raise AssertionError("expected an error")

    return call


def migration_call():
    connection = sqlite3.connect(":memory:")
    connection.execute("CREATE TABLE files (id INTEGER PRIMARY KEY, language TEXT, text_on_disk INTEGER)")
    connection.execute(native.CODE_CHUNKS_DDL)
    connection.execute("INSERT INTO files VALUES (1, 'json', 0)")
    connection.execute("INSERT INTO code_chunks (rowid, start_line, end_line, text) VALUES (?, 1, 1, ?)",
                       (native.CODE_CHUNK_STRIDE, "x" * 40000))
    cursor = connection.cursor()

    def call():
        # Marks the file on the first run, then selects and marks nothing: both paths.
        native.keep_large_data_on_disk(cursor)

    return call


MIXED = "naïve\r\nΩμέγα\u2028😀 x\n" * 70

CASES = {
    "code_chunks": lambda: native.code_chunks(MIXED),
    "code_chunks empty": lambda: native.code_chunks(""),
    "stored_text_bytes": lambda: native.stored_text_bytes(MIXED + "\ud800"),
    "file_rowids": lambda: native.file_rowids(2**70),
    "_chunk_lines": lambda: native._chunk_lines(1, 3, "a\nb\nc"),
    "_chunk_lines none": lambda: native._chunk_lines(1, 0, "a"),
    "text_kept_on_disk": lambda: native.text_kept_on_disk("json", 40000),
    "Segment": lambda: native.Segment(1, ["a"], True),
    "bad text": raises(native.code_chunks, 5),
    "bad keyword": raises(native.code_chunks, text="a", other=1),
    "bad file id": raises(native.file_rowids, "1"),
    "bad comparison": raises(native._chunk_lines, "1", 2, "a"),
    "migration": None,
}


@pytest.mark.parametrize("name", sorted(CASES))
def test_no_leak(name: str) -> None:
    call = CASES[name] or migration_call()
    assert_no_leak(call)
