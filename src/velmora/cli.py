"""The ``velmora`` command."""

from __future__ import annotations

import argparse
import codecs
import gc
import os
import sqlite3
import sys
import warnings
from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager, redirect_stdout
from functools import cache, partial
from pathlib import Path
from typing import TYPE_CHECKING, Any

from velmora.storage import schema
from velmora.api import Repository, RepositoryError, find_root
from velmora.storage.database import is_busy
from velmora.query.pattern import Query, QueryError
from velmora.output.line_format import Shape
from velmora.search.direct import DirectTree
from velmora import search_flags as flags
from velmora.utils.fsio import escaped_name, read_bytes_no_follow

if TYPE_CHECKING:
    from velmora.output.printer import Printer


class UsageError(Exception):
    """Bad input from the user: reported in one line, exit status 2."""


# A server's worker answering a search: the repository at a root, held open, and whether the
# server brought its index up to date for this search.
Served = Callable[[Path], "tuple[Repository, bool]"]


def main(argv: Sequence[str] | None = None, *, served: Served | None = None) -> int:
    parser = _parser()
    args, extra = parser.parse_known_args(flags.joined_values(sys.argv[1:] if argv is None else argv))
    if extra:
        parser.error(f"unrecognized arguments: {' '.join(extra)}")
    args.served = served
    if served is None:
        from velmora import client

        status = client.forward(list(sys.argv[1:] if argv is None else argv))
        if status is not None:
            return status
    # A run makes millions of small objects and no reference cycles: the cycle collector
    # would only walk them over and over.
    gc.disable()
    # re's notes on what a pattern may come to mean in a later Python are no concern of the
    # user's: the pattern means what it means today.
    warnings.filterwarnings("ignore", category=FutureWarning)
    if sys.stdout is None and args.command in ("search", "status"):
        print("velmora: error: standard output is closed", file=sys.stderr)
        return 2
    if hasattr(sys.stdout, "reconfigure"):  # a name that is not UTF-8 prints as its bytes
        sys.stdout.reconfigure(errors="surrogateescape")
    try:
        return args.run(args)
    except (UsageError, QueryError, RepositoryError, schema.SchemaError) as error:
        print(f"velmora: error: {error}", file=sys.stderr)
        return 2
    except sqlite3.Error as error:
        print(f"velmora: error: {_index_problem(error)}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        print("velmora: interrupted", file=sys.stderr)
        return 130
    except MemoryError:  # output held a group at a time: minified lines matched everywhere, say
        print("velmora: error: not enough memory for this search's output", file=sys.stderr)
        return 2
    except BrokenPipeError:
        # The reader went away (``| head``): stop quietly, as rg does.
        _drop_output()
        return 0
    except OSError as error:  # a full disk under the output, say
        _drop_output()
        where = f": {error.filename}" if error.filename else ""
        print(f"velmora: error: {error.strerror or error}{where}", file=sys.stderr)
        return 2
    finally:
        gc.enable()


def _drop_output() -> None:
    # What is still buffered for standard output is dropped, so that flushing it at exit
    # does not fail again.
    if sys.stdout is not None:
        sink = os.open(os.devnull, os.O_WRONLY)
        try:
            os.dup2(sink, sys.stdout.fileno())
        finally:
            os.close(sink)  # a server's worker runs search after search


def _index_problem(error: sqlite3.Error) -> str:
    text = str(error)
    if is_busy(error):
        return f"another process is writing the index ({text}); try again when it is done"
    # A table or column this version expects is missing: the index was made by some other
    # build of velmora, or altered by hand.
    if isinstance(error, sqlite3.OperationalError) and not text.startswith("no such"):
        return f"the index cannot be read or written ({text})"
    if isinstance(error, sqlite3.IntegrityError):
        # Its rows contradict one another: only a rebuild gets past that.
        return (
            f"the index could not be updated ({text}); it is left as it was "
            "(`velmora index --rebuild` makes a new one)"
        )
    return f"the index is damaged ({text}); run `velmora index --rebuild`"


@cache  # a server's worker answers many searches
def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="velmora", description="Index a repository and search its code.",
        formatter_class=_Formatter, allow_abbrev=False,
    )
    parser.add_argument("-V", "--version", action=_Version, help="print the version and exit")
    commands = parser.add_subparsers(dest="command", required=True, parser_class=_CommandParser)

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
    kinds = search_cmd.add_subparsers(dest="kind", required=True, parser_class=_CommandParser)
    _search_code_options(kinds.add_parser(
        "code", help="find lines matching a pattern in the indexed files",
        formatter_class=flags.RgHelp,
        usage="%(prog)s [OPTIONS] PATTERN [PATH ...]\n       %(prog)s [OPTIONS] -e PATTERN ... [PATH ...]",
    ))

    serve = commands.add_parser("serve", help="serve a search page and a JSON API")
    serve.add_argument("repos", nargs="*", metavar="REPO", help="the repositories (default: .)")
    serve.add_argument("--host", default="127.0.0.1", help="the address to listen on")
    serve.add_argument("--port", type=_count, default=8080, help="the port to listen on")
    serve.add_argument("--workers", type=_count, default=2, metavar="N",
                       help="search processes (a search past its deadline costs one)")
    serve.add_argument("--timeout", type=_seconds, default=10.0, metavar="SECONDS",
                       help="stop a search that runs longer than this")
    # What a search starts: the repository's socket alone, no HTTP.
    serve.add_argument("--background", action="store_true", help=argparse.SUPPRESS)
    serve.set_defaults(run=_serve)

    stop = commands.add_parser("stop", help="stop the background server of a repository")
    stop.add_argument("repo", nargs="?", help="the repository (default: .)")
    stop.set_defaults(run=_stop)
    return parser


