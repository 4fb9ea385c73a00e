"""``velmora index`` and ``velmora search code`` end to end, against a plain disk scan."""

from __future__ import annotations

import contextlib
import hashlib
import json
import os
import re
import sqlite3
import subprocess
import sys
import textwrap
from contextlib import closing
from pathlib import Path

import pytest

import live_server
from velmora import cli
from velmora.api import Repository
from velmora.index import build as indexer
from velmora.search.reach import Reach
from velmora.storage import schema
from velmora.storage import chunk_store

LAYOUTS = ["code_chunks", "compressed"]
STDLIB = Path(textwrap.__file__).parent

# Relative path -> content.  Real code from the standard library beside the awkward cases:
# CR LF, a lone CR, NUL inside text, non-ASCII, an empty file, and a large json file whose
# text the index keeps on disk.
FILES: dict[str, str | bytes] = {
    "lib/textwrap.py": (STDLIB / "textwrap.py").read_bytes(),
    "lib/shlex.py": (STDLIB / "shlex.py").read_bytes(),
    "lib/colorsys.py": (STDLIB / "colorsys.py").read_bytes(),
    "crlf.txt": "first line\r\nSecond Line needle\r\nthird\r\n",
    "cr.txt": "alpha\rbeta needle\rgamma",
    "nul.c": "int a = 0;\0/* needle after NUL */\nreturn wrap_text;\n",
    "unicode.md": "École NEEDLE été\nΣίσυφος ΣΊΣΥΦΟΣ\n100% of a_b width\n",
    "empty.txt": "",
    "data/big.json": "{\n" + ",\n".join(f'  "key{i}": "value {i} needle"' for i in range(2000)) + "\n}\n",
    "data/small.json": '{"needle": 1, "Wrap": true}\n',
    ".gitignore": "*.log\nbuild/\n",
}
NOT_INDEXED = {
    "debug.log": "needle in an ignored file\n",
    "build/out.txt": "needle in an ignored dir\n",
    "image.png": b"\x89PNG\r\n\x1a\n\0\0\0\rIHDR needle \xff\xfe",
}

QUERIES = [
    ([], "needle"),
    ([], "wrap"),  # common
    ([], "ab"),  # too short for the trigram index
    ([], "% of a_b"),  # LIKE wildcards taken literally
    ([], "élé"),  # not there: été is
    ([], "ΣΊΣ"),
    (["-i"], "NEEDLE"),
    (["-i"], "σίσ"),
    (["-i"], "École"),
    ([], r"def \w+\(self"),
    (["-i"], r"^\s*RETURN\b"),
    ([], r"^$"),  # empty lines, an empty match at column 1
    (["-C", "2"], "needle"),
    (["-C", "3", "-i"], "width"),
    (["-C", "4"], "wrap|self"),  # context across chunk edges
]


def write_tree(root: Path, files: dict[str, str | bytes]) -> None:
    for rel, content in files.items():
        path = root / rel
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content if isinstance(content, bytes) else content.encode())


@pytest.fixture
def repo(tmp_path: Path, monkeypatch) -> Path:
    root = tmp_path / "repo"
    root.mkdir()
    subprocess.run(["git", "init", "-q", str(root)], check=True)
    write_tree(root, FILES | NOT_INDEXED)
    monkeypatch.chdir(root)  # paths print relative to the current directory
    return root


@pytest.fixture(params=["in-process", "server"])
def through(request, monkeypatch):
    """Starts nothing (searches run in this process), or a background server for the
    repository it is given, which every search after must go through."""
    with contextlib.ExitStack() as stack:
        def start(root: Path) -> None:
            if request.param == "server":
                monkeypatch.delenv("VELMORA_NO_SERVER")
                monkeypatch.setattr(Repository, "open", None)  # no search in this process
                stack.enter_context(live_server.background(root))

        yield start


def disk_scan(root: Path, paths, args: list[str], query: str) -> list[dict]:
    """What a search must find: every file read whole, line by line."""
    ignore_case = "-i" in args
    context = int(args[args.index("-C") + 1]) if "-C" in args else 0
    found = []
    for path in sorted(paths):
        lines = (root / path).read_bytes().decode("utf-8", "replace").splitlines()
        for number, line in enumerate(lines, 1):
            if not set(query).isdisjoint(".^$*+?{}[]\\|()"):
                match = re.search(query, line, re.IGNORECASE if ignore_case else 0)
                column = match.start() if match else -1
            elif ignore_case:
                column = line.lower().find(query.lower())
            else:
                column = line.find(query)
            if column >= 0:
                records = [
                    {"line": n, "content": lines[n - 1]}
                    for n in range(max(1, number - context), min(len(lines), number + context) + 1)
                ]
                found.append({"path": path, "line": number, "column": column + 1, "context": records})
    return found


def run(capsys, *argv: str | Path) -> tuple[int, str, str]:
    code = cli.main([str(a) for a in argv])
    out, err = capsys.readouterr()
    return code, out, err


