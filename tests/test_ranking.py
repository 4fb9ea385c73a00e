"""Results best first: a definition, then the file's name, then whole words, then short paths."""

from __future__ import annotations

import pytest

from velmora.api import Repository
from velmora.index import build as indexer
from velmora.query import language
from velmora.query.pattern import Query

FILES = {
    "c/d.txt": "xtarget\n",
    "b.txt": "targets\n",
    "a/words.txt": "a target here\n",
    "target.txt": "the targets\n",
    "src/deep/path/defines.py": "def target():\n    pass\n",
}
BEST_FIRST = ["src/deep/path/defines.py", "target.txt", "a/words.txt", "b.txt", "c/d.txt"]


@pytest.mark.parametrize("query", [
    Query.parse("target"), language.parse("target"), language.parse("TARGET case:no"),
    language.parse("/targ[e]t/ -file:none"),
])
def test_files_come_best_first(tmp_path, query) -> None:
    for path, text in FILES.items():
        (tmp_path / path).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / path).write_text(text)
    indexer.index(tmp_path, progress=False)
    with Repository.open(tmp_path, create=False) as repo:
        assert [path for path, _ in repo.search(query, refresh=False, relevance=True)[0]] == BEST_FIRST
        assert [path for path, _ in repo.search(query, refresh=False)[0]] == sorted(FILES)
