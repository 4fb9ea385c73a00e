"""Symbol definitions: what universal-ctags finds per language, kept in step by each pass."""

from __future__ import annotations

import re
import sqlite3
import subprocess
from pathlib import Path

import pytest
from hypothesis import given
from hypothesis import strategies as st

from velmora.api import Repository
from velmora.index import build as indexer, symbols
from velmora.query import language
from velmora.query.name_filter import sql_filter
from velmora.query.pattern import QueryError
from strategies import patterns

# Each file as such code is written, with its definitions checked by hand: (line, kind, name).
FILES = {
    "s.py": ("import os\n\nLIMIT = 10\n\n\nclass Cache:\n    def get(self, key):\n        return None\n"
             "\n\ndef load(path):\n    return os.path.exists(path)\n",
             {(3, "variable", "LIMIT"), (6, "class", "Cache"), (7, "member", "get"), (11, "function", "load")}),
    "s.c": ("#include <stdio.h>\n#define MAX 8\nstruct point { int x; };\n"
            "static int add(int a, int b) { return a + b; }\nint main(void) { return add(1, 2); }\n",
            {(2, "macro", "MAX"), (3, "struct", "point"), (3, "member", "x"), (4, "function", "add"),
             (5, "function", "main")}),
    "s.cpp": ("namespace geo {\nclass Shape {\npublic:\n    virtual double area() const = 0;\n};\n"
              "double Shape::area() const { return 0; }\n}\n",
              {(1, "namespace", "geo"), (2, "class", "Shape"), (6, "function", "area")}),
    "s.go": ("package store\n\ntype Item struct {\n\tName string\n}\n\n"
             "func (i *Item) Key() string { return i.Name }\n\nfunc Open(path string) error { return nil }\n",
             {(1, "package", "store"), (3, "struct", "Item"), (4, "member", "Name"), (7, "func", "Key"),
              (9, "func", "Open")}),
    "s.rs": ("pub struct Index {\n    size: usize,\n}\n\nimpl Index {\n"
             "    pub fn new() -> Self { Index { size: 0 } }\n}\n\npub fn build() {}\n",
             {(1, "struct", "Index"), (2, "field", "size"), (5, "implementation", "Index"),
              (6, "method", "new"), (9, "function", "build")}),
    "S.java": ("package app;\n\npublic class Server {\n    private int port;\n    public void start() {}\n}\n",
               {(1, "package", "app"), (3, "class", "Server"), (4, "field", "port"), (5, "method", "start")}),
    "s.js": ("export function render(node) {\n  return node;\n}\nclass View {\n  update() {}\n}\n"
             "const limit = 3;\n",
             {(1, "function", "render"), (4, "class", "View"), (5, "method", "update"), (7, "constant", "limit")}),
    "s.ts": ("interface Options {\n  depth: number;\n}\nexport function walk(opts: Options): void {}\n"
             "export class Walker {\n  run(): void {}\n}\n",
             {(1, "interface", "Options"), (2, "property", "depth"), (4, "function", "walk"),
              (5, "class", "Walker"), (6, "method", "run")}),
    "s.rb": ("module Tools\n  class Runner\n    def call(x)\n      x\n    end\n  end\nend\n",
             {(1, "module", "Tools"), (2, "class", "Runner"), (3, "method", "call")}),
    "s.sh": ("#!/bin/sh\nsetup() {\n  echo hi\n}\nfunction teardown {\n  :\n}\n",
             {(2, "function", "setup"), (5, "function", "teardown")}),
    "big.json": ('{"key": 1}\n', set()),  # data: its keys are not definitions
}


@pytest.fixture
def extractor():
    extractor = symbols.Extractor()
    yield extractor
    extractor.close()


@pytest.mark.parametrize("path", FILES)
def test_definitions_per_language(extractor, path: str) -> None:
    text, expected = FILES[path]
    found = extractor.definitions(path, text.encode())
    assert {(d.line, d.kind, d.name) for d in found} == expected


def test_a_file_past_its_time_gets_none_and_the_next_a_new_process(extractor, monkeypatch) -> None:
    text = FILES["s.go"][0].encode()
    monkeypatch.setattr(symbols, "SECONDS_PER_FILE", 0.0)
    assert extractor.definitions("s.go", text) == []
    monkeypatch.setattr(symbols, "SECONDS_PER_FILE", 5.0)
    assert len(extractor.definitions("s.go", text)) == 5