def _search_code_options(code: argparse.ArgumentParser) -> None:
    code.add_argument("positionals", nargs="*", metavar="PATTERN [PATH ...]",
                      help="A Python regex (plain text when it has no regex syntax), then the "
                      "files and directories to search (default: the current directory).")
    code.add_argument("-q", "--quiet", action="store_true",
                      help="Print nothing; exit 0 as soon as a match is found, else 1.")
    code.add_argument("--query", metavar="QUERY",
                      help="A query of the search box's language (terms, or, -, parentheses, "
                      "file:, lang:, sym:, case:, content:, type:file); every argument is a PATH.")
    code.add_argument("-e", "--regexp", action="append", default=[], metavar="PATTERN",
                      help="A pattern to search for; repeatable.")
    code.add_argument("-F", "--fixed-strings", action="store_true",
                      help="Treat the pattern as a literal string.")
    code.add_argument("-i", "--ignore-case", dest="case", action="store_const", const="ignore",
                      default="sensitive", help="Case insensitive search.")
    code.add_argument("-S", "--smart-case", dest="case", action="store_const", const="smart",
                      help="Smart case search: insensitive unless a pattern has an upper-case letter.")
    code.add_argument("-s", "--case-sensitive", dest="case", action="store_const",
                      const="sensitive", help="Search case sensitively (default).")
    code.add_argument("-w", "--word-regexp", action="store_true",
                      help="Only show matches surrounded by word boundaries.")
    shape = code.add_mutually_exclusive_group()
    shape.add_argument("-l", "--files-with-matches", dest="mode", action="store_const",
                       const="files", default="lines", help="Print the paths with at least one match.")
    shape.add_argument("-c", "--count", dest="mode", action="store_const", const="count",
                       help="Only show the count of matching lines for each file.")
    shape.add_argument("--json", dest="mode", action="store_const", const="json",
                       help="Show search results in a JSON Lines format.")
    # As in rg, the last of -A, -B and -C given wins for each side.
    code.add_argument("-A", "--after-context", dest="after", type=_count, default=0,
                      metavar="NUM", help="Show NUM lines after each match.")
    code.add_argument("-B", "--before-context", dest="before", type=_count, default=0,
                      metavar="NUM", help="Show NUM lines before each match.")
    code.add_argument("-C", "--context", action=_BothSides, type=_count, metavar="NUM",
                      help="Show NUM lines before and after each match.")
    code.add_argument("-t", "--type", action="append", default=[], metavar="TYPE",
                      help="Only search files matching TYPE (see --type-list); repeatable.")
    code.add_argument("-T", "--type-not", action="append", default=[], metavar="TYPE",
                      help="Do not search files matching TYPE; repeatable.")
    code.add_argument("--type-list", action="store_true", help="Show all supported file types.")
    code.add_argument("-g", "--glob", action="append", default=[],
                      help="Include or exclude files (!GLOB excludes); repeatable.")
    code.add_argument("-m", "--max-count", type=_count, metavar="NUM",
                      help="Limit the number of matching lines per file.")
    code.add_argument("--stats", action="store_true",
                      help="Print statistics about this search, after the results.")
    code.add_argument("--no-refresh", dest="refresh", action="store_false",
                      help="Search the index as it is, without taking in files changed since.")
    code.add_argument("--color", choices=("auto", "always", "never"), default="auto",
                      metavar="WHEN", help="Controls when to use color: auto (on a terminal), "
                      "always or never.")
    code.add_argument("--no-server", dest="server", action="store_false",
                      help="Search in this process, and start no background server "
                      "(also VELMORA_NO_SERVER=1).")
    code.add_argument("-V", "--version", action=_Version,
                      help="Prints version information (and the index's schema).")
    flags.add_flags(code, _count)
    code.set_defaults(run=_search)


