"""The index narrows a search only to texts that can match, and a search equals a plain scan."""

from __future__ import annotations

import re
import sqlite3
import random
import subprocess
import sys
import textwrap
from functools import partial
from itertools import accumulate
from pathlib import Path
from types import SimpleNamespace

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from velmora.index import build as indexer
from velmora.query import prefilter, trigrams
from velmora.query.plan import plan
from velmora.search import chunk_scan
from velmora.storage import schema
from velmora.query.pattern import Query
from velmora.search.engine import search
from velmora.storage.file_rows import select_files
from velmora.storage import chunk_store
from velmora.storage import layouts, line_picks

LAYOUTS = ["code_chunks", "compressed"]
# Letters whose case rules trip a trigram index: KELVIN SIGN, dotted and dotless I, LONG S,
# sigma, accented letters, and a NUL, which the index holds as a space.
CHARS = "abcksiABKSI \u212a\u0130\u0131\u0307\u017f\u03a3\u03c3\u03c2\u00e9\u00c9\u65e5\0_(."
LINES = st.lists(st.text(st.sampled_from(CHARS), max_size=12), min_size=1, max_size=4)
LITERAL = st.sampled_from(CHARS).map(re.escape)
ATOM = st.one_of(
    LITERAL, LITERAL, LITERAL,
    st.sampled_from([".", r"\w", r"\s", r"\b", "^", "$", r"\A", r"\Z", "[ab]", "[^a]", r"\1?",
                     r"[^\W\d]", r"\S", r"[^\s\D]", r"(?(1)a|\s)"]),
    st.lists(LITERAL, min_size=1, max_size=3).map(lambda chars: "[" + "".join(chars) + "]"),
)
REGEX = st.recursive(
    ATOM,
    lambda inner: st.one_of(
        st.lists(inner, min_size=2, max_size=4).map("".join),
        st.tuples(inner, inner).map("|".join),
        st.tuples(inner, st.sampled_from(["*", "+", "?", "{2}", "{1,3}", "+?", "{0,1001}", "++"])).map("".join),
        st.tuples(st.sampled_from(["(", "(?:", "(?i:", "(?=", "(?<!", "(?>"]), inner).map(
            lambda pair: f"{pair[0]}{pair[1]})"
        ),
    ),
    max_leaves=8,
)
SETTINGS = settings(max_examples=300, deadline=None, suppress_health_check=[HealthCheck.too_slow])


def line_match(query: Query, line: str) -> int:
    if query.pattern is not None:
        found = query.pattern.search(line)
        return -1 if found is None else found.start()
    return (line if query.case_sensitive else line.lower()).find(query.needle)


def regex_query(text: str, ignore_case: bool) -> Query:
    try:
        return Query(None, re.compile(text, re.IGNORECASE if ignore_case else 0), not ignore_case)
    except re.error:
        return Query(None, None, True)


@pytest.fixture(scope="module", params=LAYOUTS)
def index(request):
    connection = sqlite3.connect(":memory:")
    layouts.named(request.param).create_tables(connection.cursor())
    table = "code_chunks" if request.param == "code_chunks" else chunk_store.TRIGRAM_TABLE
    return connection, request.param, table


def check_plan(index, query: Query, lines: list[str]) -> None:
    connection, layout, table = index
    planned = plan(query)
    text = "\n".join(lines)
    first = next((i for i, line in enumerate(lines) if line_match(query, line) >= 0), -1)
    widened = None if planned.widened is None else prefilter.widened_search(planned.widened)
    finder = chunk_scan.first_line_finder(query, planned)
    if widened is not None:
        # Every matching line is picked, the lines cut into two texts laid end to end.
        cut = len(lines) // 2
        texts = ["\n".join(part).encode() for part in ((lines[:cut], lines[cut:]) if cut else (lines,))]
        picks = line_picks.picks(b"".join(texts), list(accumulate(map(len, texts))), widened)
        picked = {i + (cut if k else 0) for k, pick in enumerate(picks) if pick for i in pick[1]}
        assert {i for i, line in enumerate(lines) if line_match(query, line) >= 0} <= picked
    elif finder is not None and first >= 0:
        # A chunk with a matching line is kept, and the lines skipped never match.
        assert 0 <= finder(text) <= first
    pair = query.needle is not None and layout == "compressed"  # looked up once stored
    match = planned.trigram_query
    if (match is None and not pair) or first < 0:
        return
    cursor = connection.cursor()
    cursor.execute("SAVEPOINT t")
    layouts.named(layout).store_chunks(cursor, 1, [(1, len(lines), text)])
    try:
        if match is None:
            terms = partial(chunk_store.pair_terms, SimpleNamespace(connection=connection))
            if (match := trigrams.pair_query(query.needle, query.case_sensitive, terms)) is None:
                return
        rows = cursor.execute(f"SELECT rowid FROM {table} WHERE {table} MATCH ?", (match,)).fetchall()
        assert rows, (match, lines)
    finally:
        cursor.execute("ROLLBACK TO t")


@SETTINGS
@given(lines=LINES, regex=REGEX, ignore_case=st.booleans())
def test_a_regex_plan_keeps_every_matching_text(index, lines, regex, ignore_case):
    query = regex_query(regex, ignore_case)
    if query.pattern is not None:
        check_plan(index, query, lines)


