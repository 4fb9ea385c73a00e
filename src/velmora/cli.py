"""The ``velmora`` command."""

from __future__ import annotations

import argparse
import functools
import gc
import os
import sqlite3
import sys
from collections.abc import Sequence
from pathlib import Path
from typing import TYPE_CHECKING

from velmora import schema
from velmora.api import Repository, RepositoryError, find_root
from velmora.search import Hit, Query, QueryError

if TYPE_CHECKING:
    import json

_PATH, _NUMBER, _MATCH, _RESET = "\x1b[35m", "\x1b[32m", "\x1b[1;31m", "\x1b[0m"


class UsageError(Exception):
    """Bad input from the user: reported in one line, exit status 2."""


def main(argv: Sequence[str] | None = None) -> int:
    parser = _parser()
    args, extra = parser.parse_known_args(argv)
    # argparse takes the positionals of one run together, so a repository named after
    # options (``search code QUERY -i REPO``) comes back unparsed.
    if len(extra) == 1 and not extra[0].startswith("-") and getattr(args, "repo", "") is None:
        args.repo, extra = extra[0], []
    if extra:
        parser.error(f"unrecognized arguments: {' '.join(extra)}")
    # A run makes millions of small objects and no reference cycles: the cycle collector
    # would only walk them over and over.
    gc.disable()
    try:
        return args.run(args)
    except (UsageError, QueryError, RepositoryError, schema.SchemaError) as error:
        print(f"velmora: error: {error}", file=sys.stderr)
        return 2
    except sqlite3.OperationalError as error:
        if "locked" in str(error) or "busy" in str(error):
            print(f"velmora: error: another process is writing the index ({error}); "
                  "try again when it is done", file=sys.stderr)
            return 2
        print(f"velmora: index error: {error}", file=sys.stderr)
        return 1
    except sqlite3.DatabaseError as error:
        if isinstance(error, sqlite3.IntegrityError):
            print(f"velmora: index error: {error}", file=sys.stderr)
            return 1
        print(f"velmora: error: the index is damaged ({error}); run `velmora index --rebuild`",
              file=sys.stderr)
        return 2
    except sqlite3.Error as error:
        print(f"velmora: index error: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("velmora: interrupted", file=sys.stderr)
        return 130
    except BrokenPipeError:
        # The reader went away (``| head``): stop quietly, and point stdout at /dev/null so
        # that flushing it at exit does not fail again.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 0
    finally:
        gc.enable()


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="velmora", description="Index a repository and search its code.")
    commands = parser.add_subparsers(dest="command", required=True)

    index = commands.add_parser("index", help="index a repository, or bring its index up to date")
    index.add_argument("repo", nargs="?", help="the repository (default: .)")
    index.add_argument(
        "--layout", choices=("auto", "compressed", "code_chunks"), default="auto",
        help="how chunks are stored: compressed is smaller, code_chunks keeps the text "
        "uncompressed in its full-text table (auto: keep the index's layout; compressed "
        "for a new index)",
    )
    index.add_argument(
        "--rebuild", action="store_true",
        help="start over; the old index stays in place until the new one is complete",
    )
    index.set_defaults(run=_index)

    status = commands.add_parser("status", help="show what is indexed and what was left out")
    status.add_argument("repo", nargs="?", help="the repository (default: .)")
    status.set_defaults(run=_status)

    search_cmd = commands.add_parser("search", help="search the index")
    kinds = search_cmd.add_subparsers(dest="kind", required=True)
    code = kinds.add_parser("code", help="find a text or regex in the indexed files")
    code.add_argument("query", help="the text to find (a Python regex with --regex)")
    code.add_argument("repo", nargs="?", help="the repository (default: .)")
    code.add_argument("-e", "--regex", action="store_true", help="the query is a regex")
    code.add_argument("-i", "--ignore-case", action="store_true", help="ignore case")
    code.add_argument("-C", "--context", type=_count, default=0, metavar="N",
                      help="show N lines before and after each match")
    code.add_argument("-g", "--glob", action="append", default=[],
                      help="search only files matching this glob; !GLOB excludes (repeatable)")
    code.add_argument("-m", "--max-count", type=_count, metavar="N",
                      help="at most N matching lines per file")
    code.add_argument("--json", action="store_true", help="one JSON object per match")
    code.add_argument("--color", choices=("auto", "always", "never"), default="auto")
    code.set_defaults(run=_search)
    return parser


