"""Reading files from disk: the native _file_text and _lines_holding against the model.

Most examples are served by a stand-in reader installed on both modules, so that hypothesis
can try thousands of contents without touching the disk; the real-file cases go through
the host's own read_bytes_no_follow.
"""

from __future__ import annotations

import contextlib
import os
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest
from hypothesis import HealthCheck, example, given, settings
from hypothesis import strategies as st

import model
from strategies import BAD_UTF8, BOM, file_bytes
from velmora.storage import code_text as native

# Pieces that sit on the edges of the fast paths: the two non-ASCII letters that lower-case
# into ASCII (as UTF-8 and cut short), the one that grows, sigma, Latin-1 letters, U+FFFD.
EDGES = (
    "\u212a".encode(), "\u0130".encode(), b"\xe2\x84", b"\xc4", b"\xe2\x84\xe2\x84\xaa",
    "\u03a3".encode(), "\u00c9".encode(), "\u00ff".encode(), "\ufffd".encode(), b"K", b"I",
    b"k", b"i", b"ki", b"\x00", b"\r\n", "\u2028".encode(), b"\x85", "\x85".encode(),
)


def contents() -> st.SearchStrategy[bytes]:
    edged = st.lists(st.one_of(st.sampled_from(EDGES), st.sampled_from(BAD_UTF8), file_bytes()), max_size=8)
    return st.one_of(file_bytes(), edged.map(b"".join))


@st.composite
def needles_for(draw: st.DrawFn, data: bytes) -> str | None:
    """None, or a piece of the decoded text or of its lower-cased form, or a near miss."""
    text = data.decode("utf-8", errors="replace")
    kind = draw(st.sampled_from(["none", "piece", "piece", "lowered", "edge", "foreign"]))
    if kind == "none":
        return None
    if kind == "edge":
        return draw(st.sampled_from(["", "k", "i", "ki", "K", "i\u0307", "\u03c2", "\u03c3", "\ufffd",
                                     "\u00e9", "\ud800", "\x00", "a\nb", "\u212a"]))
    if kind == "foreign":
        return draw(st.text(max_size=4))
    source = text.lower() if kind == "lowered" else text
    start = draw(st.integers(0, len(source)))
    end = draw(st.integers(start, min(len(source), start + 10)))
    return source[start:end]


class Reader:
    """Stands in for read_bytes_no_follow: serves `files` (bytes, or an exception to raise)."""

    def __init__(self, files: dict[str, Any]) -> None:
        self.files = files
        self.calls: list[Any] = []

    def __call__(self, path: Any) -> Any:
        self.calls.append(path)
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


def outcome(call: Callable[[], Any]) -> tuple[Any, ...]:
    try:
        return ("value", call())
    except Exception as error:  # noqa: BLE001 - the error is the result compared
        return ("error", type(error), str(error))


@settings(max_examples=500, deadline=None, suppress_health_check=[HealthCheck.too_slow])
@given(data=contents(), choice=st.data(), case_sensitive=st.booleans())
@example(data="x\u212ay".encode(), choice=None, case_sensitive=False)
def test_lines_holding_matches_the_model(data: bytes, choice: Any, case_sensitive: bool) -> None:
    needle = choice.draw(needles_for(data)) if choice is not None else "k"
    with reading({"f": data}):
        got = native._lines_holding("f", needle, case_sensitive)
        assert got == model._lines_holding("f", needle, case_sensitive)
        assert native._file_text("f") == model._file_text("f")
    if got is not None:
        assert type(got) is list and all(type(line) is str for line in got)


KELVIN, DOTTED = "\u212a", "\u0130"


