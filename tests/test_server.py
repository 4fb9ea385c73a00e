"""`velmora serve`'s API, through HTTP, against a server over two repositories."""

from __future__ import annotations

import json
import os
import shutil
import signal
import socket
import sqlite3
import time
import urllib.parse
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

from live_server import get, make_repo, records, serving, workers
from velmora import cli

FILES = {
    "app.py": "import os\n\ndef needle():\n    return os.sep\n\nneedle()\n",
    "page.html": "<script>alert(1)</script>\n",
    "lib/util.txt": "the needle and the NEEDLE\n",
    "slow.txt": "a" * 64 + "\n",
}


@pytest.fixture(scope="module")
def server(tmp_path_factory):
    first = make_repo(tmp_path_factory.mktemp("first"), FILES)
    second = make_repo(tmp_path_factory.mktemp("second"), {"only.txt": "needle in second\n"})
    with serving(first, second, timeout=3) as base:
        yield base, first, second.name


def matches(found: list[dict]) -> list[tuple[str, int]]:
    return [(r["data"]["path"]["text"], r["data"]["line_number"]) for r in found
            if r["type"] == "match"]


def test_search_streams_rg_records_up_to_the_limit(server):
    base, first, second = server
    found = records(base, q="needle", context=1, repo=first.name, sort="path")
    assert [r["type"][0] for r in found] == list("bcmccmebmes")  # begin, context, match...
    assert found[2]["data"]["submatches"] == [
        {"match": {"text": "needle"}, "start": 4, "end": 10}]
    assert found[-1]["data"]["stats"]["matches"] == 3
    summary = records(base, q="needle", limit=2, repo=first.name)[-1]["data"]
    assert (summary["repo"], summary["stats"]["matches"], summary["limited"]) == (
        first.name, 2, True)
    summary = records(base, q="needle", limit=3, repo=first.name)[-1]["data"]  # as many as it holds
    assert (summary["limited"], summary["stats"]["searches"], summary["stats"]["bytes_searched"]) == (
        False, len(FILES), sum(map(len, FILES.values())))
    assert matches(records(base, q="needle", repo=second)) == [("only.txt", 1)]
    # Without repo=, in path order: every repository in turn, under one limit; each record
    # names its own.
    every = [("app.py", 3), ("app.py", 6), ("lib/util.txt", 1), ("only.txt", 1)]
    for limit in (2, 3, 4, 5):
        found = records(base, q="needle", limit=limit, sort="path")
        assert matches(found) == every[:limit]
        assert {r["data"].get("repo") for r in found[:-1]} <= {first.name, second}
        assert [r["data"]["repo"] for r in found if r["type"] == "match"][-1:] == [
            second if limit >= 4 else first.name]
        summary = found[-1]["data"]
        assert (summary["repo"], summary["stats"]["matches"], summary["limited"]) == (
            None, min(limit, 4), limit < 4)  # limited: more matched than it let through
    # Best first, the default: across the repositories (a definition, then shorter paths);
    # the limit keeps the best.
    begun = [(r["data"]["repo"], r["data"]["path"]["text"])
             for r in records(base, q="needle") if r["type"] == "begin"]
    assert begun == [(first.name, "app.py"), (second, "only.txt"), (first.name, "lib/util.txt")]
    assert matches(records(base, q="needle", limit=3)) == every[:2] + [("only.txt", 1)]
    assert matches(records(base, q="needle repo:^second")) == [("only.txt", 1)]
    status = json.loads(get(base + "api/status")[1])["repositories"]
    assert [repo["name"] for repo in status] == [first.name, second]


@pytest.mark.parametrize(("params", "lines"), [
    ({"q": "NEEDLE", "case": "0", "glob": "*.txt"}, [("lib/util.txt", 1)]),
    ({"q": "needle", "type": "py"}, [("app.py", 3), ("app.py", 6)]),
    ({"q": "need", "word": "1"}, []),
    ({"q": "os.sep", "fixed": "1"}, [("app.py", 4)]),
    ({"q": r"^\w+\(\)$"}, [("app.py", 6)]),
    ({"q": "(needle or alert) -lang:py case:no"}, [("lib/util.txt", 1), ("page.html", 1)]),
    ({"q": "os -/def/"}, []),
])
def test_options(server, params, lines):
    assert matches(records(server[0], repo=server[1].name, sort="path", **params)) == lines


def test_file_text_only_for_indexed_paths(server):
    status, body = get(server[0] + "api/file", path="page.html")
    assert status == 200 and json.loads(body)["text"] == FILES["page.html"].rstrip("\n")
    for path in ["../first/app.py", "/etc/passwd", "lib", ".git/config", "lib//util.txt"]:
        assert get(server[0] + "api/file", path=path)[0] == 404, path


@pytest.mark.parametrize(("params", "headers", "reason"), [
    ({"q": ""}, {}, "empty"),
    ({"q": "x" * 1001}, {}, "longer than"),
    ({"q": "a("}, {}, "invalid regex"),
    ({"q": "(a b"}, {}, "unbalanced parenthesis at 0"),
    ({"q": "a", "context": "-1"}, {}, "context must be"),
    ({"q": "a", "limit": "0"}, {}, "limit must be"),
    ({"q": "a", "case": "maybe"}, {}, "case must be"),
    ({"q": "a", "repo": "nowhere"}, {}, "no such repository"),
    ({"q": "a", "sort": "size"}, {}, "sort must be"),
    ({"q": "a", "type": "nonesuch"}, {}, "unrecognized file type"),
    ({"q": "a", "glob": "[z-a]"}, {}, "invalid glob"),
    ({"q": "a"}, {"Host": "attacker.example"}, "invalid host"),
    ({"q": "a"}, {"Origin": "http://attacker.example"}, "cross-origin"),
    ({"q": r"(a+)+(?=\d)"}, {}, "stopped"),  # runs for ever on slow.txt, which RE2 lets through
])
def test_bad_requests_get_a_reason(server, params, headers, reason):
    status, body = get(server[0] + "api/search", headers, **params)
    assert 400 <= status < 500 and reason in json.loads(body)["error"]
    assert len(matches(records(server[0], q="needle", repo=server[1].name))) == 3  # and it goes on


