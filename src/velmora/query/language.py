"""The search box's query language: terms, fields, `or`, `-` and parentheses, parsed into a tree.

    handler lang:py -file:tests/ (sym:main or "entry point") case:no

Terms separated by spaces must all hold for a file; `or` between two terms (or groups)
needs either; `-` before a term, field or group negates it. A term is a bare word (plain
text, or a regex when it has regex syntax), a "quoted string" (plain text; \\" and \\\\ escaped)
or a /regex/. Fields: file: (a path regex), lang: (a file type), repo: (a repository's
name), sym: (a defined symbol's name), content: (text only), case:yes|no|auto and
type:file (file names only). Errors name the character offset where the query went wrong.
"""

from __future__ import annotations

import re
from dataclasses import dataclass
from functools import cached_property

from velmora.query import file_types
from velmora.query.pattern import Query, QueryError, has_regex_syntax, has_upper

# The fields whose value is a pattern, and the settings that apply to the whole query.
PATTERN_FIELDS = ("file", "lang", "repo", "sym", "content")
SETTINGS = ("case", "type")
_FIELD = re.compile(rf"({'|'.join(PATTERN_FIELDS + SETTINGS)}):")
_CASES = ("yes", "no", "auto")


@dataclass(frozen=True)
class Term:
    """One term: ``field`` is one of PATTERN_FIELDS, or "text" for a bare, quoted or /regex/
    term (the file's text, or under type:file its path)."""

    field: str
    text: str
    regex: bool
    ignore_case: bool
    word: bool
    at: int

    def __reduce__(self):
        # Sent to a server's worker without its compiled forms: a type's test does not pickle.
        return (Term, (self.field, self.text, self.regex, self.ignore_case, self.word, self.at))

    @cached_property
    def query(self) -> Query:
        """The term as a search of lines."""
        try:
            return Query.parse(self.text, fixed=not self.regex, ignore_case=self.ignore_case, word=self.word)
        except QueryError as error:
            raise QueryError(f"{error} (at {self.at})") from None

    @cached_property
    def pattern(self) -> re.Pattern[str]:
        """The term as a regex over a name (a path, a symbol, a repository)."""
        source = self.text if self.regex else re.escape(self.text)
        try:
            return re.compile(source, re.IGNORECASE if self.ignore_case else 0)
        except (re.error, OverflowError, RecursionError) as error:
            raise QueryError(f"invalid regex {self.text!r} at {self.at}: {error}") from None

    @cached_property
    def of_type(self):
        """For lang:, the test of a path's type."""
        try:
            return file_types.matcher([self.text])
        except file_types.UnknownType as error:
            raise QueryError(f"{error} (at {self.at})") from None


@dataclass(frozen=True)
class Not:
    node: Node


@dataclass(frozen=True)
class And:
    nodes: tuple[Node, ...]


@dataclass(frozen=True)
class Or:
    nodes: tuple[Node, ...]


Node = Term | Not | And | Or


@dataclass(frozen=True)
class Parsed:
    """A parsed query: its tree, and whether it asks for file names only."""

    expr: Node
    files_only: bool

    def shown_terms(self) -> list[Term]:
        """The terms whose lines are shown, those that are not negated: the file's text
        that they match, and the definitions of sym: terms (under type:file, what they find
        in names ranks the files)."""
        found: list[Term] = []
        shown = ("content", "sym", "text")

        def walk(node: Node, negated: bool) -> None:
            if isinstance(node, Term):
                if not negated and node.field in shown:
                    found.append(node)
            elif isinstance(node, Not):
                walk(node.node, not negated)
            else:
                for child in node.nodes:
                    walk(child, negated)

        walk(self.expr, False)
        return found

    @property
    def lists_files(self) -> bool:
        """Whether the answer is file names alone: no term shows a line."""
        return self.files_only or not self.shown_terms()

    def shown_query(self) -> Query:
        """One query that finds every match shown, for highlighting and match offsets."""
        terms = self.shown_terms()
        if len(terms) == 1:
            return terms[0].query
        sources = [_source(term) for term in terms] or ["(?!)"]
        return Query(None, re.compile("|".join(sources)), True)

    @property
    def single_text(self) -> Term | None:
        """The query's one term when it is a lone search of text: it answers as a plain
        search of that pattern does."""
        expr = self.expr
        if isinstance(expr, Term) and expr.field in ("text", "content") and not self.files_only:
            return expr
        return None


