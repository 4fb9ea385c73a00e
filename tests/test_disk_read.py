"""Reading files from disk: _file_text, _lines_holding and DiskText against the model.

Most examples are served by a stand-in reader installed on both modules, so that hypothesis
can try thousands of contents without touching the disk; real files (links, directories,
missing files, names that are not UTF-8) are rows of the bad-input table.
"""

from __future__ import annotations

import contextlib
import math
from pathlib import Path, PurePosixPath
from typing import Any, Iterator

import pytest
from hypothesis import example, given
from hypothesis import strategies as st

import model
from conftest import outcome
from strategies import BAD_UTF8, BOM, file_bytes, needles
from velmora.storage import code_text as native

# Pieces on the edges of the fast paths: the two non-ASCII letters that lower-case into
# ASCII (as UTF-8 and cut short), the one that grows, sigma, Latin-1 letters, U+FFFD.
EDGES = (
    "\u212a".encode(), "\u0130".encode(), b"\xe2\x84", b"\xc4", b"\xe2\x84\xe2\x84\xaa",
    "\u03a3".encode(), "\u00c9".encode(), "\u00ff".encode(), "\ufffd".encode(), b"K", b"I",
    b"k", b"i", b"ki", b"\x00", b"\r\n", "\u2028".encode(), b"\x85", "\x85".encode(),
)
CONTENTS = st.one_of(
    file_bytes(),
    st.lists(st.one_of(st.sampled_from(EDGES), st.sampled_from(BAD_UTF8), file_bytes()), max_size=8).map(b"".join),
)


def needles_for(data: bytes) -> st.SearchStrategy[str | None]:
    """None, a piece of the decoded text (lower-cased or not), a near miss, or an edge."""
    edges = ["", "k", "i", "ki", "K", "i\u0307", "\u03c2", "\u03c3", "\ufffd", "\u00e9", "\ud800", "\x00", "a\nb"]
    return st.one_of(st.none(), st.sampled_from(edges), needles(data.decode("utf-8", errors="replace")))


class Reader:
    """Stands in for read_bytes_no_follow: serves `files` (bytes, or an exception to raise)."""

    def __init__(self, files: dict[str, Any]) -> None:
        self.files = files
        self.calls: list[str] = []

    def __call__(self, path: Any) -> Any:
        self.calls.append(str(path))
        found = self.files[str(path)]
        if isinstance(found, BaseException):
            raise found
        return found


@contextlib.contextmanager
def reading(files: dict[str, Any]) -> Iterator[tuple[Reader, Reader]]:
    """Installs one reader on each module (the name each looks up at call time)."""
    readers = Reader(files), Reader(files)
    saved = native.read_bytes_no_follow, model.read_bytes_no_follow
    native.read_bytes_no_follow, model.read_bytes_no_follow = readers
    try:
        yield readers
    finally:
        native.read_bytes_no_follow, model.read_bytes_no_follow = saved


@given(data=CONTENTS, choice=st.data(), case_sensitive=st.booleans())
@example(data="x\u212ay".encode(), choice=None, case_sensitive=False)
def test_lines_holding_matches_the_model(data: bytes, choice: Any, case_sensitive: bool) -> None:
    needle = choice.draw(needles_for(data)) if choice is not None else "k"
    with reading({"f": data}):
        got = native._lines_holding("f", needle, case_sensitive)
        assert got == model._lines_holding("f", needle, case_sensitive)
        assert native._file_text("f") == model._file_text("f")


KELVIN, DOTTED = "\u212a", "\u0130"


