"""Bad input, tried: every parameter of every public function and method, one at a time,
gets values it should not, and the native module answers as the model does.

The others keep good values. The answer must be the model's: the same value (None where the
model gives None), or an error of the same type, which is the host's own error for that
input. Then the same function, or the same object for a method, answers a good call as the
model does: a bad call leaves nothing broken behind. A line_matches sequence is read to its
end on both sides, and must stay ended after an error.

The values: wrong types, None where text is expected, huge and negative integers, NaN,
strings with lone surrogates, str subclasses, objects whose truth, equality or hash raise;
per kind of parameter also paths that are not UTF-8 (bytes, surrogate escapes), links,
directories and missing files, databases that are locked, lack a table, or hand back rows of
odd shapes, patterns whose search raises or whose match starts anywhere; the fields of the
two classes set to such values between calls. BAD_INPUTS counts them all. Where the native
module checks an argument's type at the door (CHECKED), its TypeError stands for the
model's later error. Scenarios that need a change between calls (a file replaced by a link
or a directory, a database locked) are at the end.
"""

from __future__ import annotations

import math
import os
import re
import sqlite3
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

import model
import workbench
from workbench import FILES, FoundAt, Raises, Rows, Selected
from velmora.storage import chunk_store
from velmora.storage import code_text as native

S = native.CODE_CHUNK_STRIDE
# Both sides open a bytearray path, which the host warns about.
pytestmark = pytest.mark.filterwarnings("ignore:open. path should be:DeprecationWarning")


class Fresh:
    """A value made for each side and call: fn(bench, impl)."""

    def __init__(self, fn: Callable[[workbench.Workbench, Any], Any], name: str = "") -> None:
        self.fn = fn
        self.name = name

    def __repr__(self) -> str:
        return self.name or "fresh"


def resolve(value: Any, bench: workbench.Workbench, impl: Any) -> Any:
    return value.fn(bench, impl) if isinstance(value, Fresh) else value


class Text(str):
    """A str subclass: taken as a str everywhere, kept as itself where it is handed on."""


class Unhashable:
    __hash__ = None  # type: ignore[assignment]

    def __eq__(self, other: object) -> bool:
        return False


class Index:
    """An integer only by __index__."""

    def __index__(self) -> int:
        return 2


class NoStart:
    """A pattern whose match has no start()."""

    def search(self, line: str) -> Any:
        return object()


class StartRaises:
    def search(self, line: str) -> Any:
        return self

    def start(self) -> int:
        raise LookupError("no start")


class Cursor:
    """A cursor whose execute gives back `answer` instead of itself."""

    def __init__(self, answer: Any) -> None:
        self.answer = answer

    def execute(self, *args: Any) -> Any:
        return self.answer


# Every parameter gets these.
GENERIC: dict[str, Any] = {
    "None": None,
    "int": 7,
    "negative": -1,
    "huge": 2**200,
    "negative huge": -(2**200),
    "float": 1.5,
    "nan": math.nan,
    "True": True,
    "bytes": b"ab\ncd",
    "bytearray": bytearray(b"x\ny"),
    "list": ["a", "b"],
    "tuple": ("a",),
    "dict": {"a": 1},
    "set": {"a"},
    "object": object(),
    "surrogates": "a\ud800b\n\udfff",
    "empty": "",
    "str subclass": Text("a\nb"),
    "raises": Raises(),
    "unhashable": Unhashable(),
}

HERE = Fresh(lambda b, impl: b.repo, "the repository")


def at(*parts: str | bytes) -> Fresh:
    """A path in the repository."""
    if parts and isinstance(parts[0], bytes):
        return Fresh(lambda b, impl: os.fsencode(b.repo) + b"/" + parts[0], repr(parts[0]))
    return Fresh(lambda b, impl: b.repo.joinpath(*parts), "/".join(parts))


def rows(value: Any, name: str) -> Fresh:
    return Fresh(lambda b, impl: Rows(rows=value, one=value), name)


def index(name: str) -> Fresh:
    return Fresh(lambda b, impl: b.index[name] if name in b.index else getattr(b, name), name)


