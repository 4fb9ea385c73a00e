"""Hostile trees and tampered indexes through the real CLI: one clear line and exit 2, no
read outside the repository, no hang."""

from __future__ import annotations

import errno
import os
import re
import socket
import sqlite3
import subprocess
import sys
from contextlib import suppress
from pathlib import Path
from unittest import mock

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from velmora import api, cli
from velmora.query.pattern import Query
from velmora.storage import database as db, file_rows, schema
from velmora.utils.fsio import is_plain_relative

BIG_JSON = "[\n" + ",\n".join(f'  "value {i}"' for i in range(3000)) + "\n]\n"


def velmora(*argv: str | Path, cwd: Path, text: bool = True) -> subprocess.CompletedProcess:
    # A separate process: a hang or a crash must fail this test, not stop the suite.
    return subprocess.run(
        [sys.executable, "-m", "velmora.cli", *map(str, argv)],
        cwd=cwd, capture_output=True, text=text, timeout=120,
        env={**os.environ, "PYTHONPATH": str(Path(cli.__file__).parents[1])},
    )


@pytest.fixture
def repo(tmp_path: Path) -> Path:
    root = tmp_path / "repo"
    (root / "sub").mkdir(parents=True)
    (root / "a.py").write_text("def secret_name():\n    return 1\n" * 3000 + "the_end = 2\n")  # the_end: its last chunk
    (root / "sub" / "data.json").write_text(BIG_JSON)  # its text stays on disk
    subprocess.run(["git", "init", "-q", str(root)], check=True)
    assert velmora("index", cwd=root).returncode == 0
    return root


@pytest.mark.parametrize("layout", ["code_chunks", "compressed"])
@pytest.mark.parametrize("statements", [
    ["UPDATE chunk_text SET body = x'00ff'"],  # not a zstd frame
    ["UPDATE chunk_text SET body = x'28b52ffde00000000000000400010000'"],  # claims a petabyte
    ["UPDATE chunk_text SET body = 7"],
    ["UPDATE code_chunks SET start_line = NULL"],
    ["UPDATE chunk_text SET start_line = 'one'"],
    ["UPDATE code_chunks SET start_line = 'one'"],
    ["UPDATE files SET size = 'big', mtime_ns = 'late'"],
    ["UPDATE meta SET value = 'soon' WHERE key = 'last_run_ns'"],
    ["UPDATE files SET path = '/etc/hostname' WHERE path = 'sub/data.json'"],
    ["UPDATE files SET path = '../outside.json' WHERE path = 'sub/data.json'"],
    ["UPDATE files SET path = 'sub/../../outside.json' WHERE path = 'a.py'"],  # a file of chunks
    ["DELETE FROM code_chunks WHERE rowid = (SELECT max(rowid) FROM code_chunks WHERE rowid < 2097152)"],  # a.py's last
    ["DELETE FROM chunk_text WHERE id = (SELECT max(id) FROM chunk_text WHERE id < 2097152)"],
    ["UPDATE code_chunks SET start_line = start_line + 100"],  # lines past the file's end
    ["UPDATE chunk_text SET start_line = start_line + 100"],
])
def test_a_tampered_index_is_named_in_one_line(repo, capsys, layout, statements):
    (repo.parent / "outside.json").write_text('["value 1 outside"]\n')
    assert cli.main(["index", "--layout", layout, str(repo)]) == 0
    try:
        with sqlite3.connect(schema.index_path(repo)) as connection:
            for statement in statements:
                connection.execute(statement)
    except sqlite3.OperationalError:
        pytest.skip("a table of the other layout")
    for argv in (["--no-refresh", "secret"], ["--no-refresh", "the_end"], ["--no-refresh", "t.e.e.d"],
                 ["--no-refresh", "value 1"], ["value 1"]):
        capsys.readouterr()
        code = cli.main(["search", "code", *argv, str(repo)])
        out, err = capsys.readouterr()
        assert "outside" not in out and os.uname().nodename not in out
        assert code in (0, 2), err
        if code == 2:
            assert err.count("\n") == 1 and "velmora index --rebuild" in err, err
    with api.Repository.open(repo) as opened, suppress(api.RepositoryError, sqlite3.DatabaseError):
        assert opened.indexed_text("a.py").endswith("the_end = 2")  # a file read whole: all of it, or the error
    assert cli.main(["index", str(repo)]) in (0, 2)  # it mends the rows, or names the fix


