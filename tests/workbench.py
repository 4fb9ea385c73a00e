"""Every entry point of the module, with good and bad values for each of its parameters, and a
small repository with its indexes to call them on (one per chunk layout, one lacking a file's
chunks, one without a chunk table, one without any table, one locked by another connection);
shared by the bad-input and leak tests."""

from __future__ import annotations

import math
import os
import re
import sqlite3
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Callable, Iterator

import model
from conftest import shape
from velmora.storage.database import Database
from velmora.storage import layouts
from velmora.storage import code_text as native

S = native.CODE_CHUNK_STRIDE

TEXTS = {
    1: ("f1.py", "Alpha\n\u0130 beta \u212a\nalpha key\r\n" * 50),
    2: ("f2.json", "key on disk\n"),
    3: ("f3.txt", "x\x00y key\nlast"),
}
ON_DISK = {2}
NOT_UTF8_NAME = b"\xff\xfe name.txt"
BIG = "big.txt"  # over the size from which a file is read in slices
FILES = [(file_id, path, "text", None) for file_id, (path, _) in TEXTS.items()]


def _raise(*args: Any) -> Any:
    raise RuntimeError("asked")


class Raises:
    """An object whose every use as a pattern, truth value or key raises."""

    search = __bool__ = __eq__ = _raise
    __hash__ = object.__hash__


class FoundAt:
    """A pattern whose match starts where it is told (any object)."""

    def __init__(self, start: Any) -> None:
        self._start = start

    def search(self, line: str) -> Any:
        return self

    def start(self) -> Any:
        return self._start


class Rows:
    """A database handle that answers with given rows: `rows` for fetchall, `one` for
    fetchone. An exception class is raised instead (a new instance each time: a raised one
    keeps its traceback); a callable is called for what to give."""

    db_path = Path("/r/x/y/index.db")

    def __init__(self, rows: Any = (), one: Any = None) -> None:
        self.rows = rows
        self.one = one

    @staticmethod
    def _give(answer: Any) -> Any:
        if isinstance(answer, type) and issubclass(answer, BaseException):
            raise answer("the database is gone")
        return answer() if callable(answer) else answer

    def fetchall(self, sql: str, parameters: Any = ()) -> Any:
        return self._give(self.rows)

    def fetchone(self, sql: str) -> Any:
        return self._give(self.one)


class Selected:
    """A migration's cursor over an index with code_chunks whose selection gives `rows`;
    what it is asked to change is dropped. Its execute gives `answer` when one is given."""

    def __init__(self, rows: Any, answer: Any = "itself") -> None:
        self.rows, self.answer = rows, answer

    def execute(self, *args: Any) -> Any:
        return self if self.answer == "itself" else self.answer

    executemany = execute

    def fetchone(self) -> Any:
        return (1,)

    def fetchall(self) -> Any:
        return self.rows