def search_json(capsys, args: list[str], query: str) -> list[dict]:
    code, out, err = run(capsys, "search", "code", "--json", *args, "--", query)
    assert "read from the files on disk" not in err
    found = json_hits(out, args)
    assert code == (0 if found else 1), err
    return found


def json_hits(out: str, args: list[str]) -> list[dict]:
    """rg's JSON lines read back as disk_scan gives matches, each with its context."""
    context = int(args[args.index("-C") + 1]) if "-C" in args else 0
    found, lines = [], {}
    for record in map(json.loads, out.splitlines()):
        data = record["data"]
        if record["type"] == "begin":
            lines = {}
        elif record["type"] in ("match", "context"):
            text = data["lines"]["text"]
            lines[data["line_number"]] = (text.splitlines() or [""])[0]
            if record["type"] == "match":
                start = data["submatches"][0]["start"]
                found.append((data["path"]["text"], data["line_number"], len(text.encode()[:start].decode()) + 1, lines))
    return [
        {"path": path, "line": number, "column": column, "context": [
            {"line": n, "content": shown[n]} for n in range(number - context, number + context + 1) if n in shown
        ]}
        for path, number, column, shown in found
    ]


def files_table(root: Path) -> dict[str, tuple[str, int]]:
    with closing(sqlite3.connect(schema.index_path(root))) as con:
        return {p: (lang, on_disk) for p, lang, on_disk in con.execute("SELECT path, language, text_on_disk FROM files")}


@pytest.mark.parametrize("layout", LAYOUTS)
def test_index_and_search_follow_the_files(repo, capfd, layout, through):
    code, _, err = run(capfd, "index", "--layout", layout, repo)
    assert code == 0
    assert re.fullmatch(
        rf"indexed {len(FILES)} files \({len(FILES)} added, 0 changed, 0 removed\): \d+ chunks, "
        rf"[\d.]+ MB written, 1 kept on disk, {layout} layout, [\d.]+ s\n",
        err,
    )
    table = files_table(repo)
    assert set(table) == set(FILES) and table["lib/shlex.py"] == ("python", 0)
    assert (table["data/big.json"], table["data/small.json"]) == (("json", 1), ("json", 0))

    for args, query in QUERIES:
        assert search_json(capfd, args, query) == disk_scan(repo, FILES, args, query), (args, query)

    # Change, add and delete a file; a new index pass touches only those.
    (repo / "lib/colorsys.py").write_text("def rgb_to_needle(r, g, b):\n    return wrap(r)\n")
    (repo / "added.py").write_text("NEEDLE = 'wrap'\n" * 70)
    (repo / "lib/shlex.py").unlink()
    code, _, err = run(capfd, "index", repo)
    assert code == 0
    assert f"({1} added, {1} changed, {1} removed)" in err
    assert f"{layout} layout" in err
    paths = set(FILES) - {"lib/shlex.py"} | {"added.py"}
    assert set(files_table(repo)) == paths
    through(repo)
    for args, query in QUERIES:
        assert search_json(capfd, args, query) == disk_scan(repo, paths, args, query), (args, query)

    code, _, err = run(capfd, "index", repo)
    assert "(0 added, 0 changed, 0 removed): 0 chunks" in err


def test_switching_layout_rebuilds_the_chunks(repo, capsys):
    run(capsys, "index", "--layout", "code_chunks", repo)
    code, _, err = run(capsys, "index", "--layout", "compressed", repo)
    assert f"(0 added, {len(FILES)} changed, 0 removed)" in err
    assert "compressed layout" in err
    assert search_json(capsys, ["-i"], "NEEDLE") == disk_scan(repo, FILES, ["-i"], "NEEDLE")


def test_text_output_like_grep(repo, capsys):
    (repo / "ctx.txt").write_text("".join(f"line {n}{' hit' if n in (3, 5, 12) else ''}\n" for n in range(1, 16)))
    code, out, err = run(capsys, "search", "code", "--column", "-C", "1", "--glob", "ctx.txt", "hit")
    assert code == 0
    assert "indexed" in err  # there was no index yet: it is made first
    assert out == (
        "ctx.txt-2-line 2\nctx.txt:3:8:line 3 hit\nctx.txt-4-line 4\nctx.txt:5:8:line 5 hit\n"
        "ctx.txt-6-line 6\n--\nctx.txt-11-line 11\nctx.txt:12:9:line 12 hit\nctx.txt-13-line 13\n"
    )
    code, out, _ = run(capsys, "search", "code", "--column", "--color", "always", "-g", "cr.txt", "needle")
    assert out == "\x1b[35mcr.txt\x1b[0m:\x1b[32m2\x1b[0m:6:beta \x1b[1;31mneedle\x1b[0m\n"