# And each kind of parameter these.
BY_KIND: dict[str, dict[str, Any]] = {
    "text": {
        "NUL": "a\x00b", "lone surrogate": "\udc80", "astral": "\U0001f600\r\n\x85",
        "bytes subclass": type("B", (bytes,), {})(b"x"),
    },
    "int": {"bool False": False, "2**63": 2**63, "-2**63 - 1": -(2**63) - 1, "__index__": Index(), "str": "3"},
    "path": {
        "not UTF-8 (bytes)": at(workbench.NOT_UTF8_NAME),
        "not UTF-8 (surrogate escapes)": at(os.fsdecode(workbench.NOT_UTF8_NAME)),
        "link": at("link"), "directory": at("dir"), "missing": at("missing"),
        "NUL in the name": Fresh(lambda b, impl: str(b.repo / "f1.py") + "\x00", "NUL"),
        "str": Fresh(lambda b, impl: str(b.repo / "f1.py"), "str path"),
        "large": at(workbench.BIG), "path-like": Fresh(lambda b, impl: PathLike(b.repo / "f3.txt")),
    },
    "relative": {
        "not UTF-8 (surrogate escapes)": os.fsdecode(workbench.NOT_UTF8_NAME), "link": "link",
        "directory": "dir", "missing": "missing", "NUL in the name": "f1.py\x00",
        "absolute": "/nonexistent/f1.py", "parent": "../repo/f3.txt", "bytes name": b"f1.py",
        "large": workbench.BIG,
    },
    "needle": {"NUL": "y\x00", "Kelvin": "\u212a", "k": "k", "dotted I": "\u0130", "lone surrogate": "\ud800"},
    "flag": {"zero": 0, "text": "no", "empty tuple": ()},
    "lines": {
        "str": "abc", "None line": ["a", None], "bytes lines": [b"a", b"Key"], "int lines": [1, 2],
        "iterator": Fresh(lambda b, impl: iter(["a", "key"]), "iterator"), "surrogate lines": ["\udcff", "a"],
        "subclassed lines": [Text("Key a"), Text("b")], "mixed": ["a", 5, "key"], "dict": {0: "a", 1: "b"},
    },
    "pattern": {
        "search raises": Raises(), "start raises": StartRaises(), "no start": NoStart(),
        "start text": FoundAt("0"), "start None": FoundAt(None), "start -1": FoundAt(-1),
        "start huge": FoundAt(2**100), "start float": FoundAt(1.5), "start nan": FoundAt(math.nan),
        "bytes pattern": re.compile(b"a"), "empty pattern": re.compile(""),
        "ignore case": re.compile("KEY", re.IGNORECASE), "literal": re.compile("ke+y"),
    },
    "db": {
        "locked": index("locked"), "no chunk table": index("no_chunk_table"), "no table": index("bare"),
        "unchunked": index("unchunked"), "compressed": index("compressed"),
        "fetch None": rows(None, "None"), "fetch int": rows(5, "int"), "fetch [None]": rows([None], "[None]"),
        "fetch short rows": rows([(S, 1)], "short"), "fetch long rows": rows([(S, 1, 1, "a", 1, 9)], "long"),
        "fetch text rows": rows(["abcde"], "text rows"), "fetch dict rows": rows([{"a": 1}], "dict rows"),
        "fetch bytes text": rows([(S, 1, 1, b"a\nb", 1)], "bytes text"),
        "fetch float ids": rows([(S + 0.5, 1.0, 2.0, "a\nb", 0)], "floats"),
        "fetch text ids": rows([(str(S), "1", "2", "a", 1)], "text ids"),
        "fetch huge ids": rows([(2**100, 1, 1, "a", 1), (-(2**100), 1, 1, "b", 1)], "huge ids"),
        "fetch None values": rows([(S, None, None, None, None)], "None values"),
        "fetch generator": rows(lambda: ((S + i, 1, 1, "a", 1) for i in range(3)), "generator"),
        "fetch raises": rows(sqlite3.OperationalError, "raises"),
        "fetchone text": Fresh(lambda b, impl: Rows(one="xy"), "fetchone text"),
        "fetchone short": Fresh(lambda b, impl: Rows(one=(1,)), "fetchone short"),
        "fetchone ids": Fresh(lambda b, impl: Rows(one=(0, "1,x")), "fetchone bad ids"),
        "fetchone None count": Fresh(lambda b, impl: Rows(one=(None, None)), "fetchone None"),
        "fetchone float": Fresh(lambda b, impl: Rows(one=(2.5, "1, 2,,3")), "fetchone float"),
        "fetchone huge": Fresh(lambda b, impl: Rows(one=(0, "1" * 40)), "fetchone huge"),
        "no methods": object(),
        "db_path text": Fresh(lambda b, impl: with_path("r/x/y/index.db"), "db_path text"),
        "db_path None": Fresh(lambda b, impl: with_path(None), "db_path None"),
        "db_path short": Fresh(lambda b, impl: with_path(Path("index.db")), "db_path short"),
    },
    "cursor": {
        "locked": Fresh(lambda b, impl: b.locked.connection.cursor(), "locked"),
        "no chunk table": Fresh(lambda b, impl: b.no_chunk_table.connection.cursor(), "no chunk table"),
        "no files table": Fresh(lambda b, impl: sqlite3.connect(":memory:").execute(native.CODE_CHUNKS_DDL), "no files"),
        "closed": Fresh(lambda b, impl: closed_cursor(), "closed"),
        "execute gives None": Cursor(None), "execute gives rows": Cursor(Rows()),
        "text values": Selected([("7", "json", "40000")]), "float values": Selected([(7.5, "json", 40000.5)]),
        "huge values": Selected([(2**70, "json", 10**20)]), "short row": Selected([(7, "json")]),
        "None row": Selected([None]), "not rows": Selected(5), "text row": Selected(["abc"]),
        "mapping row": Selected([{0: 7, 1: "json", 2: 40000}]), "mapping without keys": Selected([{"id": 7}]),
        "None language": Selected([(7, None, 40000)]), "bad size": Selected([(7, "json", "big")]),
    },
    "store": {"compressed": "compressed", "code_chunks": "code_chunks", "other text": "zzz", "bytes": b"compressed"},
    "files": {
        "ints": [1, 2], "empty rows": [()], "text ids": [("1",)], "huge ids": [(2**200,), (-1,)],
        "unhashable ids": [([1],)], "generator": Fresh(lambda b, impl: (row for row in FILES), "generator"),
        "float ids": [(1.0,), (3.5,)], "bool ids": [(True,)], "text": "abc", "None rows": [None],
    },
    "candidates": {"not dict": [(1, [])], "mapping": {1: "not a list"}, "bad keys": {"1": []}},
    "disk": {"model's": Fresh(lambda b, impl: model.DiskText(b.repo, "key", True), "a DiskText of the model")},
    "on_disk": {"list": [2], "text": "2", "dict": {2: None}, "huge": frozenset({2**200})},
    "read": {
        "one value": (1,), "no lines": (1, None), "text lines": (1, "ab"), "key raises": (Raises(), []),
        "float key": (1.0, ["x"]), "a list": [1, ["x"]], "three values": (1, ["x"], 2), "other id": (3, ["x"]),
    },
    "file_id": {"float 1.0": 1.0, "float 2.0": 2.0, "text": "1", "bool": True, "2**63": 2**63},
    "any": {},
}