def _count(text: str) -> int:
    value = int(text)
    if value < 0:
        raise argparse.ArgumentTypeError(f"not a count: {text}")
    return value


def _repo(text: str | None) -> Path:
    return find_root(text or ".")


def _index(args: argparse.Namespace) -> int:
    from velmora import indexer

    root = _repo(args.repo)
    store = None if args.layout == "auto" else args.layout
    print(indexer.index(root, store, rebuild=args.rebuild).line(), file=sys.stderr)
    return 0


def _status(args: argparse.Namespace) -> int:
    from velmora import status

    sys.stdout.write(status.report(_repo(args.repo)))
    return 0


def _search(args: argparse.Namespace) -> int:
    # Everything the user gave is checked before the index is touched.
    query = Query.parse(args.query, regex=args.regex, ignore_case=args.ignore_case)
    root = _repo(args.repo)
    db_path = schema.index_path(root)
    if not db_path.exists():
        # Imported only here: a search of an existing index starts faster without it.
        from velmora import indexer

        print(indexer.index(root).line(), file=sys.stderr)
    with Repository.open(root, create=False) as repo:
        results, reason = repo.search(
            query, globs=args.glob, before=args.context, after=args.context,
            max_count=args.max_count, refresh=False,
        )
        if reason:
            print(f"velmora: {reason}", file=sys.stderr)
        color = args.color == "always" or (args.color == "auto" and sys.stdout.isatty())
        found = False
        # One write per file: the output of a common query runs to millions of lines.
        for path, hits in results:
            if args.json:
                sys.stdout.write(_json_text(path, hits))
            else:
                if found and args.context:
                    sys.stdout.write("--\n")
                sys.stdout.write(_text(path, hits, query, args.context > 0, color))
            found = True
        sys.stdout.flush()
    return 0 if found else 1


def _json_text(path: str, hits: list[Hit]) -> str:
    encode = _json_encoder().encode
    return "".join([
        encode({
            "path": path, "line": line, "column": column + 1,
            "context": [{"line": number, "content": text} for number, text in records],
        }) + "\n"
        for line, column, records in hits
    ])


@functools.cache
def _json_encoder() -> json.JSONEncoder:
    # What json.dumps(..., ensure_ascii=False) uses, made once rather than per record.
    import json

    return json.JSONEncoder(ensure_ascii=False)


def _text(path: str, hits: list[Hit], query: Query, with_context: bool, color: bool) -> str:
    """grep's format: ``path:line:column:text`` for matches, ``path-line-text`` around them,
    and ``--`` between runs of lines that do not touch."""
    if not (with_context or color):
        # Without context lines each hit's context is its own line alone.
        return "".join([
            f"{path}:{line}:{column + 1}:{records[0][1]}\n"
            for line, column, records in hits
        ])
    shown_path = f"{_PATH}{path}{_RESET}" if color else path
    matched = {hit.line: hit for hit in hits}
    printed = 0
    out: list[str] = []
    for hit in hits:
        for number, content in hit.context:
            if number <= printed:
                continue
            if with_context and printed and number > printed + 1:
                out.append("--\n")
            printed = number
            shown_number = f"{_NUMBER}{number}{_RESET}" if color else str(number)
            if number in matched:
                column = matched[number].column
                text = _highlight(content, query.span(content, column)) if color else content
                out.append(f"{shown_path}:{shown_number}:{column + 1}:{text}\n")
            else:
                out.append(f"{shown_path}-{shown_number}-{content}\n")
    return "".join(out)


def _highlight(line: str, span: tuple[int, int] | None) -> str:
    if span is None or span[0] == span[1]:
        return line
    start, end = span
    return f"{line[:start]}{_MATCH}{line[start:end]}{_RESET}{line[end:]}"


if __name__ == "__main__":
    sys.exit(main())
