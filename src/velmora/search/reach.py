"""Which files a search reaches, as rg picks them: hidden files, the rules of ``.ignore`` and
``.rgignore`` files, a depth limit and an order; and the walk of a tree searched directly."""

from __future__ import annotations

import os
from collections.abc import Iterable, Iterator, Sequence
from dataclasses import dataclass
from pathlib import Path

from velmora.index.ignore_rules import IgnoreRules
from velmora.storage.file_rows import FileRow
from velmora.utils.fsio import read_bytes_no_follow

# In one directory, .rgignore's rules come after .ignore's, and so win.
IGNORE_FILES = (".ignore", ".rgignore")
# "relevance" orders the files by path here; the search then puts the best first.
SORTS = ("path", "modified", "accessed", "created", "none", "relevance")


@dataclass(frozen=True)
class Reach:
    """rg's switches over the files searched; the defaults are rg's."""

    hidden: bool = False  # search hidden files and directories too
    ignore_files: bool = True  # honour .ignore and .rgignore (and, in a walk, nothing else)
    max_depth: int | None = None  # below a given path; 0 is the path itself
    sort: str = "path"
    # Files were chosen by a glob: as in rg, a glob that names a file overrides the rules
    # that would leave the file itself out (not those that leave out its directory).
    globbed: bool = False

    def narrowed(
        self, root: Path, rows: list[FileRow], limits: Sequence[str],
        ignore_files: Iterable[str],
    ) -> list[FileRow]:
        """The rows (paths relative to ``root``, below the paths ``limits``) that these
        switches reach, in their order; ``ignore_files`` are the tree's ignore files."""
        rules = read_rules(root, ignore_files) if self.ignore_files else IgnoreRules()
        bases = [limit.strip("/") for limit in limits if limit.strip("/") not in ("", ".")]
        if len(bases) < len(limits) or not limits:
            bases = [""]
        if self.hidden and self.max_depth is None and not rules:
            kept = rows
        else:
            kept = [row for row in rows if self._reaches(row.path, bases, rules)]
        return ordered(root, kept, self.sort)

    def _reaches(self, path: str, bases: list[str], rules: IgnoreRules) -> bool:
        for base in bases:
            if path == base:
                return True  # a file given by name is searched, whatever the rules say
            if base and not path.startswith(base + "/"):
                continue
            below = path[len(base) + 1 :] if base else path
            if self.max_depth is not None and below.count("/") >= self.max_depth:
                return False
            cut = below.rfind("/") + 1
            if not self.hidden and (below.startswith(".") and cut or "/." in below[:cut]):
                return False  # in a hidden directory
            if rules.directory_excluded(path):
                return False
            if self.globbed:
                return True
            return (self.hidden or below[cut] != ".") and not rules.ignored(path, False)
        return False

    def walk(self, root: Path, limits: Sequence[str]) -> list[FileRow]:
        """The text files below ``root`` that a search of the paths ``limits`` reaches,
        found on disk, never through a symbolic link; numbered by negative ids."""
        rules = IgnoreRules()
        found: list[str] = []

        def visible(name: str) -> bool:
            return self.hidden or not name.startswith(".")

        for limit in limits or [""]:
            start = root / limit
            if not start.is_dir() or start.is_symlink():
                if _text_file(str(start)):
                    found.append(limit)  # a file given by name
                continue
            for directory, names, files in _walk(str(start)):
                base = Path(directory).relative_to(root).as_posix()
                base = "" if base == "." else base
                # How deep this directory's files are below the path given (1: in it).
                rel = os.path.relpath(directory, start)
                depth = 1 if rel == "." else rel.count(os.sep) + 2
                if self.ignore_files:
                    add_rules(rules, root, base, files)
                prefix = base + "/" if base else ""
                deeper = self.max_depth is None or depth < self.max_depth
                names[:] = sorted(
                    name for name in names
                    if deeper and name != ".velmora" and visible(name)
                    and not os.path.islink(os.path.join(directory, name))
                    and not rules.ignored(prefix + name, True)
                )
                if self.max_depth is not None and depth > self.max_depth:
                    continue
                found += (
                    prefix + name for name in files
                    if visible(name) and not rules.ignored(prefix + name, False)
                    and _text_file(os.path.join(directory, name))
                )
        rows: list[FileRow] = [
            FileRow(-1 - number, path, "text", None) for number, path in enumerate(sorted(set(found)))
        ]
        return ordered(root, rows, self.sort)


def _walk(top: str) -> Iterator[tuple[str, list[str], list[str]]]:
    """As ``os.walk(top)``, from the top down and never into a link, on a stack: 3.11's
    recurses, and a tree may be deeper than the recursion limit. The caller prunes ``names``
    in place, as with ``os.walk``."""
    stack = [top]
    while stack:
        directory = stack.pop()
        try:
            with os.scandir(directory) as listing:
                entries = list(listing)
        except OSError:
            continue
        names: list[str] = []
        files: list[str] = []
        for entry in entries:
            try:
                is_dir = entry.is_dir()
            except OSError:
                is_dir = False
            (names if is_dir else files).append(entry.name)
        yield directory, names, files
        stack += (os.path.join(directory, name) for name in reversed(names))


def read_rules(root: Path, ignore_files: Iterable[str]) -> IgnoreRules:
    """The rules of the ignore files named (paths relative to ``root``), by directory."""
    rules = IgnoreRules()
    directories: dict[str, list[str]] = {}
    for path in ignore_files:
        base, _, name = path.rpartition("/")
        if name in IGNORE_FILES:
            directories.setdefault(base, [])
    for base in directories:
        add_rules(rules, root, base, IGNORE_FILES)
    return rules


def add_rules(rules: IgnoreRules, root: Path, base: str, names: Iterable[str]) -> None:
    """Add the rules of the ignore files among ``names`` in the directory ``base``."""
    lines: list[str] = []
    for name in IGNORE_FILES:
        if name in names:
            try:
                data = read_bytes_no_follow(root / base / name)
            except OSError:
                continue
            lines += data.decode("utf-8", "replace").splitlines()
    if lines:
        rules.add(base, lines)


def ordered(root: Path, rows: list[FileRow], sort: str) -> list[FileRow]:
    """The rows in rg's order for ``sort``: by path, name by name, or oldest first."""
    if sort == "none":
        return rows
    if sort in ("path", "relevance"):
        # Name by name: a NUL, which no path holds, sorts a separator before any character.
        return sorted(rows, key=lambda row: row.path.replace("/", "\0"))
    field = {"modified": "st_mtime_ns", "accessed": "st_atime_ns", "created": "st_birthtime_ns"}[sort]
    times: dict[str, int] = {}

    def time_of(path: str) -> int:
        known = times.get(path)
        if known is None:
            try:
                info = os.lstat(root / path)
                # Not every file system records a birth time: the change time stands in.
                known = getattr(info, field, info.st_ctime_ns)
            except OSError:
                known = 0
            times[path] = known
        return known

    def key(row: FileRow) -> list[tuple[int, str]]:
        # rg orders the entries of each directory, a directory by its own time.
        parts = row.path.split("/")
        return [(time_of("/".join(parts[: depth + 1])), part) for depth, part in enumerate(parts)]

    return sorted(rows, key=key)


def _text_file(path: str) -> bool:
    """A regular file that is not binary, as the indexer tells them apart."""
    from velmora.index.build import is_binary

    try:
        fd = os.open(path, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC)
    except OSError:
        return False
    try:
        return os.path.isfile(path) and not os.path.islink(path) and not is_binary(os.read(fd, 8000))
    except OSError:
        return False
    finally:
        os.close(fd)
