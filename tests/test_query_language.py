"""The search box's query language: its answers equal a plain evaluation over the files on disk."""

from __future__ import annotations

import re
from pathlib import Path

import pytest
from hypothesis import given
from hypothesis import strategies as st

from test_freshness import search as cli_search
from velmora.api import Repository
from velmora.index import build as indexer
from velmora.query import language
from velmora.query.pattern import QueryError

FILES = {
    "a.py": "alpha = 1\nbeta gamma\n",
    "b.md": "# Gamma\nalpha beta gamma\ndelta\n",
    "sub/c.py": "def delta():\n    return ALPHA\n",
    "sub/d.txt": "beta\n",
    "sub/deep/e.rs": "fn alpha() {}\n// Beta delta\n",
    "f.txt": "nothing here\n",
}
# (as typed, field, text, regex): each kind of term the language has.
TERMS = [
    ("alpha", "text", "alpha", False),
    ("Gamma", "text", "Gamma", False),
    ('"beta gamma"', "text", "beta gamma", False),
    ('"a \\"q"', "text", 'a "q', False),
    ("/de[l]ta/", "text", "de[l]ta", True),
    ("be.a", "text", "be.a", True),
    ("content:delta", "content", "delta", False),
    ("file:sub/", "file", "sub/", True),
    ("file:\\.py$", "file", "\\.py$", True),
    ("lang:py", "lang", "py", False),
    ("lang:md", "lang", "md", False),
    ("sym:alpha", "sym", "alpha", True),
    ("sym:^[dG]", "sym", "^[dG]", True),
]
# What universal-ctags finds in FILES: (line, name) of each definition.
DEFINED = {"a.py": [(1, "alpha")], "b.md": [(1, "Gamma")], "sub/c.py": [(1, "delta")],
           "sub/deep/e.rs": [(1, "alpha")]}
_LANG = {"py": ".py", "md": ".md"}


@pytest.fixture(scope="module")
def tree(tmp_path_factory: pytest.TempPathFactory) -> Path:
    root = tmp_path_factory.mktemp("tree")
    for path, text in FILES.items():
        (root / path).parent.mkdir(parents=True, exist_ok=True)
        (root / path).write_text(text)
    indexer.index(root, progress=False)
    return root


def nodes() -> st.SearchStrategy:
    leaves = st.sampled_from(TERMS)
    return st.recursive(
        leaves,
        lambda inner: st.one_of(
            st.tuples(st.just("not"), inner),
            st.tuples(st.sampled_from(["and", "or"]), st.lists(inner, min_size=2, max_size=3)),
        ),
        max_leaves=6,
    )


def typed(node, top: bool = True) -> str:
    if node[0] == "not":
        return "-" + typed(node[1], top=False)
    if node[0] in ("and", "or"):
        text = (" or " if node[0] == "or" else " ").join(typed(child, top=False) for child in node[1])
        return text if top else f"({text})"
    return node[0]


class Oracle:
    """The query evaluated as written, over the files' text read from disk."""

    def __init__(self, root: Path, case: str | None, files_only: bool) -> None:
        self.texts = {path: (root / path).read_text().splitlines() for path in FILES}
        self.case, self.files_only = case, files_only

    def matcher(self, field: str, text: str, regex: bool):
        ignore = self.case == "no" or self.case == "auto" and not any(c.isupper() for c in text)
        return re.compile(text if regex else re.escape(text), re.IGNORECASE if ignore else 0).search

    def holds(self, node, path: str) -> bool:
        kind = node[0]
        if kind == "not":
            return not self.holds(node[1], path)
        if kind in ("and", "or"):
            results = [self.holds(child, path) for child in node[1]]
            return all(results) if kind == "and" else any(results)
        _, field, text, regex = node
        if field == "lang":
            return path.endswith(_LANG[text])
        found = self.matcher(field, text, regex)
        if field == "sym":
            return any(found(name) for _, name in DEFINED.get(path, []))
        if field == "file" or field == "text" and self.files_only:
            return bool(found(path))
        return any(found(line) for line in self.texts[path])

    def shown(self, node, negated: bool = False) -> list:
        if node[0] == "not":
            return self.shown(node[1], not negated)
        if node[0] in ("and", "or"):
            return [term for child in node[1] for term in self.shown(child, negated)]
        return [node] if node[1] in ("content", "text", "sym") and not negated else []

    def lines(self, path: str, term) -> set[int]:
        found = self.matcher(*term[1:])
        if term[1] == "sym":
            return {line for line, name in DEFINED.get(path, []) if found(name)}
        return {n for n, line in enumerate(self.texts[path], 1) if found(line)}

    def answer(self, node) -> list[tuple[str, list[int]]]:
        shown = [] if self.files_only else self.shown(node)
        return [
            (path, sorted(set().union(*(self.lines(path, term) for term in shown))))
            for path in sorted(FILES)
            if self.holds(node, path)
        ]


@given(node=nodes(), case=st.sampled_from([None, "yes", "no", "auto"]), files_only=st.booleans())
def test_answers_as_evaluated_on_disk(tree: Path, node, case: str | None, files_only: bool) -> None:
    text = typed(node) + (f" case:{case}" if case else "") + (" type:file" if files_only else "")
    with Repository.open(tree, create=False) as repo:
        results, _ = repo.search(language.parse(text), refresh=False)
        got = [(path, [hit.line for hit in hits]) for path, hits in results]
    assert got == Oracle(tree, case, files_only).answer(node), text


@pytest.mark.parametrize("query", ["alpha", "de[l]ta", "gamma", "-w beta", "-i GAMMA", "-S Beta"])
def test_a_lone_pattern_answers_as_the_plain_search(tree: Path, query: str) -> None:
    *options, pattern = query.split()
    assert cli_search(tree, *options, "--query", pattern) == cli_search(tree, *options, pattern)


@pytest.mark.parametrize("query, message", [
    ("alpha (beta", "unbalanced parenthesis at 6"),
    ("alpha) beta", "unbalanced parenthesis at 5"),
    ("or alpha", "'or' without a term before it at 0"),
    ("alpha or", "'or' without a term after it at 8"),
    ("alpha ( )", "nothing between parentheses at 6"),
    ('x "open', "unterminated quoted string at 2"),
    ("a file:", "file: needs a value at 2"),
    ("a case:maybe", "case: takes yes or no or auto"),
    ("(a case:no)", "applies to the whole query"),
    ("a -case:no", "'-' must come before a term, a field or a group at 2"),
    ("a lang:nosuch", "unrecognized file type: nosuch"),
    ("a file:x(", "invalid regex 'x(' at 2"),
    ("case:no", "the query has no term"),
    ("a sym:b\ud800", "not valid UTF-8 at 2"),
])
def test_a_malformed_query_says_where(tree: Path, query: str, message: str) -> None:
    with pytest.raises(QueryError, match=re.escape(message)):
        with Repository.open(tree, create=False) as repo:
            list(repo.search(language.parse(query), refresh=False)[0])


def test_the_command_lists_files_for_fields_alone(tree: Path) -> None:
    assert cli_search(tree, "--query", "lang:py -alpha")[0] == ["sub/c.py"]
    assert cli_search(tree, "--query", "(")[1].startswith("velmora: error: unbalanced parenthesis at 0")
