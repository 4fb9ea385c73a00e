"""Answers a parsed query over one repository's index: which files it holds for, and the
lines to show in them."""

from __future__ import annotations

from collections.abc import Collection, Iterator
from pathlib import Path

from velmora.output.line_format import column_in_line
from velmora.query.language import And, Not, Or, Parsed, Term
from velmora.query.pattern import QueryError
from velmora.search.engine import Hit, search
from velmora.storage import layouts, schema, symbol_store
from velmora.storage.database import Database
from velmora.storage.file_rows import FileRow, Files

Rows = list[FileRow]


def evaluate(
    db: Database,
    parsed: Parsed,
    files: Files,
    *,
    root: Path,
    repo: str,
    from_disk: Collection[int] = frozenset(),
    before: int = 0,
    after: int = 0,
    max_count: int | None = None,
) -> tuple[Iterator[tuple[str, list[Hit]]], str | None]:
    """The files the query holds for, by path, each with the lines that match one of its
    text terms (none for a query of fields only), and why files were read from disk."""
    single = parsed.single_text
    if single is not None:
        # A lone pattern answers as the plain search of it does.
        return search(db, single.query, files, root=root, before=before, after=after,
                      max_count=max_count, from_disk=from_disk)
    reasons: list[str] = []
    holding = _Holding(db, root, parsed, repo, from_disk, reasons)
    held = holding.rows(parsed.expr, list(files))

    def per_file() -> Iterator[tuple[str, list[Hit]]]:
        if parsed.lists_files:
            yield from ((row.path, []) for row in held)
            return
        found = _lines(holding, parsed.shown_terms(), held, before, after, max_count)
        for row in held:
            yield row.path, found.get(row.path, [])

    return per_file(), reasons[0] if reasons else None


class _Holding:
    """Which of some files a node of the query holds for. Each node is asked only about the
    files still in question: a conjunction hands each term the files the earlier ones kept,
    and looks at its fields, which cost no read, before its text terms."""

    def __init__(
        self, db: Database, root: Path, parsed: Parsed, repo: str, from_disk: Collection[int],
        reasons: list[str],
    ) -> None:
        self.db, self.root, self.parsed, self.repo = db, root, parsed, repo
        self.from_disk, self.reasons = from_disk, reasons
        self.defined: dict[Term, dict[int, list[tuple[int, str]]]] = {}

    def definitions(self, term: Term) -> dict[int, list[tuple[int, str]]]:
        """The files that define a symbol the sym: term names, with the lines it is defined on."""
        if term not in self.defined:
            if schema.get_meta(self.db, symbol_store.MARK) is None:
                raise QueryError(
                    f"sym: at {term.at} needs the definitions of every file, which this index "
                    "lacks: `velmora index` extracts them with universal-ctags (`ctags`)"
                )
            self.defined[term] = symbol_store.defining(self.db, term.pattern)
        return self.defined[term]

    def rows(self, node, within: Rows) -> Rows:
        if not within:
            return within
        if isinstance(node, Term):
            return self.term(node, within)
        if isinstance(node, Not):
            held = {row.id for row in self.rows(node.node, within)}
            return [row for row in within if row.id not in held]
        if isinstance(node, And):
            for child in sorted(node.nodes, key=self.cost):
                within = self.rows(child, within)
            return within
        assert isinstance(node, Or)
        kept: set[int] = set()
        rest = within
        for child in sorted(node.nodes, key=self.cost):
            kept.update(row.id for row in self.rows(child, rest))
            rest = [row for row in rest if row.id not in kept]
        return [row for row in within if row.id in kept]

    def cost(self, node) -> int:
        """How much asking ``node`` costs: 0 for a test of names alone, 1 for a read."""
        if isinstance(node, Term):
            return int(node.field == "content" or node.field == "text" and not self.parsed.files_only)
        if isinstance(node, Not):
            return self.cost(node.node)
        return max(map(self.cost, node.nodes))

    def term(self, term: Term, within: Rows) -> Rows:
        field = term.field
        if field == "text" and not self.parsed.files_only or field == "content":
            results, reason = search(
                self.db, term.query, within, root=self.root, max_count=1, from_disk=self.from_disk
            )
            if reason:
                self.reasons.append(reason)
            held = {path for path, _ in results}
            return [row for row in within if row.path in held]
        if field == "repo":
            return within if term.pattern.search(self.repo) else []
        if field == "lang":
            of_type = term.of_type
            return [row for row in within if of_type(row.path)]
        if field == "sym":
            defined = self.definitions(term)
            return [row for row in within if row.id in defined]
        # file:, or a bare term when the query asks for file names
        found = term.pattern.search
        return [row for row in within if found(row.path)]


def _lines(
    holding: _Holding, terms: list[Term], held: Rows, before: int, after: int,
    max_count: int | None,
) -> dict[str, list[Hit]]:
    """The lines of the files ``held`` that match one of ``terms`` (for sym:, that define
    what it names), as one search of them all would give them."""
    db, root, from_disk = holding.db, holding.root, holding.from_disk
    if len(terms) == 1 and terms[0].field != "sym":
        results, _ = search(db, terms[0].query, held, root=root, before=before, after=after,
                            max_count=max_count, from_disk=from_disk)
        return dict(results)
    merged: dict[str, dict[int, Hit]] = {}
    for term in terms:
        if term.field == "sym":
            results = _definition_hits(db, root, holding.definitions(term), held, before, after)
        else:
            results, _ = search(db, term.query, held, root=root, before=before, after=after,
                                from_disk=from_disk)
        for path, hits in results:
            lines = merged.setdefault(path, {})
            for hit in hits:
                # Columns as offsets in the line itself, whatever case rule found them.
                text = hit.context[hit.line - hit.context[0][0]][1]
                column = hit.column if term.field == "sym" else column_in_line(term.query, text, hit.column)
                known = lines.get(hit.line)
                if known is None or column < known.column:
                    lines[hit.line] = Hit(hit.line, column, hit.context)
    return {
        path: [lines[number] for number in sorted(lines)][:max_count]
        for path, lines in merged.items()
    }


def _definition_hits(
    db: Database, root: Path, defined: dict[int, list[tuple[int, str]]], held: Rows,
    before: int, after: int,
) -> Iterator[tuple[str, list[Hit]]]:
    """The definition lines of a sym: term in the files ``held``, as hits whose column is
    the name's."""
    rows = [row for row in held if row.id in defined]
    if not rows:
        return
    source, _ = layouts.text_source(db, root, None, True)
    for row in rows:
        lines = source.lines(row.id, row.path)
        hits: dict[int, Hit] = {}
        for number, name in defined[row.id]:
            if number > len(lines) or number in hits:
                continue  # the file changed since its definitions were taken; or a second name
            low, high = max(1, number - before), min(len(lines), number + after)
            context = [(line, lines[line - 1]) for line in range(low, high + 1)]
            hits[number] = Hit(number, max(0, lines[number - 1].find(name)), context)
        yield row.path, list(hits.values())
