"""DiskText against the model: random call sequences with a count of reads, and real files."""

from __future__ import annotations

import math
import re
from pathlib import Path, PurePosixPath
from typing import Any

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

import model
from test_disk_read import Reader, reading
from velmora.storage import code_text as native

FILES = {
    "/r/a.py": b"def Foo():\n    return 1\n",
    "/r/b.txt": b"nothing here\n",
    "/r/c.txt": b"",
    "/r/d.txt": "\u212a\u0130 foo\r\nFOO\n".encode(),
    "/abs.txt": b"foo outside\n",
    "/r/gone": FileNotFoundError("gone"),
    "/r/link": OSError(40, "Too many levels of symbolic links"),
}
PATHS = ["a.py", "b.txt", "c.txt", "d.txt", "/abs.txt", "gone", "link"]
CALLS = st.tuples(st.sampled_from(["segments", "lines", "_load"]), st.sampled_from([1, 2, 3, 1.0, True]),
                  st.sampled_from(PATHS))


def run(impl: Any, reader: Reader, needle: str | None, case_sensitive: bool, calls: list[Any]) -> list[Any]:
    disk = impl.DiskText(PurePosixPath("/r"), needle, case_sensitive)
    seen = []
    for method, file_id, path in calls:
        before = len(reader.calls)
        result = getattr(disk, method)(file_id, path)
        held = disk._read
        if method == "lines" and result:
            assert result is held[1]  # the cached list itself, never a copy
        if method == "segments" and result:
            assert result[0].lines is held[1]
        seen.append((method, result, len(reader.calls) - before, [str(p) for p in reader.calls[before:]]))
    assert disk._root == PurePosixPath("/r") and disk._needle == needle and disk._case_sensitive is case_sensitive
    return seen


@settings(max_examples=300)
@given(needle=st.sampled_from([None, "", "foo", "k", "i\u0307", "FOO", "x"]), case_sensitive=st.booleans(),
       calls=st.lists(CALLS, max_size=12))
def test_call_sequences_match_the_model(needle: str | None, case_sensitive: bool, calls: list[Any]) -> None:
    with reading(FILES) as (ours, theirs):
        got = run(native, ours, needle, case_sensitive, calls)
        want = run(model, theirs, needle, case_sensitive, calls)
    assert got == want


def test_fields_are_the_hosts() -> None:
    disk = native.DiskText("root", "n", False)
    assert (disk._root, disk._needle, disk._case_sensitive, disk._read) == ("root", "n", False, None)
    with reading({"other/f": b"n\n"}) as (reader, _):
        disk._root = PurePosixPath("other")
        assert disk.lines(5, "f") == ["n"]
        assert disk._read == (5, ["n"])
        disk._read = None  # the host may drop the cache
        assert disk.lines(5, "f") == ["n"]
        disk._read = [6, ["held"]]  # or hold anything it can index
        assert disk.lines(6, "f") == ["held"]
        del disk._read
        with pytest.raises(AttributeError, match="_read"):
            disk.lines(6, "f")
    assert len(reader.calls) == 2


def test_ids_compare_as_the_host_compares_them() -> None:
    with reading({"/r/f": b"x\n"}) as (ours, theirs):
        for impl, reader in ((native, ours), (model, theirs)):
            disk = impl.DiskText(PurePosixPath("/r"), None, True)
            for file_id in (math.nan, math.nan, 1, 1.0, True):
                disk.lines(file_id, "f")
        assert len(ours.calls) == len(theirs.calls) == 3  # nan != nan: read twice


def test_an_error_keeps_the_cache() -> None:
    with reading({"/r/a": b"a\n", "/r/bad": RuntimeError("disk on fire")}):
        disk = native.DiskText(PurePosixPath("/r"), None, True)
        assert disk.lines(1, "a") == ["a"]
        with pytest.raises(RuntimeError):
            disk.lines(2, "bad")
        assert disk._read == (1, ["a"])
        with pytest.raises(TypeError):
            disk.lines(3, 5)  # the path join fails before any read


def test_a_subclass_load_is_used() -> None:
    class Fixed(native.DiskText):
        def _load(self, file_id: int, path: str) -> list[str] | None:
            return None if file_id == 0 else [path]

    fixed = Fixed("/nowhere", None, True)
    assert fixed.segments(0, "p") == []
    assert fixed.segments(1, "p") == [native.Segment(1, ["p"], True)]
    assert fixed.lines(1, "p") == ["p"]


def test_bad_arguments() -> None:
    with pytest.raises(TypeError, match=r"missing 1 required positional argument: 'case_sensitive'"):
        native.DiskText("r", None)
    with pytest.raises(TypeError, match="unexpected keyword argument 'root'"):
        native.DiskText(root="r", needle=None, case_sensitive=True)
    disk = native.DiskText("r", None, True)
    with pytest.raises(TypeError, match=r"segments\(\) missing 1 required positional argument: 'path'"):
        disk.segments(1)
    with pytest.raises(TypeError, match="unsupported operand"):
        disk.lines(1, "p")  # "r" / "p": a str root cannot join
    with pytest.raises(TypeError):
        native.DiskText.lines(object(), 1, "p")


# --- Real files ------------------------------------------------------------------------------


def test_a_search_over_a_real_tree_matches_the_model(tmp_path: Path) -> None:
    root = tmp_path / "repo"
    (root / "pkg").mkdir(parents=True)
    files = {
        "pkg/one.py": "import os\nclass Foo:\n    NAME = 'K\u212aelvin'\n",
        "pkg/two.txt": "\u0130stanbul\r\nfoo\x00bar\n\u03a3\u03a3 end",
        "three.md": "nothing",
        "empty": "",
    }
    for name, text in files.items():
        (root / name).write_text(text, encoding="utf-8")
    (root / "link.py").symlink_to(root / "pkg" / "one.py")
    (tmp_path / "outside.py").write_text("foo\n")
    (root / "out.py").symlink_to(tmp_path / "outside.py")
    names = [*files, "link.py", "out.py", "pkg", "missing"]
    searches = [("foo", None, False), ("foo", None, True), ("k", None, False), ("i", None, False),
                (None, re.compile(r"\w+\s*="), True), (None, re.compile("(?i)foo|\u03c3"), True)]
    for needle, pattern, case_sensitive in searches:
        results = []
        for impl in (native, model):
            disk = impl.DiskText(root, needle, case_sensitive)
            found = []
            for file_id, name in enumerate(names):
                for segment in disk.segments(file_id, name):
                    for number, column in impl.line_matches(segment.lines, needle, pattern, case_sensitive):
                        found.append((name, number, column,
                                      impl.context(segment.lines, number - 2, number + 2, segment.first)))
                found.append(disk.lines(file_id, name))
            results.append(found)
        assert results[0] == results[1], (needle, pattern, case_sensitive)


def test_a_file_changed_between_calls_is_not_read_again(tmp_path: Path) -> None:
    (tmp_path / "f").write_text("foo 1\n")
    disk = native.DiskText(tmp_path, "foo", True)
    assert disk.lines(1, "f") == ["foo 1"]
    (tmp_path / "f").write_text("foo 2\n")
    assert disk.segments(1, "f") == [native.Segment(1, ["foo 1"], True)]
    (tmp_path / "f").unlink()
    assert disk.lines(1, "f") == ["foo 1"]
    assert disk.lines(2, "f") == []