class PathLike:
    def __init__(self, path: Path) -> None:
        self.path = path

    def __fspath__(self) -> str:
        return str(self.path)


def with_path(db_path: Any) -> Rows:
    db = Rows(rows=[], one=(0, ""))
    db.db_path = db_path
    return db


def closed_cursor() -> sqlite3.Cursor:
    cursor = sqlite3.connect(":memory:").cursor()
    cursor.close()
    return cursor


@dataclass
class Target:
    """A function or method: how to reach it on one side, and a good value per parameter."""

    make: Callable[[workbench.Workbench, Any], Callable[..., Any]]
    params: dict[str, tuple[str, Any]]  # name: (kind, good value)
    keyword_only: tuple[str, ...] = ()
    observe: Callable[[Any], Any] | None = None  # what to ask of what a constructor made
    fields: dict[str, tuple[str, Any]] = field(default_factory=dict)  # of a method's object


def disk_text(needle: str | None = "key") -> Callable[[workbench.Workbench, Any], Any]:
    return lambda b, impl: impl.DiskText(b.repo, needle, True)


def loading(b: workbench.Workbench, impl: Any) -> Any:
    """A DiskText of a subclass whose _load gives its field `answer`."""

    class Loading(impl.DiskText):
        def _load(self, file_id: int, path: str) -> Any:
            return self.answer

    made = Loading(b.repo, "key", True)
    made.answer = ["a"]
    return made


