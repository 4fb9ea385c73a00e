"""rg's everyday flags of ``search code``: their options, the layout and the reach of files
they ask for, and where each path given is searched (its repository's index, or its files)."""

from __future__ import annotations

import argparse
import os
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field
from pathlib import Path

from velmora.api import find_repository
from velmora.output.line_format import Shape
from velmora.search.reach import SORTS, Reach

# Options whose value may begin with "-" (``-e -foo``), as rg reads them.
VALUED = frozenset({"-e", "--regexp", "-r", "--replace"})


class ScopeError(Exception):
    """A path that cannot be searched; the message says why in one line."""


def add_flags(code: argparse.ArgumentParser, count: Callable[[str], int]) -> None:
    """The options of rg's that shape the output and the files searched (``count`` reads
    a count)."""
    add = code.add_argument
    add("-n", "--line-number", dest="line_number", action="store_true", default=None,
        help="Show line numbers (the default on a terminal).")
    add("-N", "--no-line-number", dest="line_number", action="store_false",
        help="Suppress line numbers.")
    add("--column", action="store_true", help="Show column numbers (in bytes; implies -n).")
    add("-H", "--with-filename", dest="filename", action="store_true", default=None,
        help="Print the file path with the matched lines (the default unless one file is searched).")
    add("-I", "--no-filename", dest="filename", action="store_false",
        help="Never print the file path with the matched lines.")
    add("--heading", dest="heading", action="store_true", default=None,
        help="Print matches grouped by each file (the default on a terminal).")
    add("--no-heading", dest="heading", action="store_false",
        help="Don't group matches by each file.")
    add("-o", "--only-matching", action="store_true", help="Print only matched parts of a line.")
    add("-r", "--replace", metavar="REPLACEMENT_TEXT",
        help="Replace matches with the given text ($1, ${name}: groups) in the output only.")
    add("--vimgrep", action="store_true", help="Show results in vim compatible format.")
    add("-0", "--null", action="store_true", help="Print a NUL byte after file paths.")
    add("-v", "--invert-match", action="store_true", help="Invert matching.")
    add("-x", "--line-regexp", action="store_true",
        help="Only show matches surrounded by line boundaries.")
    add("-U", "--multiline", action="store_true", help="Enable matching across multiple lines.")
    add("-P", "--pcre2", action="store_true",
        help="Accepted: patterns are Python regexes, lookaround and backreferences included.")
    add("--files", action="store_true", help="Print each file that would be searched.")
    add("--iglob", action="append", default=[], metavar="GLOB",
        help="Include or exclude files case insensitively.")
    add("-.", "--hidden", action="store_true", help="Search hidden files and directories.")
    add("--no-ignore", action="store_true",
        help="Don't respect ignore files (the files are then read from disk, not the index).")
    add("-u", "--unrestricted", action="count", default=0,
        help='Reduce the level of "smart" searching: -u is --no-ignore, -uu adds --hidden.')
    add("--max-depth", type=count, metavar="NUM", help="Descend at most NUM directories.")
    add("--sort", choices=SORTS, default="path", metavar="SORTBY",
        help="Sort results in ascending order: path (default), modified, accessed, created "
        "or none; or relevance, best first (a definition of what is looked for, a match in "
        "the file's name, whole words, short paths).")


class RgHelp(argparse.HelpFormatter):
    """Help laid out as rg's: options in the order of their long names, each as
    ``-A, --after-context <NUM>``."""

    def __init__(self, prog: str, **options) -> None:
        options.setdefault("max_help_position", 36)
        super().__init__(prog, **options)

    def add_arguments(self, actions):
        super().add_arguments(sorted(actions, key=_long_name))

    def _format_action_invocation(self, action):
        if not action.option_strings:
            return super()._format_action_invocation(action)
        names = ", ".join(action.option_strings)
        if action.nargs == 0:
            return names
        return f"{names} <{self._metavar_formatter(action, action.dest.upper())(1)[0]}>"


def _long_name(action: argparse.Action) -> str:
    return (action.option_strings or [""])[-1].lstrip("-").lower()


def joined_values(argv: Sequence[str]) -> list[str]:
    """``argv`` with each value of ``VALUED`` joined to its option, so that a value that
    looks like an option (``-e -foo``) is taken as the value."""
    out: list[str] = []
    items = iter(argv)
    for item in items:
        if item == "--":
            out += [item, *items]
            break
        value = next(items, None) if item in VALUED else None
        if value is None:
            out.append(item)
        else:
            out.append(f"{item}={value}" if item.startswith("--") else f"{item}{value}")
    return out


def shape(args: argparse.Namespace, one_file: bool, tty: bool) -> Shape:
    """The layout rg gives these flags: line numbers and headings on a terminal, the file
    name unless a single file is searched."""
    vimgrep = args.vimgrep
    line_number = args.line_number if args.line_number is not None else (tty or args.column)
    return Shape(
        filename=True if vimgrep else (not one_file if args.filename is None else args.filename),
        heading=False if vimgrep else (tty if args.heading is None else args.heading),
        line_number=line_number or vimgrep,
        column=args.column or vimgrep,
        only_matching=args.only_matching,
        vimgrep=vimgrep,
        replace=args.replace,
        null=args.null,
    )


def reach(args: argparse.Namespace) -> Reach:
    return Reach(
        hidden=args.hidden or args.unrestricted >= 2,
        ignore_files=not (args.no_ignore or args.unrestricted),
        max_depth=args.max_depth,
        sort=args.sort,
        globbed=any(not glob.startswith("!") for glob in [*args.glob, *args.iglob]),
    )


def globs(args: argparse.Namespace) -> list[str]:
    """The globs, with ``--iglob``'s taken without regard to case (pathspec has no such
    switch: a letter becomes the class of its two cases)."""
    return [*args.glob, *(_either_case(glob) for glob in args.iglob)]


def _either_case(glob: str) -> str:
    out, in_class = [], False
    for char in glob:
        if char in "[]":
            in_class = char == "["
        if char.isalpha() and char.lower() != char.upper():
            pair = char.lower() + char.upper()
            out.append(pair if in_class else f"[{pair}]")
        else:
            out.append(char)
    return "".join(out)


@dataclass
class Scope:
    """Paths searched together: their root, whether it is a repository (else the files are
    read directly), and each path as given beside its path from the root ("" the root)."""

    root: Path
    indexed: bool
    limits: list[tuple[str, str]] = field(default_factory=list)


def scopes(paths: Sequence[str]) -> list[Scope]:
    """Where each path is searched: the repository holding it (nearest ``.velmora`` or
    ``.git`` at or above it), or its own tree read directly; never through a symbolic link
    that leads out of the tree it lies in."""
    found: list[Scope] = []
    for text in paths or [""]:
        location = Path(os.path.abspath(text or "."))
        if not os.path.lexists(location):
            raise ScopeError(f"no such file or directory: {text}")
        linked = location.is_symlink()
        directory = location if location.is_dir() and not linked else location.parent
        repository = find_repository(directory)
        real = directory.resolve()
        root = repository or real
        target = location.resolve() if linked else real / location.relative_to(directory)
        if not target.is_relative_to(root):
            raise ScopeError(f"{text} is a symbolic link out of {root}: not followed")
        prefix = target.relative_to(root).as_posix()
        limit = (text.rstrip("/") or text, "" if prefix == "." else prefix)
        if found and found[-1].root == root:
            found[-1].limits.append(limit)
        else:
            found.append(Scope(root, repository is not None, [limit]))
    return found
