"""A search answers for the tree as it is now, whatever was edited after indexing."""

from __future__ import annotations

import contextlib
import os
import sqlite3
import stat
import subprocess
import tempfile
import time
from itertools import count
from unittest import mock
from pathlib import Path

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import live_server
from velmora import cli, native
from velmora.api import Repository
from velmora.index import build as indexer, freshness, safety
from velmora.storage import schema

BINARY = b"needle\0\xff"
NAMES = ["a.txt", "b.py", "sub/c.md", "sub/deep/d.txt", "e.json"]
LINES = st.lists(st.sampled_from(["needle", "a needle here", "hay", "nee dle", "NEEDLE", ""]),
                 max_size=4)
EDITS = st.lists(st.one_of(
    st.tuples(st.just("write"), st.sampled_from(NAMES), LINES),
    st.tuples(st.just("delete"), st.sampled_from(NAMES), st.none()),
    st.tuples(st.just("binary"), st.sampled_from(NAMES), st.none()),
    st.tuples(st.just("ignore"), st.sampled_from(NAMES), st.none()),
), max_size=6)


def plain_scan(root: Path, needle: str) -> list[str]:
    """grep over the files git lists, text files only, lines as str.splitlines counts them."""
    listed = subprocess.run(
        ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
        cwd=root, capture_output=True, check=True,
    ).stdout.decode().split("\0")
    found = []
    for path in sorted(p for p in listed if p and os.path.isfile(root / p)):
        data = (root / path).read_bytes()
        if b"\0" in data:
            continue
        for number, line in enumerate(data.decode().splitlines(), 1):
            if needle in line:
                found.append(f"{path}:{number}:{line.index(needle) + 1}:{line}")
    return found


def search(root: Path, *argv: str) -> tuple[list[str], str]:
    # Files, not strings: a server's worker writes to the client's output itself.
    with tempfile.TemporaryFile("w+") as out, tempfile.TemporaryFile("w+") as err:
        with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err), contextlib.chdir(root):
            cli.main(["search", "code", "--color", "never", "--column", "--hidden", *argv])
        out.seek(0)
        err.seek(0)
        return out.read().splitlines(), err.read()


def edit(root: Path, edits, mtimes=None) -> None:
    """Apply the edits; with ``mtimes``, each written file gets the next, long past."""
    for action, name, lines in edits:
        path = root / name
        if action == "delete":
            path.unlink(missing_ok=True)
        elif action == "ignore":
            (root / ".gitignore").write_text(name + "\n")
        else:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(BINARY if action == "binary" else "\n".join(lines).encode())
            if mtimes is not None:  # past the racy window: only the stat can tell the change
                os.utime(path, ns=(next(mtimes),) * 2)


@pytest.fixture(scope="module")
def served(tmp_path_factory):
    root = tmp_path_factory.mktemp("served")
    subprocess.run(["git", "init", "-q", str(root)], check=True)
    edit(root, [("write", name, ["needle"]) for name in NAMES])
    with live_server.background(root):
        yield root


# Beside the others: a file named like the index's directory, and one in a new directory.
@settings(deadline=None, max_examples=20)
@given(edits=st.lists(st.tuples(
    st.sampled_from(["write", "delete", "binary", "ignore"]),
    st.sampled_from([*NAMES, ".velmorarc", "new/dir/f.txt"]), LINES), max_size=6))
def test_a_server_answers_for_the_tree_as_saved_before_the_search(served, edits):
    edit(served, edits)
    with mock.patch.dict(os.environ, {"VELMORA_NO_SERVER": ""}), \
            mock.patch.object(Repository, "open", None):  # only the server can answer
        assert search(served, "needle")[0] == plain_scan(served, "needle")


def test_an_index_held_open_follows_a_conversion(tmp_path, capsys):
    # As a server's worker holds it: the search is told the index is up to date.
    subprocess.run(["git", "init", "-q", str(tmp_path)], check=True)
    (tmp_path / "a.txt").write_text("needle\n")
    assert cli.main(["index", str(tmp_path)]) == 0
    with Repository.at(tmp_path, create=False) as repo:
        for layout in ["code_chunks", "compressed", "code_chunks"]:
            assert cli.main(["index", "--layout", layout, str(tmp_path)]) == 0
            capsys.readouterr()
            assert cli.main(["search", "code", "-l", "needle", str(tmp_path)],
                            served=lambda root: (repo, True)) == 0
            assert capsys.readouterr().out == f"{tmp_path}/a.txt\n"


def test_one_index_pass_at_a_time(tmp_path):
    subprocess.run(["git", "init", "-q", str(tmp_path)], check=True)
    (tmp_path / "a.txt").write_text("needle\n")
    assert cli.main(["index", str(tmp_path)]) == 0
    with safety.pass_lock(schema.index_path(tmp_path), wait=False, say=False):
        with pytest.raises(safety.IndexBusy):
            indexer.index(tmp_path, wait=False)
        (tmp_path / "b.txt").write_text("a needle\n")
        # A search does not wait for the other pass: it reads the new file itself.
        assert search(tmp_path, "needle")[0] == plain_scan(tmp_path, "needle")
    assert indexer.index(tmp_path, wait=False).added == 1


@pytest.mark.parametrize("layout", ["code_chunks", "compressed"])
@settings(deadline=None, max_examples=25,
          suppress_health_check=[HealthCheck.function_scoped_fixture, HealthCheck.too_slow])