class _Version(argparse.Action):
    """The version and the index's schema; looked up only when asked for (the package's
    metadata costs a search start-up time)."""

    def __init__(self, option_strings, dest, **options) -> None:
        super().__init__(option_strings, dest, nargs=0, **options)

    def __call__(self, parser, namespace, values, option_string=None):
        from importlib import metadata

        try:
            version = metadata.version("velmora")
        except metadata.PackageNotFoundError:
            version = "(not installed)"
        parser.exit(0, f"velmora {version}\nindex schema {schema.SCHEMA_VERSION}\n")


class _BothSides(argparse.Action):
    def __call__(self, parser, namespace, values, option_string=None):
        namespace.before = namespace.after = values


class _Formatter(argparse.HelpFormatter):
    """argparse's layout, as wide as the terminal as shutil would measure it: importing
    shutil, as argparse does for that, costs a search a few milliseconds of start-up."""

    def __init__(self, prog: str, **options) -> None:
        options.setdefault("width", _columns() - 2)
        super().__init__(prog, **options)


def _columns() -> int:
    try:
        columns = int(os.environ["COLUMNS"])
    except (KeyError, ValueError):
        columns = 0
    if columns > 0:
        return columns
    stdout = sys.stdout  # in a server's worker, the client's own
    try:
        return (stdout and os.get_terminal_size(stdout.fileno()).columns) or 80
    except (AttributeError, ValueError, OSError):
        return 80