class Workbench:
    def __init__(self, root: Path) -> None:
        self.root = root
        self.repo = root / "repo"
        self.repo.mkdir()
        for path, text in TEXTS.values():
            (self.repo / path).write_bytes(text.encode("utf-8"))
        (self.repo / BIG).write_bytes(b"line of a large file\r\n" * 200_000)
        (self.repo / "link").symlink_to(self.repo / "f1.py")
        (self.repo / "dir").mkdir()
        (self.repo / os.fsdecode(NOT_UTF8_NAME)).write_bytes(b"caf\xe9 key\n")
        self.databases: list[Database] = []
        self.index = {store: self.build(store, store) for store in ("code_chunks", "compressed")}
        self.unchunked = self.build("unchunked", "code_chunks", skip={1})
        self.no_chunk_table = self.build("no_chunk_table", None)
        self.bare = self.open("bare")
        self.locked = self.build("locked", "code_chunks", wait=False)
        self.holder = sqlite3.connect(self.locked.db_path, isolation_level=None)
        self.holder.execute("BEGIN EXCLUSIVE")

    def open(self, name: str, *, wait: bool = True) -> Database:
        """A database at repo/<name>/y/index.db: the repository is its root."""
        path = self.repo / name / "y" / "index.db"
        path.parent.mkdir(parents=True)
        db = Database(path)
        if not wait:  # a lock fails at once
            db.connection.execute("PRAGMA busy_timeout = 0")
        self.databases.append(db)
        return db

    def build(self, name: str, store: str | None, *, skip: set[int] = frozenset(), wait: bool = True) -> Database:
        """An index of TEXTS in the layout `store` (None: the files table alone)."""
        db = self.open(name, wait=wait)
        with db.transaction() as cursor:
            cursor.execute("CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT, language TEXT,"
                           " text_on_disk INTEGER NOT NULL DEFAULT 0)")
            if store is not None:
                layouts.named(store).create_tables(cursor)
            for file_id, (path, text) in TEXTS.items():
                on_disk = file_id in ON_DISK
                cursor.execute("INSERT INTO files VALUES (?, ?, 'text', ?)", (file_id, path, int(on_disk)))
                if store is not None and not on_disk and file_id not in skip:
                    layouts.named(store).store_chunks(cursor, file_id, model.code_chunks(text))
        return db

    def close(self) -> None:
        self.holder.rollback()
        self.holder.close()
        for db in self.databases:
            db.close()


# --- Every entry point, and values for each kind of parameter ----------------------------


class Fresh:
    """A value made for each side and call: fn(bench, impl)."""

    def __init__(self, fn: Callable[[Workbench, Any], Any]) -> None:
        self.fn = fn


def resolve(value: Any, bench: Workbench, impl: Any) -> Any:
    return value.fn(bench, impl) if isinstance(value, Fresh) else value


class Text(str):
    """A str subclass: taken as a str everywhere, kept as itself where it is handed on."""


def at(part: str | bytes) -> Fresh:
    """A path in the repository."""
    if isinstance(part, bytes):
        return Fresh(lambda b, impl: os.fsencode(b.repo) + b"/" + part)
    return Fresh(lambda b, impl: b.repo / part)


def index(name: str) -> Fresh:
    return Fresh(lambda b, impl: b.index[name] if name in b.index else getattr(b, name))


def closed_cursor() -> sqlite3.Cursor:
    cursor = sqlite3.connect(":memory:").cursor()
    cursor.close()
    return cursor