def chunk_text(store: str) -> Callable[[workbench.Workbench, Any], Any]:
    def make(b: workbench.Workbench, impl: Any) -> Any:
        db = b.index[store]
        candidates = impl._candidate_chunks(db, store, FILES, "key", True)
        return impl.ChunkText(db, store, candidates, impl.DiskText(b.repo, "key", True), frozenset({2}))

    return make


def read_source(source: Any) -> Any:
    """What a text source gives for every file of the repository."""
    return [(source.segments(i, path), source.lines(i, path)) for i, path, *_ in FILES + [(9, "missing")]]


def read_found(result: Any) -> Any:
    source, reason = result
    return type(source).__name__, reason, read_source(source)


LINES = ["Alpha key", "\u0130 beta \u212a", "", "KEY \u03a3", "x"]
DISK = Fresh(lambda b, impl: impl.DiskText(b.repo, "key", True), "a DiskText")

TARGETS: dict[str, Target] = {
    "code_chunks": Target(lambda b, impl: impl.code_chunks, {"text": ("text", "a\r\nb\n")}),
    "stored_text_bytes": Target(lambda b, impl: impl.stored_text_bytes, {"text": ("text", "a\r\nb\n")}),
    "text_kept_on_disk": Target(
        lambda b, impl: impl.text_kept_on_disk, {"language": ("text", "json"), "text_bytes": ("int", 40_000)}),
    "file_rowids": Target(lambda b, impl: impl.file_rowids, {"file_id": ("int", 3)}),
    "_chunk_lines": Target(
        lambda b, impl: impl._chunk_lines,
        {"start_line": ("int", 1), "end_line": ("int", 2), "text": ("text", "a\nb")}),
    "_chunk_lines without lines": Target(
        lambda b, impl: impl._chunk_lines,
        {"start_line": ("int", 1), "end_line": ("int", 0), "text": ("text", "a\nb")}),
    "keep_large_data_on_disk": Target(
        lambda b, impl: impl.keep_large_data_on_disk,
        {"cursor": ("cursor", Fresh(lambda b, impl: b.index["code_chunks"].connection.cursor(), "a cursor"))}),
    "_file_text": Target(lambda b, impl: impl._file_text, {"path": ("path", at("f1.py"))}),
    "_lines_holding": Target(
        lambda b, impl: impl._lines_holding,
        {"path": ("path", at("f1.py")), "needle": ("needle", "key"), "case_sensitive": ("flag", False)}),
    "line_matches": Target(
        lambda b, impl: impl.line_matches,
        {"lines": ("lines", LINES), "needle": ("needle", "key"), "pattern": ("pattern", None),
         "case_sensitive": ("flag", False)}),
    "line_matches regex": Target(
        lambda b, impl: impl.line_matches,
        {"lines": ("lines", LINES), "needle": ("needle", None), "pattern": ("pattern", re.compile(r"\w+ ")),
         "case_sensitive": ("flag", True)}),
    "context": Target(
        lambda b, impl: impl.context,
        {"lines": ("lines", LINES), "first": ("int", 2), "last": ("int", 4), "start": ("int", 1)}),
    "context inverted": Target(
        lambda b, impl: impl.context,
        {"lines": ("lines", LINES), "first": ("int", 10), "last": ("int", 4), "start": ("int", 1)}),
    "Segment": Target(
        lambda b, impl: impl.Segment, {"first": ("any", 1), "lines": ("any", ["a"]), "last": ("any", True)}),
    "DiskText": Target(
        lambda b, impl: impl.DiskText,
        {"repo_root": ("path", HERE), "needle": ("needle", "key"), "case_sensitive": ("flag", True)},
        observe=read_source),
    "DiskText.segments": Target(
        lambda b, impl: disk_text()(b, impl).segments, {"file_id": ("file_id", 1), "path": ("relative", "f1.py")}),
    "DiskText.lines": Target(
        lambda b, impl: disk_text(None)(b, impl).lines, {"file_id": ("file_id", 3), "path": ("relative", "f3.txt")}),
    "DiskText._load": Target(
        lambda b, impl: disk_text()(b, impl)._load, {"file_id": ("file_id", 1), "path": ("relative", "f1.py")}),
    "ChunkText": Target(
        lambda b, impl: impl.ChunkText,
        {"db": ("db", index("code_chunks")), "store": ("store", "code_chunks"),
         "candidates": ("candidates", {1: []}), "disk": ("disk", DISK), "on_disk": ("on_disk", frozenset({2}))},
        observe=read_source),
    "ChunkText.segments": Target(
        lambda b, impl: chunk_text("code_chunks")(b, impl).segments,
        {"file_id": ("file_id", 1), "path": ("relative", "f1.py")}),
    "ChunkText.lines": Target(
        lambda b, impl: chunk_text("code_chunks")(b, impl).lines,
        {"file_id": ("file_id", 1), "path": ("relative", "f1.py")}),
    "ChunkText.lines compressed": Target(
        lambda b, impl: chunk_text("compressed")(b, impl).lines,
        {"file_id": ("file_id", 3), "path": ("relative", "f3.txt")}),
    # The fields of the two classes, set by the host between calls.
    "DiskText.lines fields": Target(
        lambda b, impl: disk_text()(b, impl).lines, {"file_id": ("file_id", 1), "path": ("relative", "f1.py")},
        fields={"_root": ("path", HERE), "_needle": ("needle", "key"), "_case_sensitive": ("flag", True),
                "_read": ("read", None)}),
    "DiskText.segments of a subclass": Target(
        lambda b, impl: loading(b, impl).segments, {"file_id": ("file_id", 1), "path": ("relative", "f1.py")},
        fields={"answer": ("lines", ["a"])}),
    "DiskText.lines of a subclass": Target(
        lambda b, impl: loading(b, impl).lines, {"file_id": ("file_id", 1), "path": ("relative", "f1.py")},
        fields={"answer": ("lines", ["a"])}),
    "ChunkText.lines fields": Target(
        lambda b, impl: chunk_text("code_chunks")(b, impl).lines,
        {"file_id": ("file_id", 1), "path": ("relative", "f1.py")},
        fields={"_db": ("db", index("code_chunks")), "_store": ("store", "code_chunks"),
                "_on_disk": ("on_disk", frozenset({2})), "_read": ("read", None)}),
    "ChunkText.segments fields": Target(
        lambda b, impl: chunk_text("code_chunks")(b, impl).segments,
        {"file_id": ("file_id", 2), "path": ("relative", "f2.json")},
        fields={"_candidates": ("candidates", {}), "_disk": ("disk", DISK), "_on_disk": ("on_disk", frozenset({2}))}),
    "text_source": Target(
        lambda b, impl: impl.text_source,
        {"db": ("db", index("code_chunks")), "files": ("files", FILES), "needle": ("needle", "key"),
         "case_sensitive": ("flag", True), "store": ("store", "code_chunks")},
        keyword_only=("store",), observe=read_found),
    "_chunk_state": Target(
        lambda b, impl: impl._chunk_state, {"db": ("db", index("code_chunks")), "store": ("store", "code_chunks")}),
    "_candidate_chunks": Target(
        lambda b, impl: impl._candidate_chunks,
        {"db": ("db", index("code_chunks")), "store": ("store", "code_chunks"), "files": ("files", FILES),
         "needle": ("needle", "key"), "case_sensitive": ("flag", False)}),
}