class _CommandParser(argparse.ArgumentParser):
    """A subcommand's parser: options and positionals in any order, as grep users write
    them, and a wrong argument answered with this subcommand's usage."""

    _nested = False

    def __init__(self, *args, **options) -> None:
        options.setdefault("formatter_class", _Formatter)
        # An abbreviation would hide a mistake: --files is not --files-with-matches.
        options.setdefault("allow_abbrev", False)
        super().__init__(*args, **options)

    def parse_known_args(self, args=None, namespace=None):
        if self._nested or any(a.nargs == argparse.PARSER for a in self._get_positional_actions()):
            return super().parse_known_args(args, namespace)
        args = sys.argv[1:] if args is None else list(args)
        # What follows "--" is positional, whatever it looks like; intermixed parsing
        # would take it for options.
        cut = args.index("--") if "--" in args else len(args)
        # parse_known_intermixed_args calls this method again for each of its two passes.
        self._nested = True
        try:
            namespace, extra = self.parse_known_intermixed_args(args[:cut], namespace)
        finally:
            self._nested = False
        last = self._get_positional_actions()[-1:]
        if args[cut + 1 :] and last and last[0].nargs == argparse.ZERO_OR_MORE:
            dest = last[0].dest
            setattr(namespace, dest, [*getattr(namespace, dest), *args[cut + 1 :]])
        else:
            extra += args[cut + 1 :]
        if extra:
            self.error(f"unrecognized arguments: {' '.join(extra)}")
        return namespace, []

    def error(self, message: str):
        if message.startswith("argument "):
            # A known option with a bad value: one line says what is wrong with it.
            self.exit(2, f"{self.prog}: error: {message}\n")
        super().error(message)


def _count(text: str) -> int:
    if not text.isdecimal():
        raise argparse.ArgumentTypeError(f"not a count: {text}")
    return int(text)


def _seconds(text: str) -> float:
    value = float(text)
    if not value > 0:
        raise argparse.ArgumentTypeError(f"not a number of seconds: {text}")
    return value


def _repo(text: str | None) -> Path:
    return find_root(text or ".")


def _index(args: argparse.Namespace) -> int:
    from velmora.index import build as indexer

    root = _repo(args.repo)
    store = None if args.layout == "auto" else args.layout
    print(indexer.index(root, store, rebuild=args.rebuild).line(), file=sys.stderr)
    return 0


def _status(args: argparse.Namespace) -> int:
    from velmora.index import status
    from velmora.serve.resident import ask

    root = _repo(args.repo)
    sys.stdout.write(status.report(root))
    sys.stdout.write(ask(root, "status") or "Server: none (the next search starts one)\n")
    return 0


def _stop(args: argparse.Namespace) -> int:
    from velmora.serve.resident import ask

    said = ask(_repo(args.repo), "stop")
    if said is None:
        print("velmora: no server answers for this repository", file=sys.stderr)
        return 1
    if not said:
        raise UsageError("that server was started by `velmora serve`: stop it there")
    return 0


# The case rule of a query, from the options -s, -i and -S.
_CASE_RULES = {"sensitive": "yes", "ignore": "no", "smart": "auto"}


def _search(args: argparse.Namespace) -> int:
    if args.quiet and not args.files:
        # Whether a file matches is all that is asked: the first one answers.
        args.mode, args.stats, args.max_count = "files", False, 1
        with open(os.devnull, "w", encoding="utf-8") as nowhere, redirect_stdout(nowhere):
            return _searched(args)
    return _searched(args)


