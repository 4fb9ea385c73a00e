"""``velmora search code`` speaks rg's language: each row runs the real command and rg on the
same trees (a git repository, and a tree in no repository) and compares what they print, byte
for byte, piped and, for the rows marked so, on a terminal."""

from __future__ import annotations

import json
import os
import pty
import select
import subprocess
import sys
import termios
from pathlib import Path

import pytest

from velmora import cli

# Hidden files, ignore files of every kind, a binary file and a symbolic link beside the text.
TREE = {
    "a.py": "def needle():\n    return Needle + x  # needle, needle\n\nclass Words: foo foobar\n",
    "crlf.txt": "needle one\r\nnothing\r\nNEEDLE two\r\n",
    "sub/b.txt": "a.b(c here\nfoo\nbar baar\nx\ny --not-an-option\nfoo again\n",
    "sub/deep/c.md": "needle café €\ncrème brûlée\n\n# Needle, more\n",
    "tail.txt": "first\nneedle at the end",
    ".hidden/h.py": "needle in a hidden directory\n",
    "sub/.dot.txt": "a hidden needle\n",
    ".ignore": "skipped.txt\n",
    "sub/.rgignore": "kept.txt\n!skipped.txt\n",  # .rgignore overrides, deeper overrides
    "skipped.txt": "needle that .ignore hides\n",
    "sub/skipped.txt": "needle that sub/.rgignore lets through\n",
    "sub/kept.txt": "needle that sub/.rgignore hides\n",
    ".gitignore": "*.log\n",
    "debug.log": "needle that git ignores\n",
    "image.bin": b"\x89PNG\r\n\x1a\n\0\0\xff needle \xfe\n",
}
# Oldest first, for --sort modified: not the order of the paths.
AGES = ["tail.txt", "sub/deep/c.md", "a.py", "crlf.txt", "sub/b.txt"]

PIPE, BOTH = "piped", "also on a terminal"
# (arguments, the directory it runs in, how); rg gets the same arguments.
AGREED = [
    (["needle"], "repo", BOTH),
    (["-n", "--column", "needle"], "repo", PIPE),  # columns count bytes
    (["-i", "NEEDLE"], "repo", PIPE),
    (["-S", "needle"], "repo", PIPE),
    (["-S", "Needle"], "repo", PIPE),
    (["-s", "-i", "-S", "NEEDLE"], "repo", PIPE),  # the last of the three wins
    (["-F", "a.b(c"], "repo", PIPE),
    (["-w", "foo"], "repo", PIPE),
    (["-e", "foo", "-e", "ba+r"], "repo", PIPE),
    (["-c", "-e", "[[:upper:]]{4}", "-e", "[[:^space:]]{20}"], "repo", PIPE),  # POSIX classes
    (["-F", "-e", "(c", "-e", "x"], "repo/sub", PIPE),
    (["-e", "--not-an"], "repo/sub", PIPE),
    (["-i", "--", "--NOT-an"], "repo/sub", PIPE),
    (["-l", "needle"], "repo", BOTH),
    (["-q", "needle"], "repo", PIPE),
    (["-q", "-F", "absent"], "repo", PIPE),
    (["-l", "-t", "py", "needle"], "repo", PIPE),
    (["-c", "-i", "needle"], "repo", BOTH),
    (["-c", "-v", "needle"], "repo", PIPE),
    (["-A", "1", "-n", "foo"], "repo", PIPE),
    (["-B", "2", "-C", "5", "again"], "repo", PIPE),  # -B takes precedence over -C
    (["-C", "1", "needle|foo"], "repo", BOTH),
    (["-t", "py", "-t", "md", "needle"], "repo", PIPE),
    (["-T", "py", "needle"], "repo", PIPE),
    (["-g", "*.txt", "-g", "!tail*", "needle"], "repo", PIPE),
    (["-g", "*.{md,py}", "needle"], "repo", PIPE),
    (["-l", "-g", "*e*", "-g", "!*.log", "needle"], "repo", PIPE),  # a glob matching a directory picks no file
    (["-g", "!{tail,a}.*", "needle"], "plain", PIPE),
    (["--iglob", "*.TXT", "--iglob", "!C*", "needle"], "repo", PIPE),
    (["-m", "1", "-i", "needle"], "repo", PIPE),
    (["needle", "sub", "tail.txt"], "repo", PIPE),
    (["needle", "tail.txt"], "repo", BOTH),  # one file: no file name
    (["-H", "needle", "tail.txt"], "repo", PIPE),
    (["--no-filename", "-n", "needle"], "repo", PIPE),
    (["--no-heading", "needle"], "repo", BOTH),
    (["-i", "needle"], "repo/sub", PIPE),
    (["needle", ".."], "repo/sub/deep", PIPE),
    (["-o", "-i", "needle"], "repo", PIPE),
    (["-o", "-n", "--column", "x*", "b.txt"], "repo/sub", PIPE),  # empty matches
    (["-v", "-n", "e"], "repo/sub", PIPE),
    (["-x", "foo"], "repo", PIPE),
    (["-U", "-n", "--column", "baa?r\\nx"], "repo", PIPE),
    (["-r", "<$1>", "-n", "(ne)edle"], "repo", PIPE),
    (["-o", "-r", "[$0]", "fo+"], "repo", PIPE),
    (["--vimgrep", "-w", "needle"], "repo", BOTH),
    (["--heading", "-n", "-C", "1", "needle"], "repo", PIPE),
    (["-0", "-n", "needle"], "repo", PIPE),
    (["-0", "-l", "needle"], "repo", PIPE),
    (["-0", "-c", "needle"], "repo", PIPE),
    (["--files"], "repo", BOTH),
    (["--files", "-0", "sub"], "repo", PIPE),
    (["--hidden", "needle"], "repo", PIPE),
    (["--hidden", "-g", "!*.py", "needle"], "repo", PIPE),
    (["--hidden", "needle", ".hidden"], "repo", PIPE),
    (["needle", ".hidden"], "repo", PIPE),  # a hidden path given by name is searched
    (["--no-ignore", "needle"], "repo", PIPE),
    (["-u", "-l", "needle"], "repo", PIPE),
    (["-uu", "-l", "needle"], "repo", PIPE),
    (["--max-depth", "1", "needle"], "repo", PIPE),
    (["--max-depth", "2", "-l", "needle", "sub"], "repo", PIPE),
    (["--sort", "modified", "-l", "e"], "repo", PIPE),
    (["-P", "need(?=le)"], "repo", PIPE),
    (["--json", "-C", "1", "-i", "needle|brûlée"], "repo", PIPE),  # past é, CR LF, no final LF
    (["--json", "-m", "1", "-w", "needle|foo"], "repo", PIPE),
    (["--json", ".*"], "repo/sub", PIPE),
    (["--stats", "-i", "needle", "-g", "!crlf.txt"], "repo", PIPE),  # rg prints the CR
    (["no such text"], "repo", PIPE),
    # No repository: the files are read as they are, and nothing is written.
    (["needle"], "plain", BOTH),
    (["-c", "--hidden", "needle", "."], "plain", PIPE),
    (["--files", "sub"], "plain", PIPE),
]