QUERY = Query.parse("secret_name")


@pytest.mark.parametrize("call, error, words", [
    (lambda repo: repo.search(QUERY, globs="*.py"), TypeError, "globs"),
    (lambda repo: repo.search(QUERY, globs=None), TypeError, "globs"),
    (lambda repo: repo.search(QUERY, paths="sub"), TypeError, "paths"),
    (lambda repo: repo.matching_lines(QUERY, types="py"), TypeError, "types"),
    (lambda repo: repo.files(globs=[b"*.py"]), TypeError, "globs"),
    (lambda repo: repo.search(QUERY, before="2"), TypeError, "before"),
    (lambda repo: repo.search(QUERY, max_count=-1), ValueError, "max_count"),
    (lambda repo: repo.search("secret_name"), TypeError, "query"),
    (lambda repo: repo.search(QUERY, globs=["[z-a]"]), ValueError, "invalid glob '[z-a]'"),
    (lambda repo: repo.indexed_text(5), TypeError, "path"),
    (lambda repo: repo.indexed_text("\udcff"), KeyError, None),
    (lambda repo: len(list(repo.search(QUERY, max_count=2**70)[0])), None, None),
])
def test_the_python_api_names_a_wrong_argument(repo, call, error, words):
    with api.Repository.open(repo) as opened:
        if error is None:
            assert call(opened) == 1
            return
        with pytest.raises(error, match=words and re.escape(words)):
            call(opened)


@pytest.mark.parametrize("git", [True, False])
@pytest.mark.parametrize("flags", [[], ["-g", "*.txt"]])
def test_odd_file_names_are_searched(tmp_path, git, flags):
    names = [b"weird\\name.txt", b"bad\xffname.txt", b"ok.txt"]
    for name in names:
        (tmp_path / os.fsdecode(name)).write_bytes(b"needle\n")
    (tmp_path / ".ignore").write_text("other\n")  # its rules are checked against every name
    if git:
        subprocess.run(["git", "init", "-q", str(tmp_path)], check=True)
    else:  # a tree in no repository is searched directly until it is indexed
        assert velmora("search", "code", "-l", "needle", cwd=tmp_path, text=False).returncode == 0
        velmora("index", cwd=tmp_path)
    found = velmora("search", "code", "-l", *flags, "needle", cwd=tmp_path, text=False)
    assert sorted(found.stdout.splitlines()) == sorted(names), found.stderr
    assert "\tbad\\xffname.txt\n" in velmora("status", cwd=tmp_path).stdout


@pytest.mark.parametrize("argv, words", [
    (["search", "code", "a{99999999999}"], ""),
    (["search", "code", "(" * 3000 + ")" * 3000], ""),
    (["search", "code", "(?<x"], ""),
    (["search", "code", "-g", "[z-a]", "x"], "invalid glob '[z-a]'"),
    (["search", "code", "-g", "\\", "x"], "invalid glob"),
    (["search", "code", "-g", "*.{md", "x"], "invalid glob '*.{md'"),
    (["serve", "--port", "99999"], "port 99999 is out of range"),
    (["serve", "--port", "{busy}"], "is in use"),
])
def test_bad_input_is_one_line_and_exit_2(repo, argv, words):
    with socket.create_server(("127.0.0.1", 0)) as busy:
        port = str(busy.getsockname()[1])
        done = velmora(*[arg.replace("{busy}", port) for arg in argv], cwd=repo)
    assert (done.returncode, done.stderr.count("\n")) == (2, 1), done.stderr  # no traceback
    assert words in done.stderr and "serving" not in done.stderr