@given(edits=EDITS, old_mtimes=st.booleans(), index_busy=st.booleans())
def test_search_equals_a_plain_scan_after_edits(layout, edits, old_mtimes, index_busy):
    mtimes = count(time.time_ns() - 10**12, 10**9)
    with tempfile.TemporaryDirectory() as tmp:
        root = Path(tmp)
        subprocess.run(["git", "init", "-q", str(root)], check=True)
        for name in NAMES:
            (root / name).parent.mkdir(parents=True, exist_ok=True)
            # e.json starts binary: left out, then maybe rewritten in place as text.
            text = f"needle in {name}\nhay\n".encode()
            (root / name).write_bytes(BINARY if name == "e.json" else text)
        assert cli.main(["index", "--layout", layout, str(root)]) == 0
        edit(root, edits, mtimes if old_mtimes else None)
        if index_busy:
            with sqlite3.connect(schema.index_path(root)) as connection:
                connection.execute("INSERT OR REPLACE INTO meta VALUES ('pass_in_progress', '1')")
        written = schema.index_path(root).stat().st_mtime_ns

        stale = search(root, "--no-refresh", "needle")[0]
        found, err = search(root, "needle")
        assert found == plain_scan(root, "needle")
        if index_busy:  # the changed files were read from disk, said so, the index left alone
            assert schema.index_path(root).stat().st_mtime_ns == written
            assert found == stale or "index pass" in err
        assert search(root, "needle")[0] == found  # the same once brought up to date

        (root / "sub").mkdir(exist_ok=True)
        with contextlib.chdir(root / "sub"):
            cli.main(["search", "code", "--no-refresh", "needle"])
        assert not (root / "sub" / ".velmora").exists()  # the repository's index, not a new one


def test_a_file_in_a_new_directory_beside_directories_only(tmp_path):
    subprocess.run(["git", "init", "-q", str(tmp_path)], check=True)
    (tmp_path / "pkg/sub").mkdir(parents=True)
    (tmp_path / "pkg/sub/a.txt").write_text("needle\n")
    assert cli.main(["index", str(tmp_path)]) == 0
    for directory in (tmp_path, tmp_path / "pkg", tmp_path / "pkg/sub"):  # settled long ago
        os.utime(directory, ns=(time.time_ns() - 10**12,) * 2)
    assert search(tmp_path, "needle")[0] == ["pkg/sub/a.txt:1:1:needle"]  # records the listing
    (tmp_path / "pkg/new").mkdir()
    (tmp_path / "pkg/new/b.txt").write_text("needle\n")
    assert search(tmp_path, "needle")[0] == ["pkg/new/b.txt:1:1:needle", "pkg/sub/a.txt:1:1:needle"]


def test_no_refresh_answers_from_the_index_as_it_is(tmp_path, capsys):
    subprocess.run(["git", "init", "-q", str(tmp_path)], check=True)
    (tmp_path / "gone.txt").write_text("needle\n")
    assert cli.main(["index", str(tmp_path)]) == 0
    (tmp_path / "gone.txt").unlink()
    assert search(tmp_path, "--no-refresh", "needle")[0] == ["gone.txt:1:1:needle"]
    assert search(tmp_path, "needle")[0] == []


def recorded_change(prefix: str, row: tuple, racy_from: int) -> int:
    """What the native check tells of one row, as os.lstat tells it."""
    path, size, mtime_ns, inode = row
    try:
        info = os.lstat(prefix + path)
    except (OSError, ValueError, TypeError):
        return 2
    stamp = (info.st_size, info.st_mtime_ns, info.st_ino) != (size, mtime_ns, inode) or (
        isinstance(mtime_ns, int) and mtime_ns >= racy_from
    )
    return (0 if stat.S_ISREG(info.st_mode) else 4) | stamp


def test_the_native_stat_check_tells_what_lstat_tells(tmp_path: Path) -> None:
    (tmp_path / "sub").mkdir()
    (tmp_path / "f").write_text("text")
    (tmp_path / "link").symlink_to("f")
    info = os.lstat(tmp_path / "f")
    size, mtime, inode = info.st_size, info.st_mtime_ns, info.st_ino
    rows = [
        ("f", size, mtime, inode), ("f", size + 1, mtime, inode), ("f", size, mtime - 1, inode),
        ("f", size, mtime, inode + 1), ("f", "big", "late", inode), ("f", size, mtime, 2**70),
        ("sub", size, mtime, inode), ("link", size, mtime, inode), ("gone", size, mtime, inode),
        (5, size, mtime, inode), ("f\0x", size, mtime, inode), ("\udcff", size, mtime, inode),
    ]
    prefix = f"{tmp_path}/"
    for racy_from in (mtime + 1, mtime):
        expected = bytes(recorded_change(prefix, row, racy_from) for row in rows)
        assert native.stat_changes(prefix, rows, racy_from) == expected


def test_a_tree_as_it_was_indexed_holds_no_change(tmp_path: Path) -> None:
    subprocess.run(["git", "init", "-q", str(tmp_path)], check=True)
    (tmp_path / "a.txt").write_text("needle\n")
    (tmp_path / "b.bin").write_bytes(BINARY)
    (tmp_path / "link").symlink_to("a.txt")
    for name in ("a.txt", "b.bin", "link"):  # long settled: not within the racy margin of the pass
        os.utime(tmp_path / name, ns=(10**18, 10**18), follow_symlinks=False)
    assert cli.main(["index", str(tmp_path)]) == 0
    db = schema.open_index(schema.index_path(tmp_path))
    try:
        assert not freshness.check(db, tmp_path)
    finally:
        db.close()