# Every parameter gets these; each kind of parameter also those of its own kind.
GENERIC: dict[str, Any] = {
    "None": None, "negative": -1, "huge": 2**200, "float": 1.5, "nan": math.nan, "True": True,
    "bytes": b"ab\ncd", "list": ["a", "b"], "dict": {"a": 1}, "object": object(),
    "surrogates": "a\ud800b\n\udfff", "empty": "", "str subclass": Text("a\nb"), "raises": Raises(),
}
BY_KIND: dict[str, dict[str, Any]] = {
    "text": {"NUL": "a\x00b", "astral": "\U0001f600\r\n\x85", "bytes subclass": type("B", (bytes,), {})(b"x")},
    "int": {"2**63": 2**63, "-2**63 - 1": -(2**63) - 1, "__index__": type("I", (), {"__index__": lambda s: 2})()},
    "path": {
        "not UTF-8 (bytes)": at(NOT_UTF8_NAME), "not UTF-8 (escapes)": at(os.fsdecode(NOT_UTF8_NAME)),
        "link": at("link"), "directory": at("dir"), "missing": at("missing"), "large": at(BIG),
        "NUL in the name": Fresh(lambda b, impl: str(b.repo / "f1.py") + "\x00"),
    },
    "relative": {"link": "link", "directory": "dir", "absolute": "/nonexistent/f1.py", "parent": "../repo/f3.txt",
                 "bytes name": b"f1.py", "large": BIG},
    "needle": {"NUL": "y\x00", "Kelvin": "\u212a", "k": "k", "dotted I": "\u0130", "lone surrogate": "\ud800"},
    "flag": {"zero": 0, "empty tuple": ()},
    "lines": {"str": "abc", "None line": ["a", None], "bytes lines": [b"a", b"Key"], "mixed": ["a", 5, "key"],
              "iterator": Fresh(lambda b, impl: iter(["a", "key"])), "subclassed lines": [Text("Key a")]},
    "pattern": {"start text": FoundAt("0"), "start None": FoundAt(None), "start huge": FoundAt(2**100),
                "start nan": FoundAt(math.nan), "bytes pattern": re.compile(b"a"), "empty pattern": re.compile("")},
    "db": {
        "locked": index("locked"), "no chunk table": index("no_chunk_table"), "no table": index("bare"),
        "unchunked": index("unchunked"), "compressed": index("compressed"),
        "fetch None": Rows(None, None), "fetch short rows": Rows([(S, 1)], (1,)),
        "fetch long rows": Rows([(S, 1, 1, "a", 1, 9)]), "fetch bytes text": Rows([(S, 1, 1, b"a\nb", 1)]),
        "fetch float ids": Rows([(S + 0.5, 1.0, 2.0, "a\nb", 0)], (2.5, "1, 2,,3")),
        "fetch text ids": Rows([(str(S), "1", "2", "a", 1)], (0, "1,x")),
        "fetch huge ids": Rows([(2**100, 1, 1, "a", 1), (-(2**100), 1, 1, "b", 1)], (0, "1" * 40)),
        "fetch generator": Rows(lambda: ((S + i, 1, 1, "a", 1) for i in range(3))),
        "fetch raises": Rows(sqlite3.OperationalError, sqlite3.OperationalError),
        "db_path None": Fresh(lambda b, impl: setattr(db := Rows([], (0, "")), "db_path", None) or db),
    },
    "cursor": {
        "locked": Fresh(lambda b, impl: b.locked.connection.cursor()),
        "no files table": Fresh(lambda b, impl: sqlite3.connect(":memory:").execute(native.CODE_CHUNKS_DDL)),
        "closed": Fresh(lambda b, impl: closed_cursor()), "execute gives None": Selected(None, answer=None),
        "text values": Selected([("7", "json", "40000")]), "huge values": Selected([(2**70, "json", 10**20)]),
        "short row": Selected([(7, "json")]), "not rows": Selected(5), "mapping row": Selected([{0: 7, 1: "json", 2: 4e4}]),
        "None language": Selected([(7, None, 40000)]), "bad size": Selected([(7, "json", "big")]),
    },
    "store": {"compressed": "compressed", "other text": "zzz", "bytes": b"compressed"},
    "files": {"ints": [1, 2], "empty rows": [()], "text ids": [("1",)], "huge ids": [(2**200,), (-1,)],
              "unhashable ids": [([1],)], "float ids": [(1.0,), (3.5,)], "None rows": [None],
              "generator": Fresh(lambda b, impl: (row for row in FILES))},
    "candidates": {"mapping": {1: "not a list"}, "bad keys": {"1": []}},
    "disk": {"model's": Fresh(lambda b, impl: model.DiskText(b.repo, "key", True))},
    "on_disk": {"text": "2", "huge": frozenset({2**200})},
    "read": {"one value": (1,), "no lines": (1, None), "key raises": (Raises(), []), "float key": (1.0, ["x"]),
             "a list": [1, ["x"]], "other id": (3, ["x"])},
    "file_id": {"float 1.0": 1.0, "text": "1", "2**63": 2**63},
    "any": {},
}


@dataclass
class Target:
    """A function or method: how to reach it on one side, and a good value per parameter."""

    make: Callable[[Workbench, Any], Callable[..., Any]]
    params: dict[str, tuple[str, Any]]  # name: (kind, good value)
    observe: Callable[[Any], Any] | None = None  # what to ask of what a constructor made
    keyword_only: tuple[str, ...] = ()
    fields: dict[str, tuple[str, Any]] = field(default_factory=dict)  # of a method's object