def shape(value: Any) -> Any:
    """A value with its types spelled out (1 and True differ), the same for both sides."""
    if isinstance(value, (model.DiskText, model.ChunkText, native.DiskText, native.ChunkText)):
        return (type(value).__name__,)
    if isinstance(value, tuple) and hasattr(value, "_fields"):
        return (type(value).__name__, [shape(item) for item in value])
    if isinstance(value, dict):
        return ("dict", [(shape(k), shape(v)) for k, v in value.items()])
    if isinstance(value, (list, tuple)):
        return (type(value).__name__, [shape(item) for item in value])
    if isinstance(value, (set, frozenset)):
        return (type(value).__name__, sorted(map(repr, value)))
    if isinstance(value, float) and math.isnan(value):
        return ("float", "nan")
    if isinstance(value, str):
        return (type(value).__name__, str(value))
    if isinstance(value, (int, float, bytes, bytearray, type(None))):
        return (type(value).__name__, value)
    return (type(value).__name__,)  # an object handed through: which one is not compared


def outcome(call: Callable[[], Any], then: Callable[[Any], Any] | None = None) -> Any:
    """What a call gives: ("value", shape) or ("error", type); an iterator is read to its end
    (and once more, to see that it stays ended); `then` is asked of a value."""
    try:
        value = call()
    except Exception as error:  # noqa: BLE001 - both sides must fail alike
        assert str(error) or isinstance(error, (KeyError, StopIteration)), f"{type(error)} without a message"
        return ("error", type(error))
    if isinstance(value, Iterator):
        items = []
        ending = outcome(lambda: items.append(next(value)) or "more")
        while ending == ("value", ("str", "more")):
            ending = outcome(lambda: items.append(next(value)) or "more")
        return ("iterator", shape(items), ending, outcome(lambda: next(value)))
    if then is not None:
        return ("value", shape(value), outcome(lambda: then(value)))
    return ("value", shape(value))