def _source(term: Term) -> str:
    source = term.text if term.regex else re.escape(term.text)
    if term.word:
        source = rf"(?<!\w)(?:{source})(?!\w)"
    return f"(?i:{source})" if term.ignore_case else f"(?:{source})"


def parse(text: str, *, fixed: bool = False, word: bool = False, case: str = "yes") -> Parsed:
    """The query ``text``. ``fixed`` takes bare words as plain text, ``word`` matches text
    terms as whole words, ``case`` (yes, no or auto) is the case rule unless the query has
    a case: field."""
    parser = _Parser(text, fixed)
    expr = parser.expression(top=True)
    case = parser.settings.get("case", case)
    files_only = parser.settings.get("type") == "file"
    if expr is None:
        raise QueryError("the query has no term to search for")
    parsed = Parsed(_resolved(expr, case, word), files_only)
    _check(parsed.expr)
    return parsed


def _resolved(node: Node, case: str, word: bool) -> Node:
    """The tree with each term's case rule and word rule settled."""
    if isinstance(node, Term):
        ignore = case == "no" or case == "auto" and not has_upper(node.text, not node.regex)
        matches_text = node.field in ("text", "content")
        return Term(node.field, node.text, node.regex, ignore, word and matches_text, node.at)
    if isinstance(node, Not):
        return Not(_resolved(node.node, case, word))
    return type(node)(tuple(_resolved(child, case, word) for child in node.nodes))


def _check(node: Node) -> None:
    """Compiles every term, so that a bad one is reported before any search."""
    if isinstance(node, Term):
        if node.field == "lang":
            node.of_type  # noqa: B018 - read for the error it raises
        elif node.field in ("text", "content"):
            node.query  # noqa: B018
        else:
            node.pattern  # noqa: B018
            if not node.text.isascii():
                try:
                    node.text.encode("utf-8")  # names are looked up in the index as text
                except UnicodeEncodeError:
                    raise QueryError(f"the pattern is not valid UTF-8 at {node.at}") from None
    elif isinstance(node, Not):
        _check(node.node)
    else:
        for child in node.nodes:
            _check(child)