@SETTINGS
@given(lines=LINES, data=st.data(), ignore_case=st.booleans(), repeats=st.sampled_from([1, 12]))
def test_a_needle_plan_keeps_every_matching_text(index, lines, data, ignore_case, repeats):
    # Needles cut from the lines as they are searched, so that most of them match; repeated
    # lines give needles long enough to be read at a spread of their places.
    lines = [line * repeats for line in lines]
    line = data.draw(st.sampled_from(lines))
    line = line.lower() if ignore_case else line
    start = data.draw(st.integers(0, len(line) // repeats))
    needle = line[start : start + data.draw(st.integers(0, 6 * repeats))]
    check_plan(index, Query(needle, None, not ignore_case), lines)


LONG_SEARCH = """
import resource, sys
# A guard, far above what a search in one pass takes: planning or searching in time
# quadratic in the needle's or the text's length would take hours here.
resource.setrlimit(resource.RLIMIT_CPU, (120, 120))
from velmora.api import Repository
from velmora.query.pattern import Query
fixed = sys.argv[2] == "fixed"
with Repository.open(sys.argv[1]) as repo:
    results, _ = repo.search(Query.parse(sys.stdin.read(), fixed=fixed, ignore_case=fixed))
    print([(path, [hit.line for hit in hits]) for path, hits in results])
"""


def test_a_megabyte_needle_that_ignores_case_is_searched(tmp_path):
    # Letters whose lower case is ASCII or two characters break the needle into many runs.
    rng = random.Random(7)
    text = "".join(rng.choice("abikKsS \u0130\u212a\u00e9") for _ in range(1 << 20))
    subprocess.run(["git", "init", "-q", str(tmp_path)], check=True)
    (tmp_path / "a.txt").write_text(f"x\n{text}\ny\n", encoding="utf-8")
    (tmp_path / "b.txt").write_text(text[: 1 << 19] + "!" + text[1 << 19 :], encoding="utf-8")
    found = subprocess.run(
        [sys.executable, "-c", LONG_SEARCH, str(tmp_path), "fixed"], input=text.lower(),
        capture_output=True, text=True, encoding="utf-8",
    )
    assert (found.returncode, found.stdout) == (0, "[('a.txt', [2])]\n"), found.stderr[-500:]


def test_a_regex_whose_widened_form_could_cross_lines_is_searched_line_by_line(tmp_path):
    # Every line holds an x, only the last a y: from each line, x.*y widened to cross lines
    # would search on to the text's end.
    subprocess.run(["git", "init", "-q", str(tmp_path)], check=True)
    (tmp_path / "a.txt").write_text("x\n" * 400_000 + "x y\n")
    found = subprocess.run(
        [sys.executable, "-c", LONG_SEARCH, str(tmp_path), "regex"], input="x.*y",
        capture_output=True, text=True,
    )
    assert (found.returncode, found.stdout) == (0, "[('a.txt', [400001])]\n"), found.stderr[-500:]


# -- the whole search against a plain scan of a real tree --------------------------------------

TRICKY = (
    "café\n€5\nx = \"日本\"\n\u212aelvin and İstanbul\nΣΊΣΥΦΟΣ σίσυφος\n"
    "a\0b NUL xıkl\n\n  return self.x\n" + "filler line\n" * 70 + "last SELF line"
)
QUERIES = [
    ("fé", False, False), ("日本", False, False), ("€", False, False), ("kelvin", False, True),
    ("and i", False, True), (r"XIKL", True, True), ("σίσ", False, True), ("a\0b", False, False), ("return", False, False),
    ("self", False, True), (r"def \w+\(self", True, False), (r"^\s*return\b", True, True),
    (r"^$", True, False), (r"\Afiller", True, False), (r"(?<=\.)x\b", True, False),
    (r"[A-Z]{4,}\d?", True, False), (r"line\Z|^last", True, False), (r"wrap|Self", True, True),
]


@pytest.fixture(scope="module", params=LAYOUTS)
def tree(request, tmp_path_factory):
    root = tmp_path_factory.mktemp(request.param)
    subprocess.run(["git", "init", "-q", str(root)], check=True)
    stdlib = Path(textwrap.__file__).parent
    for name in ("textwrap.py", "shlex.py", "colorsys.py"):
        (root / name).write_bytes((stdlib / name).read_bytes())
    (root / "tricky.txt").write_text(TRICKY, encoding="utf-8")
    indexer.index(root, request.param, progress=False)
    return root


@pytest.mark.parametrize(("text", "regex", "ignore_case"), QUERIES)
@pytest.mark.parametrize("context", [0, 2])
def test_a_search_finds_what_a_plain_scan_finds(tree, text, regex, ignore_case, context):
    query = Query.parse(text, fixed=not regex, ignore_case=ignore_case)
    db = schema.open_index(schema.index_path(tree))
    try:
        results, reason = search(db, query, select_files(db), root=tree, before=context, after=context)
        got = dict(results)
    finally:
        db.close()
    assert reason is None
    expected = {}
    for path in sorted(got.keys() | {p.name for p in tree.iterdir() if p.is_file()}):
        lines = (tree / path).read_text(encoding="utf-8").splitlines()
        hits = [
            (number, column, [(n, lines[n - 1]) for n in range(max(1, number - context), number + context + 1) if n <= len(lines)])
            for number, line in enumerate(lines, 1)
            for column in (line_match(query, line),)
            if column >= 0
        ]
        if hits:
            expected[path] = hits
    assert got == expected