def run(bench: workbench.Workbench, impl: Any, name: str, param: str | None, bad: Any) -> tuple[Any, Any]:
    """The bad call and the good call after it, on one side."""
    target = TARGETS[name]
    function = target.make(bench, impl)

    def call(values: dict[str, Any]) -> Callable[[], Any]:
        positional = [values[p] for p in target.params if p not in target.keyword_only]
        keywords = {p: values[p] for p in target.keyword_only}
        return lambda: function(*positional, **keywords)

    good = {p: resolve(v, bench, impl) for p, (_, v) in target.params.items()}
    bad_values = dict(good)
    if param in target.fields:
        setattr(function.__self__, param, resolve(bad, bench, impl))
    elif param is not None:
        bad_values[param] = resolve(bad, bench, impl)
    first = outcome(call(bad_values), target.observe)
    if param in target.fields:
        setattr(function.__self__, param, resolve(target.fields[param][1], bench, impl))
    good = {p: resolve(v, bench, impl) for p, (_, v) in target.params.items()}
    return first, outcome(call(good), target.observe)


def run_once(bench: workbench.Workbench, impl: Any, name: str, param: str, bad: Any) -> Any:
    target = TARGETS[name]
    values = {p: resolve(v, bench, impl) for p, (_, v) in target.params.items()}
    values[param] = resolve(bad, bench, impl)
    return target.make(bench, impl)(*values.values())


def cases() -> list[tuple[str, str, str]]:
    made = []
    for name, target in TARGETS.items():
        for param, (kind, _) in {**target.params, **target.fields}.items():
            for value in [*GENERIC, *BY_KIND[kind]]:
                made.append((name, param, value))
    return made


CASES = cases()
# Calls of the wrong shape: no arguments, one too many, an unknown keyword.
SHAPES = {
    "no arguments": lambda params: ((), {}),
    "one too many": lambda params: ((*params.values(), 1), {}),
    "unknown keyword": lambda params: ((*params.values(),), {"unknown": 1}),
}
SCENARIOS = 4 * 5 + 2 * 4  # the calls of the two scenarios at the end that meet a change
BAD_INPUTS = len(CASES) + len(TARGETS) * len(SHAPES) + SCENARIOS

# Parameters that the native module checks at the door: a value of another type is a
# TypeError ("code_chunks() argument 'text' must be str, not NoneType"), where the plain
# code meets the wrong type later (AttributeError: no splitlines) or not at all (a float
# file id gives a float row-id range; a chunk without lines never looks at its text).
CHECKED = {
    ("code_chunks", "text"): str, ("stored_text_bytes", "text"): str, ("_chunk_lines", "text"): str,
    ("_chunk_lines without lines", "text"): str, ("file_rowids", "file_id"): int,
}


@pytest.fixture(scope="module")
def bench(tmp_path_factory: pytest.TempPathFactory) -> Iterator[workbench.Workbench]:
    made = workbench.Workbench(tmp_path_factory.mktemp("bad"))
    yield made
    made.close()