@pytest.mark.parametrize("output, words", [
    ("/dev/full", "No space left on device"),
    (None, "standard output is closed"),
])
def test_output_that_cannot_be_written_is_one_line(repo, output, words):
    with open(output or os.devnull, "w") as sink:
        done = subprocess.run(
            [sys.executable, "-m", "velmora.cli", "search", "code", "secret_name"], cwd=repo,
            stdout=sink, stderr=subprocess.PIPE, text=True,
            preexec_fn=None if output else lambda: os.close(1),
            env={**os.environ, "PYTHONPATH": str(Path(cli.__file__).parents[1])},
        )
    assert (done.returncode, done.stderr) == (2, f"velmora: error: {words}\n")


def test_a_read_only_repository_is_searched_from_disk(repo, capsys):
    (repo / "new.txt").write_text("secret_name, new\n")
    real_open = os.open

    def read_only(path, flags, *args, **options):
        if flags & (os.O_WRONLY | os.O_RDWR):
            raise OSError(errno.EROFS, os.strerror(errno.EROFS), path)
        return real_open(path, flags, *args, **options)

    with mock.patch("os.open", read_only):
        assert cli.main(["search", "code", "-l", "secret_name", str(repo)]) == 0
    out, err = capsys.readouterr()
    assert out.splitlines() == [f"{repo}/a.py", f"{repo}/new.txt"]
    assert "taken from disk: the index cannot be written" in err


@pytest.mark.parametrize("refresh", [[], ["--no-refresh"]])
def test_reads_stay_in_the_repository_and_never_block(repo, tmp_path, refresh):
    outside = tmp_path / "outside"
    outside.mkdir()
    (outside / "data.json").write_text('["value 1 outside"]\n')
    os.rename(repo / "sub", tmp_path / "moved")
    (repo / "sub").symlink_to(outside, target_is_directory=True)
    done = velmora("search", "code", *refresh, "value 1", cwd=repo)
    assert (done.returncode, done.stdout) == (1, ""), done.stderr

    (repo / "sub").unlink()
    (repo / "sub").mkdir()
    os.mkfifo(repo / "sub" / "data.json")  # opened blocking, this would wait for a writer
    done = velmora("search", "code", *refresh, "value 1", cwd=repo)
    assert (done.returncode, done.stdout) == (1, ""), done.stderr


@pytest.mark.parametrize("error, code, words", [
    (None, 2, "another process is writing the index (database is locked)"),
    (sqlite3.DatabaseError("database disk image is malformed"), 2, "velmora index --rebuild"),
    (sqlite3.OperationalError("no such column: size"), 2, "velmora index --rebuild"),
    (KeyboardInterrupt(), 130, "interrupted"),
])
def test_errors_the_run_meets_are_reported(repo, monkeypatch, capsys, error, code, words):
    holder = sqlite3.connect(schema.index_path(repo), isolation_level=None)
    if error is None:  # a writer holding the whole file past the readers' wait
        monkeypatch.setattr(db, "BUSY_SECONDS", 0.01)
        holder.execute("PRAGMA locking_mode = EXCLUSIVE")
        holder.execute("BEGIN EXCLUSIVE")
    else:
        monkeypatch.setattr(cli.Repository, "_searched", mock.Mock(side_effect=error))
    assert cli.main(["search", "code", "x", str(repo)]) == code
    holder.close()
    assert words in capsys.readouterr().err


@settings(deadline=None)
@given(st.text(alphabet="a./\\\0", max_size=8) | st.sampled_from([None, 5, b"a"]))
def test_the_index_path_rule_is_one_rule(path):
    # The search finds unsafe paths in SQL; the readers check them in Python.
    with sqlite3.connect(":memory:") as connection:
        connection.execute("CREATE TABLE files (path)")
        connection.execute("INSERT INTO files VALUES (?)", (path,))
        assert bool(connection.execute(file_rows.UNSAFE_PATH_SQL).fetchall()) != is_plain_relative(path)