class _Parser:
    """Recursive descent over the query's characters: `or` binds looser than juxtaposition,
    which binds looser than `-`."""

    def __init__(self, text: str, fixed: bool) -> None:
        self.text, self.fixed, self.at = text, fixed, 0
        self.settings: dict[str, str] = {}
        self.depth = 0

    def error(self, what: str, at: int) -> QueryError:
        return QueryError(f"{what} at {at}")

    def skip_spaces(self) -> None:
        while self.at < len(self.text) and self.text[self.at].isspace():
            self.at += 1

    def at_or(self) -> bool:
        end = self.at + 2
        return self.text.startswith("or", self.at) and (
            end == len(self.text) or self.text[end].isspace() or self.text[end] in "()"
        )

    def expression(self, *, top: bool = False) -> Node | None:
        branches: list[Node | None] = []
        start = self.at
        while True:
            branches.append(self.conjunction())
            self.skip_spaces()
            if not self.at_or():
                break
            if branches[-1] is None:
                raise self.error("'or' without a term before it", self.at)
            self.at += 2
            self.skip_spaces()
            if self.at == len(self.text) or self.text[self.at] == ")":
                raise self.error("'or' without a term after it", self.at)
        if self.at < len(self.text):
            # Only a closing parenthesis stops a conjunction.
            if top:
                raise self.error("unbalanced parenthesis", self.at)
        if any(branch is None for branch in branches) and len(branches) > 1:
            raise self.error("'or' beside a setting alone", start)
        present = [branch for branch in branches if branch is not None]
        if not present:
            return None
        return present[0] if len(present) == 1 else Or(tuple(present))

    def conjunction(self) -> Node | None:
        nodes: list[Node] = []
        while True:
            self.skip_spaces()
            if self.at == len(self.text) or self.text[self.at] == ")" or self.at_or():
                break
            node = self.unary()
            if node is not None:
                nodes.append(node)
        if not nodes:
            return None
        return nodes[0] if len(nodes) == 1 else And(tuple(nodes))

    def unary(self) -> Node | None:
        start = self.at
        text = self.text
        if text[self.at] == "-" and self.at + 1 < len(text) and not text[self.at + 1].isspace():
            self.at += 1
            if text[self.at] == ")" or _FIELD.match(text, self.at) and _setting(text, self.at):
                raise self.error("'-' must come before a term, a field or a group", start)
            node = self.unary()
            assert node is not None
            return Not(node)
        if text[self.at] == "(" and _word_end(text, self.at)[1]:
            self.at += 1
            self.depth += 1
            inner = self.expression()
            if self.at == len(text):
                raise self.error("unbalanced parenthesis", start)
            self.at += 1  # the ")"
            self.depth -= 1
            if inner is None:
                raise self.error("nothing between parentheses", start)
            return inner
        field = _FIELD.match(text, self.at)
        if field:
            name = field.group(1)
            self.at = field.end()
            if self.at == len(text) or text[self.at].isspace() or text[self.at] == ")":
                raise self.error(f"{name}: needs a value", start)
            value, how = self.value()
            if name in SETTINGS:
                self.setting(name, value, start)
                return None
            # A name is matched by a regex unless quoted; text, as the CLI takes a pattern.
            regex = how == "regex" or how == "bare" and (
                has_regex_syntax(value) if name == "content" else name != "lang"
            ) and not (name == "content" and self.fixed)
            return Term(name, value, regex, False, False, start)
        value, how = self.value()
        regex = how == "regex" or how == "bare" and not self.fixed and has_regex_syntax(value)
        return Term("text", value, regex, False, False, start)

    def setting(self, name: str, value: str, start: int) -> None:
        """Records case: or type:, which apply to the whole query."""
        allowed = _CASES if name == "case" else ("file",)
        if value not in allowed:
            raise self.error(f"{name}: takes {' or '.join(allowed)}, not {value!r},", start)
        if self.depth:
            raise self.error(f"{name}: applies to the whole query, not inside parentheses;", start)
        self.settings[name] = value

    def value(self) -> tuple[str, str]:
        """A quoted string, a /regex/ or a bare word at the current offset, and which of
        these it is ("quoted", "regex" or "bare")."""
        text, start = self.text, self.at
        if text[start] == '"':
            return self.quoted(), "quoted"
        if text[start] == "/":
            end = _regex_end(text, start)
            if end is not None:
                self.at = end + 1
                return text[start + 1 : end], "regex"
        return self.bare_word(), "bare"

    def quoted(self) -> str:
        text, start = self.text, self.at
        out: list[str] = []
        at = start + 1
        while at < len(text):
            char = text[at]
            if char == '"':
                self.at = at + 1
                return "".join(out)
            if char == "\\" and at + 1 < len(text) and text[at + 1] in '"\\':
                at += 1
                char = text[at]
            out.append(char)
            at += 1
        raise self.error("unterminated quoted string", start)

    def bare_word(self) -> str:
        start = self.at
        self.at, _ = _word_end(self.text, start)
        return self.text[start : self.at]


def _word_end(text: str, start: int) -> tuple[int, int]:
    """Where a bare word that begins at ``start`` ends, and how many of its parentheses it
    leaves open. A parenthesis belongs to the word when the word balances it (`main()`,
    `(a+)+`); an unopened ")" ends the word, and closes a group."""
    at, depth = start, 0
    while at < len(text) and not text[at].isspace():
        char = text[at]
        if char == "\\":
            at += 2
            continue
        if char == "(":
            depth += 1
        elif char == ")":
            if depth == 0:
                break
            depth -= 1
        at += 1
    return min(at, len(text)), depth


def _regex_end(text: str, start: int) -> int | None:
    """The offset of the "/" that closes a /regex/ opened at ``start``, when one does: it must
    end the word (a path such as /usr/bin is a bare word)."""
    at = start + 1
    while at < len(text):
        if text[at] == "\\":
            at += 2
            continue
        if text[at] == "/":
            after = at + 1
            if at > start + 1 and (after == len(text) or text[after].isspace() or text[after] == ")"):
                return at
            return None
        at += 1
    return None


def _setting(text: str, at: int) -> bool:
    field = _FIELD.match(text, at)
    return field is not None and field.group(1) in SETTINGS
