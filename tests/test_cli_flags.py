"""``velmora search code`` speaks rg's language: each row runs the real command and rg on the
same git tree and compares what they print."""

from __future__ import annotations

import json
import subprocess
from pathlib import Path

import pytest

from velmora import cli

# No hidden files but the index: rg skips hidden files, velmora indexes them.
TREE = {
    "a.py": "def needle():\n    return Needle + x  # needle, needle\n\nclass Words: foo foobar\n",
    "crlf.txt": "needle one\r\nnothing\r\nNEEDLE two\r\n",
    "sub/b.txt": "a.b(c here\nfoo\nbar baar\nx\ny --not-an-option\nfoo again\n",
    "sub/deep/c.md": "needle café €\ncrème brûlée\n\n# Needle, more\n",
    "tail.txt": "first\nneedle at the end",
}

# (arguments, the directory it runs in); rg gets the same arguments.
AGREED = [
    (["needle"], "."),
    (["-i", "NEEDLE"], "."),
    (["-S", "needle"], "."),
    (["-S", "Needle"], "."),
    (["-s", "-i", "-S", "NEEDLE"], "."),  # the last of the three wins
    (["-F", "a.b(c"], "."),
    (["-w", "foo"], "."),
    (["-e", "foo", "-e", "ba+r"], "."),
    (["-F", "-e", "(c", "-e", "x"], "sub"),
    (["-i", "--", "--NOT-an"], "sub"),
    (["-l", "needle"], "."),
    (["-c", "-i", "needle"], "."),
    (["-A", "1", "foo"], "."),
    (["-B", "2", "-C", "5", "again"], "."),  # -B takes precedence over -C
    (["-C", "1", "needle|foo"], "."),
    (["-t", "py", "-t", "md", "needle"], "."),
    (["-T", "py", "needle"], "."),
    (["-g", "*.txt", "-g", "!tail*", "needle"], "."),
    (["-m", "1", "-i", "needle"], "."),
    (["needle", "sub", "tail.txt"], "."),
    (["-i", "needle"], "sub"),
    (["needle", ".."], "sub/deep"),
    # Columns count characters, rg's bytes: the JSON's byte offsets are compared instead.
    (["--json", "-C", "1", "-i", "needle|brûlée"], "."),  # past é, CR LF, no final LF
    (["--json", "-m", "1", "-w", "needle|foo"], "."),
    (["--stats", "-i", "needle", "-g", "!crlf.txt"], "."),  # rg prints the CR
    (["no such text"], "."),
]


@pytest.fixture(scope="module")
def repo(tmp_path_factory) -> Path:
    root = tmp_path_factory.mktemp("flags")
    subprocess.run(["git", "init", "-q", str(root)], check=True)
    for rel, text in TREE.items():
        (root / rel).parent.mkdir(parents=True, exist_ok=True)
        (root / rel).write_bytes(text.encode())
    assert cli.main(["index", str(root)]) == 0
    return root


def velmora(capsys, monkeypatch, cwd: Path, *argv: str) -> tuple[int, str, str]:
    monkeypatch.chdir(cwd)
    try:
        code = cli.main(["search", "code", "--color", "never", *argv])
    except SystemExit as exit:  # argparse's own errors
        code = exit.code
    out, err = capsys.readouterr()
    return code, out, err


def comparable(out: str, argv: list[str]) -> list:
    """What both tools must agree on: times aside, and how much of the files rg read."""
    if "--json" not in argv:
        return [line for line in out.splitlines() if "seconds" not in line]
    records = [json.loads(line) for line in out.splitlines()]
    for record in records:
        record["data"].pop("elapsed_total", None)
        for key in ("elapsed", "searches", "bytes_searched"):
            record["data"].get("stats", {}).pop(key, None)
    return records


@pytest.mark.parametrize("argv, where", AGREED)
def test_like_rg(repo, capsys, monkeypatch, argv, where):
    code, out, err = velmora(capsys, monkeypatch, repo / where, *argv)
    assert err == ""
    rg = subprocess.run(
        ["rg", "--no-config", "--sort", "path", "--color", "never", "-n", "--column", *argv],
        cwd=repo / where, capture_output=True, text=True,
    )
    assert (code, comparable(out, argv)) == (rg.returncode, comparable(rg.stdout, argv))


@pytest.mark.parametrize(
    "argv, message",
    [
        (["--bogus", "x"], "usage: velmora search code [OPTIONS] PATTERN [PATH ...]"),
        (["-m", "abc", "x"], "error: argument -m/--max-count: not a count: abc"),
        (["-C", "-1", "x"], "not a count: -1"),
        (["-t", "nosuch", "x"], "velmora: error: unrecognized file type: nosuch"),
        (["-c", "--json", "x"], "not allowed with argument"),
        (["(unclosed"], "velmora: error: invalid regex '(unclosed'"),
        (["-i"], "velmora: error: no pattern given"),
        (["x", "nowhere"], "velmora: error: no such file or directory: nowhere"),
        (["x", ".", "/"], "velmora: error: / is outside the repository at "),
    ],
)
def test_bad_input_is_named_in_words(repo, capsys, monkeypatch, argv, message):
    code, out, err = velmora(capsys, monkeypatch, repo, *argv)
    assert (code, out) == (2, "")
    assert message in err and err.count("\n") == (3 if "usage" in message else 1), err


def test_case_ignoring_plain_search_reports_the_line_itself(tmp_path, capsys, monkeypatch):
    # İ lower-cases to two characters: the column and the highlight stay those of the line.
    subprocess.run(["git", "init", "-q", str(tmp_path)], check=True)
    (tmp_path / "dot.txt").write_text("İİ foo FOO\n")
    code, out, _ = velmora(capsys, monkeypatch, tmp_path, "-i", "foo")
    assert out.endswith("dot.txt:1:4:İİ foo FOO\n")
    regex = velmora(capsys, monkeypatch, tmp_path, "-i", "fo+")[1]
    assert regex.endswith(out)
    code, out, _ = velmora(capsys, monkeypatch, tmp_path, "--color", "always", "-i", "İ f")
    red, end = "\x1b[1;31m", "\x1b[0m"
    assert out == f"\x1b[35mdot.txt{end}:\x1b[32m1{end}:2:İ{red}İ f{end}oo FOO\n"


def test_type_list_is_rgs(capsys):
    assert cli.main(["search", "code", "--type-list"]) == 0
    ours = capsys.readouterr().out
    assert ours == subprocess.run(["rg", "--type-list"], capture_output=True, text=True).stdout