def chunk_text(b: Workbench, impl: Any) -> Any:
    db = b.index["code_chunks"]
    candidates = impl._candidate_chunks(db, "code_chunks", FILES, "key", True)
    return impl.ChunkText(db, "code_chunks", candidates, impl.DiskText(b.repo, "key", True), frozenset({2}))


def read_source(source: Any) -> Any:
    """What a text source gives for every file of the repository."""
    return [(source.segments(i, path), source.lines(i, path)) for i, path, *_ in FILES + [(9, "missing")]]


LINES = ["Alpha key", "\u0130 beta \u212a", "", "KEY \u03a3", "x"]
DISK = Fresh(lambda b, impl: impl.DiskText(b.repo, "key", True))
CODE_CHUNKS = index("code_chunks")
ID_AND_PATH = {"file_id": ("file_id", 1), "path": ("relative", "f1.py")}
TARGETS: dict[str, Target] = {
    "code_chunks": Target(lambda b, impl: impl.code_chunks, {"text": ("text", "a\r\nb\n")}),
    "stored_text_bytes": Target(lambda b, impl: impl.stored_text_bytes, {"text": ("text", "a\r\nb\n")}),
    "text_kept_on_disk": Target(
        lambda b, impl: impl.text_kept_on_disk, {"language": ("text", "json"), "text_bytes": ("int", 40_000)}),
    "file_rowids": Target(lambda b, impl: impl.file_rowids, {"file_id": ("int", 3)}),
    "_chunk_lines": Target(
        lambda b, impl: impl._chunk_lines, {"start_line": ("int", 1), "end_line": ("int", 2), "text": ("text", "a\nb")}),
    "keep_large_data_on_disk": Target(
        lambda b, impl: impl.keep_large_data_on_disk,
        {"cursor": ("cursor", Fresh(lambda b, impl: b.index["code_chunks"].connection.cursor()))}),
    "_file_text": Target(lambda b, impl: impl._file_text, {"path": ("path", at("f1.py"))}),
    "_lines_holding": Target(
        lambda b, impl: impl._lines_holding,
        {"path": ("path", at("f1.py")), "needle": ("needle", "key"), "case_sensitive": ("flag", False)}),
    "line_matches": Target(
        lambda b, impl: impl.line_matches,
        {"lines": ("lines", LINES), "needle": ("needle", "key"), "pattern": ("pattern", None),
         "case_sensitive": ("flag", False)}),
    "context": Target(
        lambda b, impl: impl.context,
        {"lines": ("lines", LINES), "first": ("int", 2), "last": ("int", 4), "start": ("int", 1)}),
    "Segment": Target(
        lambda b, impl: impl.Segment, {"first": ("any", 1), "lines": ("any", ["a"]), "last": ("any", True)}),
    "DiskText": Target(
        lambda b, impl: impl.DiskText,
        {"repo_root": ("path", Fresh(lambda b, impl: b.repo)), "needle": ("needle", "key"),
         "case_sensitive": ("flag", True)}, observe=read_source),
    "DiskText.segments": Target(lambda b, impl: impl.DiskText(b.repo, "key", True).segments, ID_AND_PATH),
    "DiskText.lines": Target(
        lambda b, impl: impl.DiskText(b.repo, "key", True).lines, ID_AND_PATH,
        fields={"_root": ("path", Fresh(lambda b, impl: b.repo)), "_needle": ("needle", "key"),
                "_case_sensitive": ("flag", True), "_read": ("read", None)}),
    "DiskText._load": Target(lambda b, impl: impl.DiskText(b.repo, None, True)._load, ID_AND_PATH),
    "DiskText.segments of a subclass": Target(  # whose _load gives its field `answer`
        lambda b, impl: type("Loading", (impl.DiskText,), {"_load": lambda self, i, p: self.answer, "answer": ["a"]})(
            b.repo, "key", True).segments, ID_AND_PATH, fields={"answer": ("lines", ["a"])}),
    "ChunkText": Target(
        lambda b, impl: impl.ChunkText,
        {"db": ("db", CODE_CHUNKS), "store": ("store", "code_chunks"), "candidates": ("candidates", {1: []}),
         "disk": ("disk", DISK), "on_disk": ("on_disk", frozenset({2}))}, observe=read_source),
    "ChunkText.segments": Target(
        lambda b, impl: chunk_text(b, impl).segments, {"file_id": ("file_id", 2), "path": ("relative", "f2.json")},
        fields={"_candidates": ("candidates", {}), "_disk": ("disk", DISK), "_on_disk": ("on_disk", frozenset({2}))}),
    "ChunkText.lines": Target(
        lambda b, impl: chunk_text(b, impl).lines, ID_AND_PATH,
        fields={"_db": ("db", CODE_CHUNKS), "_store": ("store", "code_chunks"), "_on_disk": ("on_disk", frozenset({2})),
                "_read": ("read", None)}),
    "text_source": Target(
        lambda b, impl: impl.text_source,
        {"db": ("db", CODE_CHUNKS), "files": ("files", FILES), "needle": ("needle", "key"),
         "case_sensitive": ("flag", True), "store": ("store", "code_chunks")},
        observe=lambda found: (type(found[0]).__name__, found[1], read_source(found[0])), keyword_only=("store",)),
    "_chunk_state": Target(lambda b, impl: impl._chunk_state, {"db": ("db", CODE_CHUNKS), "store": ("store", "code_chunks")}),
    "_candidate_chunks": Target(
        lambda b, impl: impl._candidate_chunks,
        {"db": ("db", CODE_CHUNKS), "store": ("store", "code_chunks"), "files": ("files", FILES),
         "needle": ("needle", "key"), "case_sensitive": ("flag", False)}),
}
# Checked at the door by the native module: "code_chunks() argument 'text' must be str, not
# NoneType", where the plain code meets the wrong type later or not at all.
CHECKED = {("code_chunks", "text"): str, ("stored_text_bytes", "text"): str, ("_chunk_lines", "text"): str,
           ("file_rowids", "file_id"): int}