@pytest.mark.parametrize(("name", "param", "value"), CASES, ids=[" ".join(case) for case in CASES])
def test_a_bad_input_gets_the_models_answer(bench: workbench.Workbench, name: str, param: str, value: str) -> None:
    kind = {**TARGETS[name].params, **TARGETS[name].fields}[param][0]
    bad = GENERIC[value] if value in GENERIC else BY_KIND[kind][value]
    want = run(bench, model, name, param, bad)
    got = run(bench, native, name, param, bad)
    checked = CHECKED.get((name, param))
    value = resolve(bad, bench, native)
    if checked is not None and not isinstance(value, checked):
        with pytest.raises(TypeError, match=f"argument '{param}' must be {checked.__name__}, not"):
            run_once(bench, native, name, param, bad)
        assert got[1] == want[1]
    else:
        assert got == want


@pytest.mark.parametrize("shape_name", list(SHAPES))
@pytest.mark.parametrize("name", list(TARGETS))
def test_a_call_of_the_wrong_shape(bench: workbench.Workbench, name: str, shape_name: str) -> None:
    def call(impl: Any) -> Any:
        target = TARGETS[name]
        params = {p: resolve(v, bench, impl) for p, (_, v) in target.params.items()}
        args, kwargs = SHAPES[shape_name](params)
        return outcome(lambda: target.make(bench, impl)(*args, **kwargs))

    got = call(native)
    assert got == call(model) == ("error", TypeError)


# --- Changes between calls ---------------------------------------------------------------


def replaced_between_calls(impl: Any, root: Path) -> list[Any]:
    """A file read, then replaced by a link, a directory, a link to a directory and a file
    again, read through one DiskText (new ids: the cache is by id) and directly."""
    root.mkdir()
    (root / "other").write_text("key elsewhere\n")
    (root / "f").write_text("key here\nand more\n")
    disk = impl.DiskText(root, "key", True)
    seen = [outcome(lambda: disk.lines(1, "f"))]

    def look(file_id: int) -> None:
        seen.extend([
            outcome(lambda: disk.segments(file_id, "f")), outcome(lambda: disk.lines(file_id, "f")),
            outcome(lambda: disk.lines(1, "f")),  # read anew: the cache holds one file
            outcome(lambda: impl._file_text(root / "f")),
            outcome(lambda: impl._lines_holding(root / "f", None, True)),
        ])

    (root / "f").unlink()
    (root / "f").symlink_to(root / "other")
    look(2)
    (root / "f").unlink()
    (root / "f").mkdir()
    look(3)
    (root / "f").rmdir()
    (root / "f").symlink_to(root, target_is_directory=True)
    look(4)
    (root / "f").unlink()
    (root / "f").write_bytes(b"key \xff back\n")
    look(5)
    return seen


def test_a_file_replaced_between_calls(tmp_path: Path) -> None:
    assert replaced_between_calls(native, tmp_path / "native") == replaced_between_calls(model, tmp_path / "model")


def locked_between_calls(impl: Any, bench: workbench.Workbench, store: str) -> list[Any]:
    """ChunkText.lines while another connection holds the database: the failed read keeps
    the file read before, and once the lock is gone every file reads again."""
    path = bench.root / f"locked-{store}-{impl.__name__}.db"
    db = workbench.OneCursorDatabase(path, timeout=0)
    with db.connection:
        db.cursor.execute("CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT, language TEXT, text_on_disk INTEGER)")
        chunk_store.create_tables(db.cursor, store)
        for file_id, (_, text) in workbench.TEXTS.items():
            chunk_store.store_chunks(db.cursor, store, file_id, model.code_chunks(text))
    chunks = impl.ChunkText(db, store, {}, impl.DiskText(bench.repo, None, True), ())
    seen = [outcome(lambda: chunks.lines(1, "f1.py"))]
    holder = sqlite3.connect(path, isolation_level=None)
    holder.execute("BEGIN EXCLUSIVE")
    try:
        seen += [outcome(lambda: chunks.lines(3, "f3.txt")), outcome(lambda: chunks.lines(1, "f1.py"))]
        seen += [outcome(lambda: impl._chunk_state(db, store)), outcome(lambda: chunks._read[0])]
    finally:
        holder.rollback()
        holder.close()
    seen += [outcome(lambda: chunks.lines(3, "f3.txt")), outcome(lambda: chunks._read[0])]
    db.close()
    return seen


@pytest.mark.parametrize("store", ["code_chunks", "compressed"])
def test_a_database_locked_between_calls(bench: workbench.Workbench, store: str) -> None:
    assert locked_between_calls(native, bench, store) == locked_between_calls(model, bench, store)