# Needles that the bytes alone cannot settle: ASCII needles meeting the two letters that
# lower-case into ASCII, U+FFFD where bad bytes were, and long runs of false starts.
@pytest.mark.parametrize(
    ("data", "needle", "case_sensitive"),
    [
        (f"a{KELVIN}b", "akb", False), (f"{KELVIN}", "k", False), (f"x{DOTTED}", "xi", False),
        (f"{DOTTED}k", "ik", False),
        (f"x{DOTTED}y", "xiy", False), (f"x{DOTTED}y", "xi", False), (f"caf\u00e9 {KELVIN}", "k", False),
        ("\u00c9COLE", "\u00e9cole", False), ("ECOLE", "\u00e9", False), ("\u0391\u03a3 b", "\u03c2 b", False),
        ("K" * 40 + "ey", "key", False), ("x\ufffdy", "\ufffd", True), (b"a\xffb", "\ufffd", True),
        (b"a\xe2\x82b", "a\ufffdb", True), (b"\xe2\xe2\x82\xac", "\u20ac", True), (b"a\xed\xa0\x80b", "\ud800", True),
        (BOM + b"x", "\ufeffx", True), ("ayb" * 5000 + "axb", "ayb" * 3 + "axb", True),
        ("ayb" * 5000 + "\u00e9axb", "b" + "ayb" * 40 + "x", True),
    ],
)
@pytest.mark.parametrize("bad_bytes", [b"", b"\xff"])
def test_needles_the_bytes_cannot_settle(tmp_path: Path, data: Any, needle: str, case_sensitive: bool,
                                         bad_bytes: bytes) -> None:
    path = tmp_path / "f"
    path.write_bytes(bad_bytes + (data.encode() if isinstance(data, str) else data) + bad_bytes)
    assert native._lines_holding(path, needle, case_sensitive) == model._lines_holding(path, needle, case_sensitive)


@pytest.mark.parametrize(
    "raised",
    [FileNotFoundError("gone"), PermissionError("no"), IsADirectoryError("dir"), OSError(40, "symbolic links"),
     ValueError("embedded null byte"), UnicodeDecodeError("utf-8", b"x", 0, 1, "bad"), RuntimeError("boom"),
     MemoryError(), bytearray(b"a\xffB"), "text", None],
)
@pytest.mark.parametrize("needle", [None, "", "\ufffdb"])
def test_what_a_read_gives_is_taken_as_the_model_takes_it(raised: Any, needle: str | None) -> None:
    with reading({"f": raised}):
        for call in (lambda impl: impl._file_text("f"), lambda impl: impl._lines_holding("f", needle, False)):
            assert outcome(lambda: call(native)) == outcome(lambda: call(model))


# --- DiskText --------------------------------------------------------------------------------

FILES = {
    "/r/a.py": b"def Foo():\n    return 1\n",
    "/r/b.txt": b"nothing here\n",
    "/r/c.txt": b"",
    "/r/d.txt": "\u212a\u0130 foo\r\nFOO\n".encode(),
    "/abs.txt": b"foo outside\n",
    "/r/gone": FileNotFoundError("gone"),
    "/r/bad": RuntimeError("disk on fire"),
}
CALLS = st.tuples(st.sampled_from(["segments", "lines", "_load"]), st.sampled_from([1, 2, 3, 1.0, True, math.nan]),
                  st.sampled_from(["a.py", "b.txt", "c.txt", "d.txt", "/abs.txt", "gone", "bad"]))


def run(impl: Any, reader: Reader, needle: str | None, case_sensitive: bool, calls: list[Any]) -> list[Any]:
    """Each call's answer, the file it held after, and what it read."""
    disk = impl.DiskText(PurePosixPath("/r"), needle, case_sensitive)
    seen = []
    for method, file_id, path in calls:
        before = len(reader.calls)
        result = outcome(lambda: getattr(disk, method)(file_id, path))
        held = disk._read
        if method == "lines" and result[0] == "value" and result[1]:
            assert result[1] is held[1]  # the cached list itself, never a copy
        seen.append((method, result, repr(held), reader.calls[before:]))
    return seen


@given(needle=st.sampled_from([None, "", "foo", "k", "i\u0307", "FOO", "x"]), case_sensitive=st.booleans(),
       calls=st.lists(CALLS, max_size=12))
def test_call_sequences_match_the_model(needle: str | None, case_sensitive: bool, calls: list[Any]) -> None:
    with reading(FILES) as (ours, theirs):
        assert run(native, ours, needle, case_sensitive, calls) == run(model, theirs, needle, case_sensitive, calls)