def _searched(args: argparse.Namespace) -> int:
    from velmora.output import printer as output
    from velmora.query import file_types, language

    if args.type_list:
        listed = file_types.table().items()
        sys.stdout.write("".join(f"{name}: {', '.join(globs)}\n" for name, globs in listed))
        return 0
    # Everything the user gave is checked before the index is touched.
    patterns, paths = (
        ([], args.positionals) if args.query is not None
        else (args.regexp, args.positionals) if args.regexp or args.files
        else (args.positionals[:1], args.positionals[1:])
    )
    if args.query is not None:
        if args.regexp:
            raise UsageError("--query and -e exclude one another")
        parsed = language.parse(
            args.query, fixed=args.fixed_strings, word=args.word_regexp, case=_CASE_RULES[args.case]
        )
        # The query finds the lines to show; the printer's finds their matches within them.
        asked: Query | language.Parsed = parsed
        query = parsed.shown_query()
        if args.mode == "lines" and parsed.lists_files:
            args.mode = "files"
    elif not (patterns or args.files):
        raise UsageError("no pattern given (velmora search code PATTERN [PATH ...])")
    elif not args.multiline and any("\n" in pattern for pattern in patterns):
        raise UsageError("a pattern holds a line feed, which no line does (-U searches across lines)")
    else:
        query = asked = Query.parse(
            patterns, fixed=args.fixed_strings, ignore_case=args.case == "ignore",
            smart_case=args.case == "smart", word=args.word_regexp, line=args.line_regexp,
        ) if patterns else Query(None, None, True)
    types = [*args.type, *(f"!{name}" for name in args.type_not)]
    try:
        file_types.matcher(types)
    except file_types.UnknownType as error:
        raise UsageError(str(error)) from None
    try:
        scopes = flags.scopes(paths)
    except flags.ScopeError as error:
        raise UsageError(str(error)) from None
    one_file = len(paths) == 1 and not os.path.isdir(paths[0])
    tty = sys.stdout.isatty()
    shape, reach, globs = flags.shape(args, one_file, tty), flags.reach(args), flags.globs(args)
    context = bool(args.before or args.after)
    color = args.color == "always" or (args.color == "auto" and tty)
    # A pattern's files in the order they are read need no object per file: the fast paths.
    streamed = asked is query and args.sort != "relevance"
    # Plain lines, counts and file names print straight from the matched lines, without an
    # object per match; a case-ignoring needle's columns need the per-match path.
    plain = streamed and not (
        context or color or args.stats or args.max_count is not None or args.invert_match
        or args.multiline or not shape.plain() or args.only_matching and args.mode == "count"
    ) and (
        args.mode in ("count", "files")
        or args.mode == "lines" and (query.pattern is not None or query.case_sensitive)
    )
    printer = output.Printer(
        query, sys.stdout, mode=args.mode, context=context, color=color, stats=args.stats,
        shape=shape,
    )
    searched: list[tuple[str, int]] = []
    native = streamed and _native(query, args, shape, context)
    for scope in scopes:
        with _opened(scope, args.served, direct=not reach.ignore_files) as (repo, fresh):
            root, under = scope.root, [prefix for _, prefix in scope.limits]
            printer.shown = _shown(scope.limits)
            printer.read = partial(_read, root)
            limits: dict[str, Any] = {"globs": globs, "paths": under, "types": types, "reach": reach}
            if args.files:
                names = repo.listed(**limits)
                sys.stdout.write("".join(shape.named(printer.shown(path), "") for path in names))
                printer.found |= bool(names)
                continue
            refresh = args.refresh and not fresh
            if native and isinstance(repo, Repository) and repo.stores_frames:
                printer.found |= _print_native(repo, query, args, printer, refresh=refresh, **limits)
                continue
            if plain:
                runs, reason = repo.matching_lines(query, refresh=refresh, **limits)
            else:
                results, reason = repo.search(
                    asked, before=args.before, after=args.after, max_count=args.max_count,
                    invert=args.invert_match, multiline=args.multiline, refresh=refresh,
                    relevance=args.sort == "relevance", **limits,
                )
            if reason:
                print(f"velmora: {reason}", file=sys.stderr)
            printer.print_runs(runs) if plain else printer.print_all(results)
            if args.stats or args.mode == "json":
                searched += repo.files(**limits)
    printer.finish(len(searched), sum(size for _, size in searched))
    sys.stdout.flush()
    if args.served is None and args.server and not os.environ.get("VELMORA_NO_SERVER"):
        from velmora.serve import background

        for scope in scopes:
            if scope.indexed:
                background.start(scope.root)  # for the next search
    return 0 if printer.found else 1


def _native(query: Query, args: argparse.Namespace, shape: Shape, context: bool) -> bool:
    """Whether the search prints from the native scan: a plain needle, output without
    context, statistics, replacements or vimgrep lines, on a UTF-8 stream (the scan's
    output is the text's own bytes), as lines, counts or file names."""
    from velmora.search import native_scan

    encoding = codecs.lookup(sys.stdout.encoding or "ascii").name
    # --vimgrep repeats a line whole for each match on it: a long line with many matches
    # prints the size of their product, which the scan would hold for a whole group.
    return (
        native_scan.handles(query) and not (context or args.stats or args.invert_match or args.files)
        and args.mode in ("lines", "count", "files") and shape.replace is None and encoding == "utf-8"
        and not (shape.vimgrep and args.mode == "lines")
    )