@pytest.fixture(scope="module")
def trees(tmp_path_factory) -> Path:
    top = tmp_path_factory.mktemp("flags")
    for name in ("repo", "plain"):
        for rel, text in TREE.items():
            path = top / name / rel
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(text if isinstance(text, bytes) else text.encode())
        for age, rel in enumerate(AGES):
            os.utime(top / name / rel, ns=(10**18 + age * 10**9,) * 2)
    os.symlink("../plain/a.py", top / "repo/link.py")
    subprocess.run(["git", "init", "-q", str(top / "repo")], check=True)
    assert cli.main(["index", str(top / "repo")]) == 0
    return top


def velmora(capsys, monkeypatch, cwd: Path, *argv: str) -> tuple[int, str, str]:
    monkeypatch.chdir(cwd)
    try:
        code = cli.main(["search", "code", "--color", "never", *argv])
    except SystemExit as exit:  # argparse's own errors
        code = exit.code
    out, err = capsys.readouterr()
    return code, out, err


def rg_argv(argv: list[str]) -> list[str]:
    sort = [] if "--sort" in argv else ["--sort", "path"]
    return ["rg", "--no-config", *sort, "--color", "never", *argv]


def comparable(out: str, argv: list[str]) -> list:
    """What both tools must agree on: times aside, and what rg read of the files (it opens
    binary files too)."""
    if "--json" not in argv:
        return [line for line in out.splitlines(True) if not line.endswith(("seconds\n", "searching\n", "searched\n"))]
    records = [json.loads(line) for line in out.splitlines()]
    for record in records:
        record["data"].pop("elapsed_total", None)
        for key in ("elapsed", "searches", "bytes_searched"):
            record["data"].get("stats", {}).pop(key, None)
    return records