@pytest.mark.parametrize(
    ("text", "needle", "holds"),
    [
        # ASCII needles meet the two letters that lower-case into ASCII: found only in the
        # decoded text, never in the bytes read as ASCII.
        (f"a{KELVIN}b", "akb", True),
        (f"a{KELVIN}b", "ak", True),
        (f"{KELVIN}", "k", True),
        (f"x{DOTTED}", "xi", True),
        (f"x{DOTTED}y", "xiy", False),  # the U+0307 after the i ends the match
        (f"x{DOTTED}y", "xi", True),
        (f"{DOTTED}", "i", True),
        (f"caf\u00e9 {KELVIN}", "k", True),  # Latin-1 with a wide letter: two bytes wide
        ("\u00c9COLE", "cole", True),  # Latin-1 text, ASCII needle
        ("\u00c9COLE", "\u00e9cole", True),  # Latin-1 text, non-ASCII needle
        ("ECOLE", "\u00e9", False),  # ASCII text, non-ASCII needle
        ("\u0391\u03a3 b", "\u03c2 b", True),  # final sigma before a blank
        ("x\ufffdy", "\ufffd", True),  # U+FFFD in the file itself
        ("K" * 40 + "ey", "key", True),  # matches past the first sixteen-byte block
        ("k" * 40, "kk" + "k" * 30, True),
    ],
)
@pytest.mark.parametrize("bad_bytes", [b"", b"\xff"])
def test_case_ignoring_edges(tmp_path: Path, text: str, needle: str, holds: bool, bad_bytes: bytes) -> None:
    path = tmp_path / "f"
    path.write_bytes(bad_bytes + text.encode() + bad_bytes)
    want = model._lines_holding(path, needle, False)
    assert (want is not None) == holds
    assert native._lines_holding(path, needle, False) == want


@pytest.mark.parametrize(
    ("data", "needle"),
    [
        (b"a\xffb", "\ufffd"),  # a needle with U+FFFD is found where bad bytes were
        (b"a\xe2\x82b", "a\ufffdb"),
        (b"\xe2\x82\xac", "\u20ac"),
        (b"\xe2\xe2\x82\xac", "\u20ac"),  # a cut-short lead before a whole sequence
        (b"\xf0\x9f\x98\x80", "\U0001f600"),
        (b"a\xed\xa0\x80b", "\ud800"),  # an encoded surrogate never decodes to one
        (b"\xef\xbb\xbfx", "\ufeffx"),
    ],
)
def test_case_sensitive_over_bad_bytes(data: bytes, needle: str) -> None:
    with reading({"f": data}):
        assert native._lines_holding("f", needle, True) == model._lines_holding("f", needle, True)


@pytest.mark.parametrize("tail", ["axb", "ayb", "\u00e9axb"])
def test_many_false_starts(tail: str) -> None:
    # Every third byte could start the needle: the scan hands over to the C library's.
    data = ("ayb" * 5000 + tail).encode()
    with reading({"f": data}):
        for needle in ("axb", "ayb" * 3 + "axb", "b" + "ayb" * 40 + "x"):
            assert native._lines_holding("f", needle, True) == model._lines_holding("f", needle, True)
    lines = [data.decode()] * 2
    assert list(native.line_matches(lines, "axb", None, True)) == list(model.line_matches(lines, "axb", None, True))


def test_read_through_the_module_name_at_each_call() -> None:
    with reading({"p": b"a\nb"}) as (ours, _):
        assert native._file_text("p") == "a\nb"
        assert native._lines_holding("p", None, True) == ["a", "b"]
        assert native._lines_holding("p", "zz", True) is None
    assert ours.calls == ["p", "p", "p"]


@pytest.mark.parametrize(
    ("raised", "swallowed"),
    [
        (FileNotFoundError("gone"), True),
        (PermissionError("no"), True),
        (IsADirectoryError("dir"), True),
        (OSError(40, "Too many levels of symbolic links"), True),
        (ValueError("embedded null byte"), True),
        (UnicodeDecodeError("utf-8", b"x", 0, 1, "bad"), True),  # a ValueError
        (RuntimeError("boom"), False),
        (KeyError("k"), False),
        (MemoryError(), False),
    ],
)
@pytest.mark.parametrize("needle", [None, "", "x"])
def test_read_errors(raised: BaseException, swallowed: bool, needle: str | None) -> None:
    with reading({"f": raised}):
        for impl in (native, model):
            if swallowed:
                assert impl._file_text("f") is None
                assert impl._lines_holding("f", needle, False) is None
            else:
                with pytest.raises(type(raised)):
                    impl._lines_holding("f", needle, False)


class Decodable:
    """A reader result that is not bytes: decoded through its own decode method."""

    def __init__(self, text: str, error: BaseException | None = None) -> None:
        self.text, self.error, self.calls = text, error, []

    def decode(self, *args: Any, **kwargs: Any) -> str:
        self.calls.append((args, kwargs))
        if self.error is not None:
            raise self.error
        return self.text


