"""The fuzz targets' kept inputs (fuzz/corpus/), replayed through the module against the model
without a fuzzer: the seeds, and every input that once found a fault."""

from __future__ import annotations

import sys
from pathlib import Path

import pytest

import model
from velmora.storage import code_text as native

FUZZ = Path(__file__).resolve().parent.parent / "fuzz"
sys.path.insert(0, str(FUZZ))

import fuzz_text  # noqa: E402
import module_fuzz  # noqa: E402

CORE_TARGETS = ("line_scan", "chunk_plan", "stored_size", "ascii_search")


def kept(target: str) -> list[Path]:
    return sorted((FUZZ / "corpus" / target).iterdir())


@pytest.mark.parametrize("path", kept("module"), ids=lambda p: p.name)
def test_module_inputs(path: Path) -> None:
    module_fuzz.check(path.read_bytes())


@pytest.mark.parametrize(
    ("target", "path"),
    [(target, path) for target in CORE_TARGETS for path in kept(target)],
    ids=lambda v: v if isinstance(v, str) else v.name,
)
def test_core_inputs(target: str, path: Path, tmp_path: Path) -> None:
    # The core's inputs decode to the same text here: what the core does with it, the
    # functions built on it must do too.
    text, needle = fuzz_text.core_input(target, path.read_bytes())
    assert native.code_chunks(text) == model.code_chunks(text)
    assert native.stored_text_bytes(text) == model.stored_text_bytes(text)
    if needle is None:
        return
    lines = text.splitlines()
    file = tmp_path / "f"
    file.write_bytes(text.encode("utf-8", "surrogatepass"))
    for searched, case_sensitive in ((needle, True), (needle.lower(), False)):
        want = list(model.line_matches(lines, searched, None, case_sensitive))
        assert list(native.line_matches(lines, searched, None, case_sensitive)) == want
        assert native._lines_holding(file, searched, case_sensitive) == model._lines_holding(
            file, searched, case_sensitive
        )


@pytest.mark.parametrize("delete", [False, True], ids=["set to None", "deleted"])
@pytest.mark.parametrize("case", module_fuzz.DROPPED_FIELDS, ids=lambda case: "{}.{} {}".format(*case))
def test_a_field_dropped_mid_call(case: tuple, delete: bool) -> None:
    module_fuzz.drop_mid_call(case, delete)


class _Emptying:
    """A number whose __index__ empties the list it was read from."""

    def __init__(self, into: list) -> None:
        self.into = into

    def __index__(self) -> int:
        self.into.clear()
        return 1


@pytest.mark.parametrize("call", ["read", "stat_changes"])
def test_a_list_changed_while_the_native_module_reads_it(call: str, tmp_path: Path) -> None:
    import sqlite3

    from velmora import native as host

    listed: list = []
    if call == "read":
        db = tmp_path / "index.db"
        with sqlite3.connect(db) as connection:
            connection.execute("CREATE TABLE chunk_text (id INTEGER PRIMARY KEY, start_line, end_line, body)")
        listed += [_Emptying(listed), *range(2, 2000)]
        rows = host.ChunkReader(db, "chunk_text", 1).read(listed, False, 1 << 20)
        assert len(rows) == 0
    else:
        listed += [("a", _Emptying(listed), 0, 0), *[("b", 1, 2, 3)] * 2000]
        assert len(host.stat_changes(f"{tmp_path}/", listed, 0)) == 2001