def on_terminal(command: list[str], cwd: Path) -> tuple[int, bytes]:
    """What a command prints with a pseudo-terminal as its standard output, line endings
    aside (a CR before a line feed ends a line of velmora's, and is not printed)."""
    env = {**os.environ, "PYTHONPATH": str(Path(cli.__file__).parents[1])}
    main, other = pty.openpty()
    mode = termios.tcgetattr(other)
    mode[1] &= ~termios.OPOST  # the bytes as written
    termios.tcsetattr(other, termios.TCSANOW, mode)
    process = subprocess.Popen(command, cwd=cwd, stdout=other, stderr=subprocess.DEVNULL,
                               stdin=subprocess.DEVNULL, env=env)
    try:
        # Our end of the terminal stays open until all is read: a closed one may drop what the
        # command wrote last.
        chunks = []
        while (ready := select.select([main], [], [], 0.1)[0]) or process.poll() is None:
            if ready:
                chunks.append(os.read(main, 65536))
        code = process.wait()
    finally:
        process.kill()  # gone already, unless the read failed
        process.wait()
        os.close(other)
        os.close(main)
    return code, b"".join(chunks).replace(b"\r\n", b"\n")


@pytest.mark.parametrize("argv, where, how", AGREED)
def test_like_rg(trees, capsys, monkeypatch, argv, where, how):
    code, out, err = velmora(capsys, monkeypatch, trees / where, *argv)
    # Outside a repository the search says once how to index the tree.
    assert err.count("velmora index") == (where == "plain") and err.count("\n") == err.count("velmora index")
    rg = subprocess.run(rg_argv(argv), cwd=trees / where, capture_output=True, text=True)
    assert (code, comparable(out, argv)) == (rg.returncode, comparable(rg.stdout, argv))
    if how == BOTH:
        ours = [sys.executable, "-m", "velmora.cli", "search", "code", "--color", "never", *argv]
        assert on_terminal(ours, trees / where) == on_terminal(rg_argv(argv), trees / where)
    assert not (trees / "plain/.velmora").exists()


@pytest.mark.parametrize(
    "argv, message",
    [
        (["--bogus", "x"], "usage: velmora search code [OPTIONS] PATTERN [PATH ...]"),
        (["--file", "x"], "usage: velmora search code"),  # no abbreviations
        (["-m", "abc", "x"], "error: argument -m/--max-count: not a count: abc"),
        (["-C", "-1", "x"], "argument -C/--context: expected one argument"),
        (["-t", "nosuch", "x"], "velmora: error: unrecognized file type: nosuch"),
        (["-c", "--json", "x"], "not allowed with argument"),
        (["(unclosed"], "velmora: error: invalid regex '(unclosed'"),
        (["\\x{6a}("], "velmora: error: invalid regex '\\x{6a}('"),  # as given, not escaped again
        (["a\nb"], "velmora: error: a pattern holds a line feed"),
        (["-i"], "velmora: error: no pattern given"),
        (["x", "nowhere"], "velmora: error: no such file or directory: nowhere"),
        (["x", "link.py"], "velmora: error: link.py is a symbolic link out of "),
        (["--sort", "size", "x"], "argument --sort: invalid choice"),
    ],
)
def test_bad_input_is_named_in_words(trees, capsys, monkeypatch, argv, message):
    code, out, err = velmora(capsys, monkeypatch, trees / "repo", *argv)
    assert (code, out) == (2, "")
    assert message in err and err.count("\n") == (3 if "usage" in message else 1), err
    assert not (trees / "plain/.velmora").exists()


def test_case_ignoring_plain_search_reports_the_line_itself(tmp_path, capsys, monkeypatch):
    # İ lower-cases to two characters: the column and the highlight stay those of the line.
    subprocess.run(["git", "init", "-q", str(tmp_path)], check=True)
    (tmp_path / "dot.txt").write_text("İİ foo FOO\n")
    code, out, _ = velmora(capsys, monkeypatch, tmp_path, "--column", "-i", "foo")
    assert out.endswith("dot.txt:1:6:İİ foo FOO\n")  # in bytes, as rg counts
    regex = velmora(capsys, monkeypatch, tmp_path, "--column", "-i", "fo+")[1]
    assert regex.endswith(out)
    code, out, _ = velmora(capsys, monkeypatch, tmp_path, "--column", "--color", "always", "-i", "İ f")
    red, end = "\x1b[1;31m", "\x1b[0m"
    assert out == f"\x1b[35mdot.txt{end}:\x1b[32m1{end}:3:İ{red}İ f{end}oo FOO\n"


def test_type_list_is_rgs(capsys):
    assert cli.main(["search", "code", "--type-list"]) == 0
    ours = capsys.readouterr().out
    assert ours == subprocess.run(["rg", "--type-list"], capture_output=True, text=True).stdout
