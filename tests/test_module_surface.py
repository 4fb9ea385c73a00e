"""What the host sees of the module: its names, constants, records, signatures and stub."""

from __future__ import annotations

import inspect
import os
import subprocess
import sys

import pytest

import model
from velmora.storage import chunk_store
from velmora.storage import code_text as native

FUNCTIONS = [name for name, value in vars(model).items() if inspect.isroutine(value) and value.__module__ == "model"]


def test_constants() -> None:
    assert native.CODE_CHUNK_STRIDE == chunk_store.CHUNK_STRIDE
    assert native.CODE_CHUNKS_DDL is chunk_store.CODE_CHUNKS_DDL
    assert type(native.LARGE_DATA_LANGUAGES) is frozenset
    for name in ("LARGE_DATA_LANGUAGES", "CODE_CHUNK_LINES", "LARGE_DATA_TEXT_BYTES", "_CHUNKED_TEXT_BYTES_SQL",
                 "FileRow", "__doc__"):
        assert getattr(native, name) == getattr(model, name), name


@pytest.mark.parametrize("name", FUNCTIONS)
def test_signatures_match_the_model(name: str) -> None:
    got, want = getattr(native, name), getattr(model, name)
    signature = inspect.signature(want)
    plain = signature.replace(
        parameters=[p.replace(annotation=p.empty) for p in signature.parameters.values()],
        return_annotation=signature.empty,
    )
    assert inspect.signature(got) == plain


def test_segment_is_a_named_tuple() -> None:
    segment = native.Segment(1, ["a"], True)
    assert segment == native.Segment(first=1, lines=["a"], last=True) == (1, ["a"], True)
    assert (segment.first, segment.lines, segment.last) == tuple(segment)
    for name in ("_fields", "__doc__"):
        assert getattr(native.Segment, name) == getattr(model.Segment, name)
    assert native.Segment.__module__ == "velmora.storage.code_text"
    with pytest.raises(AttributeError):
        segment.first = 2  # type: ignore[misc]


@pytest.mark.parametrize("module", ["velmora.storage.code_text", "velmora.native"])
def test_stub_matches_the_module(module: str) -> None:
    pytest.importorskip("mypy")
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))
    result = subprocess.run(
        [sys.executable, "-m", "mypy.stubtest", module],
        capture_output=True, text=True, env=env,
    )
    assert result.returncode == 0, result.stdout + result.stderr