@pytest.mark.parametrize("layout", LAYOUTS)
def test_max_count_stops_within_and_across_chunks(repo, capfd, layout, through):
    (repo / "many.txt").write_text("".join(f"hit {n}\n" for n in range(1, 201)))
    run(capfd, "index", "--layout", layout, repo)
    through(repo)
    for count in (0, 3, 64, 70, 500):
        code, out, _ = run(capfd, "search", "code", "--column", "-g", "many.txt", "-m", str(count), "hit")
        assert out == "".join(f"many.txt:{n}:1:hit {n}\n" for n in range(1, min(count, 200) + 1))
        assert code == (0 if count else 1)


def test_globs_and_max_count(repo, capfd, through):
    run(capfd, "index", repo)
    through(repo)
    code, out, _ = run(capfd, "search", "code", "--column", "-g", "data/*", "-g", "!*big*", "-m", "1", "e")
    assert out == 'data/small.json:1:4:{"needle": 1, "Wrap": true}\n'
    code, out, _ = run(capfd, "search", "code", "-n", "-m", "2", "needle", "-g", "*.json")
    assert [line.split(":")[:2] for line in out.splitlines()] == [["data/big.json", "2"], ["data/big.json", "3"], ["data/small.json", "1"]]
    code, out, _ = run(capfd, "search", "code", "no such text anywhere")
    assert (code, out) == (1, "")


def test_missing_chunks_make_the_search_read_the_disk(repo, capsys):
    run(capsys, "index", "--layout", "code_chunks", repo)
    con = sqlite3.connect(schema.index_path(repo))
    (file_id,) = con.execute("SELECT id FROM files WHERE path = 'crlf.txt'").fetchone()
    with con:
        con.execute("DELETE FROM code_chunks WHERE rowid = ?", (file_id * chunk_store.CHUNK_STRIDE,))
    con.close()
    code, out, err = run(capsys, "search", "code", "--json", "-i", "needle")
    assert err == (
        "velmora: read from the files on disk: 1 indexed file(s) have no chunks yet "
        "(the next index pass parses them)\n"
    )
    assert json_hits(out, ["-i"]) == disk_scan(repo, FILES, ["-i"], "needle")


def db_digest(root: Path) -> str:
    return hashlib.sha256(schema.index_path(root).read_bytes()).hexdigest()


@pytest.mark.parametrize(
    "argv, message",
    [
        (["search", "code", "(unclosed", "{repo}"], "velmora: error: invalid regex '(unclosed'"),
        (["search", "code", "x", "{repo}/nowhere"], "velmora: error: no such file or directory: "),
        (["index", "{repo}/nowhere"], "velmora: error: no such repository: "),
    ],
)
def test_bad_input_writes_nothing(repo, capsys, argv, message):
    code, out, err = run(capsys, *[a.format(repo=repo) for a in argv])
    assert (code, out) == (2, "")
    assert err.startswith(message)
    assert not (repo / ".velmora").exists()


@pytest.mark.parametrize("version", ["3.2.0", "4.4.0", "2.9.1", "banana"])
def test_an_index_of_another_schema_is_refused(repo, capsys, version):
    run(capsys, "index", repo)
    con = sqlite3.connect(schema.index_path(repo))
    with con:
        con.execute("UPDATE meta SET value = ? WHERE key = 'schema_version'", (version,))
    con.close()
    before = db_digest(repo)
    for argv in (["index", repo], ["search", "code", "needle", repo]):
        code, out, err = run(capsys, *argv)
        assert (code, out) == (2, "")
        assert err.startswith("velmora: error: ") and ("schema" in err or "version" in err)
    assert db_digest(repo) == before


def test_walk_without_git_honours_gitignore(tmp_path):
    root = tmp_path / "plain"
    write_tree(root, {
        "a.py": "", "skip.log": "", "sub/.gitignore": "*.txt\n!keep.txt\n", "sub/x.txt": "",
        "sub/keep.txt": "", "sub/deep/y.txt": "", "build/z.py": "", ".git/config": "",
        ".gitignore": "*.log\n[z-a]\nfoo\\\nbuild/\n",  # lines git cannot read are passed over
    })
    deep = root
    for _ in range(1100):  # deeper than Python's recursion
        deep /= "d"
        deep.mkdir()
    (deep / "deep.py").write_text("")
    try:
        assert sorted(indexer._walk_files(root)) == [
            ".gitignore", "a.py", "d/" * 1100 + "deep.py", "sub/.gitignore", "sub/keep.txt",
        ]
        # A tree in no repository is walked by the search itself, as deep.
        assert "d/" * 1100 + "deep.py" in [row.path for row in Reach().walk(root, [])]
    finally:  # removed level by level: the fixture's cleanup recurses
        (deep / "deep.py").unlink()
        while deep != root:
            deep.rmdir()
            deep = deep.parent


def test_the_command_runs_as_a_program(repo):
    done = subprocess.run(
        [sys.executable, "-m", "velmora.cli", "search", "code", "--column", "-g", "cr.txt", "needle"],
        capture_output=True, text=True, cwd=repo,
        env={**os.environ, "PYTHONPATH": str(Path(cli.__file__).parents[1])},
    )
    assert (done.returncode, done.stdout) == (0, "cr.txt:2:6:beta needle\n")