def test_a_ctags_that_cannot_run_here_is_given_up(extractor, monkeypatch) -> None:
    assert symbols.available()  # found before Popen is counted
    monkeypatch.setattr(symbols, "_COMMAND", ["--no-such-option"])
    monkeypatch.setattr(symbols, "SECONDS_PER_FILE", 600.0)  # its exit is awaited, not timed
    started = []
    popen = subprocess.Popen

    def exited(*args, **kwargs):
        # Gone before the request is written, as it may be by chance: the pipe is broken.
        started.append(args)
        process = popen(*args, **kwargs)
        process.wait()
        return process

    monkeypatch.setattr(subprocess, "Popen", exited)
    assert [extractor.definitions("s.go", b"package x\n") for _ in range(5)] == [[]] * 5
    assert len(started) == 3


# Each letter's forms under re.IGNORECASE, some beyond ASCII (the Kelvin sign, the long s).
FORMS = {"a": "aA", "x": "xX", "k": "kK\u212a", "s": "sS\u017f", "i": "iI"}
spelt = st.lists(st.sampled_from(sorted(FORMS)), min_size=2, max_size=4).map("".join)


@given(data=st.data(), pattern=st.one_of(
    patterns().filter(lambda p: "\ud800" not in p.pattern),
    spelt.map(lambda word: re.compile(word, re.I)),
))
def test_sqlite_keeps_every_name_the_regex_finds(data, pattern) -> None:
    names = data.draw(st.lists(st.text("abcxAXZ %_é\u03a3\u0130" + "".join(FORMS.values()), max_size=5)))
    # Names that spell the pattern in other forms of its letters, when it is such a word.
    if pattern.flags & re.I and set(pattern.pattern) <= FORMS.keys():
        names.append("".join(data.draw(st.sampled_from(FORMS[c])) for c in pattern.pattern))
    condition, parameters = sql_filter(pattern, "name") or ("1", [])
    with sqlite3.connect(":memory:") as con:
        con.execute("CREATE TABLE symbols (name TEXT)")
        con.executemany("INSERT INTO symbols VALUES (?)", [(name,) for name in names])
        kept = {name for (name,) in con.execute(f"SELECT name FROM symbols WHERE {condition}", parameters)}
    assert {name for name in names if pattern.search(name)} <= kept


def sym(root: Path, query: str, refresh: bool = True) -> list[tuple[str, list[int]]]:
    with Repository.open(root, create=False) as repo:
        results, _ = repo.search(language.parse(query), refresh=refresh)
        return [(path, [hit.line for hit in hits]) for path, hits in results]


def test_each_pass_keeps_the_definitions_in_step(tmp_path: Path) -> None:
    for path in ("s.py", "s.go", "s.rs"):
        (tmp_path / path).write_text(FILES[path][0])
    indexer.index(tmp_path, progress=False)
    assert sym(tmp_path, "sym:^(load|Open|build)$") == [("s.go", [9]), ("s.py", [11]), ("s.rs", [9])]
    (tmp_path / "s.py").write_text("def unload(path):\n    pass\n")
    (tmp_path / "s.go").unlink()
    # The search's own refresh brings the change in before it answers.
    assert sym(tmp_path, "sym:load") == [("s.py", [1])]
    assert sym(tmp_path, "sym:Open or sym:^build") == [("s.rs", [9])]


def test_an_index_without_definitions_says_how_to_get_them(tmp_path: Path, monkeypatch) -> None:
    (tmp_path / "s.py").write_text(FILES["s.py"][0])
    monkeypatch.setattr(symbols, "_program", lambda: None)
    indexer.index(tmp_path, progress=False)
    with pytest.raises(QueryError, match="universal-ctags"):
        sym(tmp_path, "sym:load", refresh=False)
    monkeypatch.undo()
    # An index of the form before symbols: converted, then filled by the next pass.
    with sqlite3.connect(tmp_path / ".velmora/index/index.db") as con:
        con.execute("DROP TABLE symbols")
        con.execute("UPDATE meta SET value = '4.2.0' WHERE key = 'schema_version'")
    with pytest.raises(QueryError, match="`velmora index`"):
        sym(tmp_path, "load sym:load", refresh=False)
    indexer.index(tmp_path, progress=False)
    assert sym(tmp_path, "sym:load") == [("s.py", [11])]