def _print_native(repo: Repository, query: Query, args, printer: Printer, **limited) -> bool:
    """Print the search from the native scan after what ``printer`` printed; whether
    anything matched."""
    from velmora.search import native_scan

    blocks, reason = repo.printed(
        query, mode=args.mode, shown=printer.shown, encoding=sys.stdout.encoding,
        max_count=args.max_count, shape=printer.shape, color=printer.color, **limited,
    )
    if reason:
        print(f"velmora: {reason}", file=sys.stderr)
    sys.stdout.flush()
    out, found = sys.stdout.buffer, False
    between = native_scan.separator(args.mode, printer.shape)
    for block in blocks:
        out.write(between + block if found or printer.found else block)
        found = True
    out.flush()
    return found


@contextmanager
def _opened(
    scope: flags.Scope, served: Served | None, *, direct: bool
) -> Iterator[tuple[Repository | DirectTree, bool]]:
    """What a scope is searched with: its repository's index (made first when there is
    none yet; a server's, when one runs the search), or, outside a repository or when
    asked, its files read directly; and whether a server brought the index up to date."""
    if served is not None:
        repository, fresh = served(scope.root)  # refused for a tree the server does not hold
        if not direct:
            yield repository, fresh
            return
    if not scope.indexed or direct:
        if not scope.indexed:
            print(
                f"velmora: {scope.root} is in no repository: its files were searched directly "
                f"(`velmora index {scope.root}` indexes it)", file=sys.stderr,
            )
        yield DirectTree(scope.root), False
        return
    if not schema.index_path(scope.root).exists():
        # Imported only here: a search of an existing index starts faster without it.
        from velmora.index import build as indexer

        print(indexer.index(scope.root).line(), file=sys.stderr)
    with Repository.at(scope.root, create=False) as repository:
        yield repository, False


def _serve(args: argparse.Namespace) -> int:
    # A server runs for days: the cycles that asyncio and its exceptions make need the
    # collector that a one-off search goes without.
    gc.enable()
    roots = list(dict.fromkeys(_repo(text) for text in args.repos or ["."]))
    if args.background:
        from velmora.serve import background

        background.run(roots[0])
        return 0
    from velmora.index import safety
    from velmora.serve import app as server, listening

    try:
        sock = listening.bind(args.host, args.port)
    except listening.ListenError as error:
        raise UsageError(str(error)) from None
    # An index that cannot be used is reported here, in one line, not from inside the server.
    for root in roots:
        if schema.index_path(root).exists():
            Repository.at(root).close()
        else:  # one that cannot be made is reported before the server starts
            safety.index_file(root)
    shown = " ".join(escaped_name(str(root)) for root in roots)
    print(f"velmora: serving {shown} on {listening.url(sock)}", file=sys.stderr)
    server.serve(roots, sock, workers=max(args.workers, 1), timeout=args.timeout)
    return 0


def _shown(limits: list[tuple[str, str]]) -> Callable[[str], str]:
    """How a path relative to the root prints: as rg prints it, under the path it was
    found through, as that was given."""

    def shown(path: str) -> str:
        for given, prefix in limits:
            if path == prefix:
                return given
            if not prefix or path.startswith(prefix) and path[len(prefix)] == "/":
                rest = path[len(prefix) + 1 :] if prefix else path
                return f"{given}/{rest}" if given else rest
        return path

    return shown


def _read(root: Path, path: str) -> bytes | None:
    try:
        return read_bytes_no_follow(root / path)
    except OSError:
        return None


if __name__ == "__main__":
    sys.exit(main())
