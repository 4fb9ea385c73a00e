"""What the host sees of the module: names and their order, records, signatures, stub."""

from __future__ import annotations

import inspect
import os
import subprocess
import sys
import textwrap

import pytest

import model
from velmora.storage import chunk_store
from velmora.storage import code_text as native

LOAD_ORDER = [
    "chunk_store", "Layout", "layout", "read_bytes_no_follow",
    "CODE_CHUNK_STRIDE", "CODE_CHUNKS_DDL", "CODE_CHUNK_LINES", "LARGE_DATA_LANGUAGES",
    "LARGE_DATA_TEXT_BYTES", "FileRow", "code_chunks", "stored_text_bytes", "text_kept_on_disk",
    "file_rowids", "_CHUNKED_TEXT_BYTES_SQL", "keep_large_data_on_disk", "_file_text",
    "_lines_holding", "line_matches", "context", "_chunk_lines", "Segment", "DiskText",
    "ChunkText", "text_source", "_chunk_state", "_candidate_chunks",
]
FUNCTIONS = [
    n for n in LOAD_ORDER
    if inspect.isroutine(getattr(model, n, None)) and getattr(model, n).__module__ == "model"
]


def test_names_appear_in_load_order() -> None:
    assert [name for name in vars(native) if name in LOAD_ORDER] == LOAD_ORDER


def test_constants() -> None:
    assert native.CODE_CHUNK_STRIDE == chunk_store.CHUNK_STRIDE
    assert native.CODE_CHUNKS_DDL is chunk_store.CODE_CHUNKS_DDL
    assert native.LARGE_DATA_LANGUAGES == frozenset({"json"})
    assert type(native.LARGE_DATA_LANGUAGES) is frozenset
    assert (native.CODE_CHUNK_LINES, native.LARGE_DATA_TEXT_BYTES) == (64, 32768)
    assert native._CHUNKED_TEXT_BYTES_SQL == model._CHUNKED_TEXT_BYTES_SQL
    assert native.FileRow == model.FileRow
    assert native.__doc__ == model.__doc__


@pytest.mark.parametrize("name", FUNCTIONS)
def test_signatures_and_docstrings_match_the_model(name: str) -> None:
    got, want = getattr(native, name), getattr(model, name)
    signature = inspect.signature(want)
    plain = signature.replace(
        parameters=[p.replace(annotation=p.empty) for p in signature.parameters.values()],
        return_annotation=signature.empty,
    )
    assert inspect.signature(got) == plain
    assert got.__doc__ == want.__doc__


def test_segment_is_a_named_tuple() -> None:
    Segment = native.Segment
    segment = Segment(1, ["a"], True)
    assert segment == Segment(first=1, lines=["a"], last=True) == (1, ["a"], True)
    first, lines, last = segment
    assert (first, lines, last) == (segment.first, segment.lines, segment.last)
    assert Segment._fields == ("first", "lines", "last")
    assert Segment.__doc__ == "Lines of a file in a row, where a text search looks for matches."
    assert Segment.__module__ == "velmora.storage.code_text"
    with pytest.raises(TypeError):
        Segment(1, ["a"])
    with pytest.raises(AttributeError):
        segment.first = 2


@pytest.mark.parametrize(
    ("breakage", "error"),
    [
        ("del chunk_store.CHUNK_STRIDE", "AttributeError: module 'velmora.storage.chunk_store' has no attribute 'CHUNK_STRIDE'"),
        ("del chunk_store.layout", "ImportError: cannot import name 'layout' from 'velmora.storage.chunk_store'"),
        ("del fsio.read_bytes_no_follow", "ImportError: cannot import name 'read_bytes_no_follow' from 'velmora.utils.fsio'"),
        ("chunk_store.CHUNK_STRIDE = 0", "TypeError: chunk_store.CHUNK_STRIDE must be a positive int"),
        ("sys.modules['velmora.utils.fsio'] = None", "ModuleNotFoundError"),
    ],
)
def test_a_broken_sibling_fails_the_import(breakage: str, error: str) -> None:
    script = textwrap.dedent(
        f"""
        import sys
        from velmora.storage import chunk_store
        from velmora.utils import fsio
        {breakage}
        import velmora.storage.code_text
        """
    )
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))
    result = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, env=env)
    assert result.returncode == 1
    assert error in result.stderr


def test_stub_matches_the_module() -> None:
    pytest.importorskip("mypy")
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))
    result = subprocess.run(
        [sys.executable, "-m", "mypy.stubtest", "velmora.storage.code_text"],
        capture_output=True, text=True, env=env,
    )
    assert result.returncode == 0, result.stdout + result.stderr