def test_killed_workers_cost_at_most_one_json_error(server):
    base = server[0]
    for worker in workers(base.pid):  # idle: replaced before the next search
        os.kill(worker, signal.SIGKILL)
    assert len(matches(records(base, q="needle", repo=server[1].name))) == 3
    with ThreadPoolExecutor() as running:
        slow = running.submit(get, base + "api/search", q=r"(a+)+(?=\d)")
        time.sleep(0.5)
        for worker in workers(base.pid):
            os.kill(worker, signal.SIGKILL)
        status, body = slow.result()
    assert status in (422, 500) and json.loads(body)["error"]
    assert len(matches(records(base, q="needle", repo=server[1].name))) == 3


def test_workers_never_import_from_the_directory_the_server_started_in(tmp_path):
    # A repository holding a folder named like a standard module, served from inside it by
    # an installed command (whose own directory, not the current one, starts its path).
    root = make_repo(tmp_path / "repo", {**FILES, "multiprocessing/__init__.py":
                                        "open(__file__ + '.ran', 'w')\nraise SystemExit(3)\n"})
    (tmp_path / "bin").mkdir()
    (tmp_path / "bin" / "velmora").write_text(
        "import sys\nfrom velmora.cli import main\nif __name__ == '__main__':\n    sys.exit(main())\n")
    with serving(root, cwd=root, launcher=[str(tmp_path / "bin" / "velmora")]) as base:
        assert len(matches(records(base, q="needle"))) == 3
    assert not (root / "multiprocessing/__init__.py.ran").exists()


def test_abandoned_searches_free_their_workers(tmp_path):
    root = make_repo(tmp_path / "repo", FILES)
    with serving(root, timeout=600) as base:
        address = urllib.parse.urlsplit(base)
        for _ in range(3):  # more than the workers, each left to run for ever
            with socket.create_connection((address.hostname, address.port)) as client:
                client.sendall(b"GET /api/search?q=(a%2B)%2B(%3F%3D%5Cd) HTTP/1.1\r\n"
                               b"Host: 127.0.0.1\r\n\r\n")
                time.sleep(0.5)
        assert len(matches(records(base, q="needle"))) == 3


def test_a_loopback_ipv6_server_over_a_root_that_is_not_utf8(tmp_path):
    root = make_repo(Path(os.fsdecode(bytes(tmp_path) + b"/root\xfe")), {"a.txt": "needle\n"})
    (root / os.fsdecode(b"bad\xffname.txt")).write_text("a needle\n")
    with serving(root, args=["--host", "::1"]) as base:
        assert base.startswith("http://[::1]:")
        assert get(base + "api/status", {"Host": "attacker.example"})[0] == 400
        status = json.loads(get(base + "api/status")[1])["repositories"][0]
        assert (status["name"], "bad\\xffname.txt" in status["report"]) == ("root\\xfe", True)
        paths = [r["data"]["path"] for r in records(base, q="needle") if r["type"] == "begin"]
        assert paths == [{"text": "a.txt"}, {"bytes": "YmFk/25hbWUudHh0"}]


def hold_the_index(root):
    """Another writer holds the index for the rest of the step."""
    holder = sqlite3.connect(root / ".velmora/index/index.db", isolation_level=None)
    holder.execute("BEGIN IMMEDIATE")
    return holder


def test_every_answer_follows_the_files(server):
    # Each step changes the tree, then searches at once: an answer must hold every change
    # saved before it was asked for, whatever became of the index.
    base, root, _ = server
    write = lambda name: (root / name).write_text("fresh = 'needle'\n")  # noqa: E731
    steps = [
        (lambda: ((root / "lib/util.txt").unlink(), write("new.py")), {"new.py"}),
        (lambda: write(".velmorarc"), {"new.py", ".velmorarc"}),  # named like the index
        (lambda: (write("pkg/deep/a.txt") if (root / "pkg/deep").mkdir(parents=True) is None else 0),
         {"new.py", ".velmorarc", "pkg/deep/a.txt"}),
        (lambda: (write("built.txt"), cli.main(["index", "--rebuild", str(root)])),
         {"new.py", ".velmorarc", "pkg/deep/a.txt", "built.txt"}),
        (lambda: (write("moved.txt"), cli.main(["index", "--layout", "code_chunks", str(root)])),
         {"new.py", ".velmorarc", "pkg/deep/a.txt", "built.txt", "moved.txt"}),
        (lambda: (shutil.rmtree(root / ".velmora"), (root / "new.py").unlink()),
         {".velmorarc", "pkg/deep/a.txt", "built.txt", "moved.txt"}),
        # A refresh that fails is not lost: the change is read from disk, then indexed.
        (lambda: (held.append(hold_the_index(root)), write("locked.txt")),
         {".velmorarc", "pkg/deep/a.txt", "built.txt", "moved.txt", "locked.txt"}),
        (lambda: held.pop().close(),
         {".velmorarc", "pkg/deep/a.txt", "built.txt", "moved.txt", "locked.txt"}),
    ]
    held: list = []
    for change, paths in steps:
        change()
        found = matches(records(base, q="needle", repo=root.name))
        assert {path for path, _ in found} == {"app.py", *paths}