@pytest.mark.parametrize("impl", [native, model], ids=["native", "model"])
def test_results_other_than_bytes(impl: Any) -> None:
    with reading({"b": bytearray(b"a\xffB"), "d": Decodable("X\ny"), "e": Decodable("", ValueError("v")),
                  "s": "text", "n": None}):
        assert impl._lines_holding("b", "\ufffdb", False) == ["a\ufffdB"]
        decodable = native.read_bytes_no_follow.files["d"]
        assert impl._lines_holding("d", "x", False) == ["X", "y"]
        assert decodable.calls[-1] == (("utf-8",), {"errors": "replace"})
        assert impl._file_text("e") is None
        with pytest.raises(AttributeError):
            impl._file_text("s")
        with pytest.raises(AttributeError):
            impl._lines_holding("n", None, True)


class Truth:
    def __init__(self, value: bool) -> None:
        self.value, self.asked = value, 0

    def __bool__(self) -> bool:
        self.asked += 1
        return self.value


class Unanswerable:
    def __bool__(self) -> bool:
        raise ZeroDivisionError


def test_case_flag_and_needle_are_used_as_the_host_uses_them() -> None:
    with reading({"f": b"Abc", "gone": FileNotFoundError()}):
        for impl in (native, model):
            flag = Truth(False)
            assert impl._lines_holding("f", "abc", flag) == ["Abc"]
            assert flag.asked == 1
            with pytest.raises(ZeroDivisionError):
                impl._lines_holding("f", "abc", Unanswerable())
            # A needle of the wrong type fails only once there is a text to look in.
            assert impl._lines_holding("gone", b"abc", True) is None
            with pytest.raises(TypeError, match="requires string as left operand, not bytes"):
                impl._lines_holding("f", b"abc", True)
            assert impl._lines_holding("f", type("S", (str,), {})("bc"), True) == ["Abc"]


# --- Real files ------------------------------------------------------------------------------


@pytest.fixture(params=["native", "model"])
def impl(request: pytest.FixtureRequest) -> Any:
    return native if request.param == "native" else model


@pytest.mark.parametrize("target", ["inside", "outside"])
def test_symlinks_are_not_followed(impl: Any, tmp_path: Path, target: str) -> None:
    root = tmp_path / "repo"
    root.mkdir()
    pointed = (root if target == "inside" else tmp_path) / "real.txt"
    pointed.write_text("secret\n")
    (root / "link.txt").symlink_to(pointed)
    assert impl._file_text(root / "link.txt") is None
    assert impl._lines_holding(root / "link.txt", None, True) is None
    assert impl._lines_holding(pointed, "secret", True) == ["secret"]


@pytest.mark.skipif(not hasattr(os, "geteuid") or os.geteuid() == 0, reason="root reads any file")
def test_unreadable_permission(impl: Any, tmp_path: Path) -> None:
    path = tmp_path / "locked"
    path.write_text("x\n")
    path.chmod(0)
    try:
        assert impl._file_text(path) is None
        assert impl._lines_holding(path, "", True) is None
    finally:
        path.chmod(0o600)


def test_real_files_match_the_model(tmp_path: Path) -> None:
    samples = {
        "bom.py": BOM + b"x = 1\r\ny = 2\r\n",
        "bad.txt": b"caf\xc3\xa9 \xff\xfe K\xe2\x84\xaa \xc4\xb0I\x00\n\x0b\x0c\x1c\x1d\x1e\xc2\x85tail",
        "empty": b"",
        "wide.txt": "\u03a3\u0391\u03a3 \U0001f600 \u2028 \u2029 end".encode(),
    }
    for name, data in samples.items():
        (tmp_path / name).write_bytes(data)
        for needle in (None, "", "x", "k", "i", "\u03c2", "\ufffd", "end", "tail"):
            for case_sensitive in (True, False):
                path = tmp_path / name
                assert native._lines_holding(path, needle, case_sensitive) == model._lines_holding(
                    path, needle, case_sensitive
                ), (name, needle, case_sensitive)
        assert native._file_text(tmp_path / name) == model._file_text(tmp_path / name)


def test_bad_arguments() -> None:
    with pytest.raises(TypeError, match=r"_lines_holding\(\) missing 1 required positional argument: 'case_sensitive'"):
        native._lines_holding("f", "x")
    with pytest.raises(TypeError, match=r"_file_text\(\) takes 1 positional argument but 2 were given"):
        native._file_text("a", "b")
    with pytest.raises(TypeError, match="unexpected keyword argument 'paths'"):
        native._file_text(paths="a")