def answer(call: Callable[[], Any], then: Callable[[Any], Any] | None = None) -> Any:
    """What a call gives: ("value", shape) or ("error", type); an iterator is read to its end
    (and once more, to see that it stays ended); `then` is asked of a value."""
    try:
        value = call()
    except Exception as error:  # noqa: BLE001 - both sides must fail alike
        assert str(error) or isinstance(error, (KeyError, StopIteration)), f"{type(error)} without a message"
        return ("error", type(error))
    if isinstance(value, Iterator):
        items: list[Any] = []
        ending = answer(lambda: items.append(next(value)))
        while ending == ("value", ("NoneType", None)):
            ending = answer(lambda: items.append(next(value)))
        return ("iterator", shape(items), ending, answer(lambda: next(value)))
    return ("value", shape(value)) if then is None else ("value", shape(value), answer(lambda: then(value)))


def call(target: Target, function: Callable[..., Any], values: dict[str, Any]) -> Callable[[], Any]:
    positional = [values[p] for p in target.params if p not in target.keyword_only]
    return lambda: function(*positional, **{p: values[p] for p in target.keyword_only})


def run(bench: Workbench, impl: Any, name: str, param: str | None, bad: Any) -> tuple[Any, Any]:
    """The bad call (no bad value without `param`) and the good call after it, on one side."""
    target = TARGETS[name]
    function = target.make(bench, impl)
    good = {p: resolve(v, bench, impl) for p, (_, v) in target.params.items()}
    values = dict(good)
    if param in target.fields:
        setattr(function.__self__, param, resolve(bad, bench, impl))
    elif param is not None:
        values[param] = resolve(bad, bench, impl)
    first = answer(call(target, function, values), target.observe)
    if param in target.fields:
        setattr(function.__self__, param, resolve(target.fields[param][1], bench, impl))
    good = {p: resolve(v, bench, impl) for p, (_, v) in target.params.items()}
    return first, answer(call(target, function, good), target.observe)
