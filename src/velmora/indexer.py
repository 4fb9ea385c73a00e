"""``velmora index``: keep a repository's index in step with its files."""

from __future__ import annotations

import codecs
import hashlib
import os
import stat
import subprocess
import sys
import time
from dataclasses import dataclass
from pathlib import Path
from typing import TextIO

import pathspec

from velmora import schema
from velmora.db import Database
from velmora.storage import chunk_store, code_text
from velmora.utils.fsio import read_bytes_no_follow

LANGUAGES = {
    ".c": "c", ".h": "c", ".cc": "cpp", ".cpp": "cpp", ".cxx": "cpp", ".hh": "cpp",
    ".hpp": "cpp", ".cs": "csharp", ".css": "css", ".go": "go", ".html": "html",
    ".htm": "html", ".java": "java", ".js": "javascript", ".mjs": "javascript",
    ".json": "json", ".kt": "kotlin", ".lua": "lua", ".md": "markdown", ".php": "php",
    ".py": "python", ".pyi": "python", ".rb": "ruby", ".rs": "rust", ".scala": "scala",
    ".sh": "shell", ".sql": "sql", ".swift": "swift", ".toml": "toml", ".ts": "typescript",
    ".tsx": "typescript", ".jsx": "javascript", ".xml": "xml", ".yaml": "yaml",
    ".yml": "yaml",
}

# Files are committed in batches: an interrupted run keeps what it finished, and every
# file's row and chunks always land together.
_BATCH_FILES = 500
# A file whose mtime is this close to the previous run's start may have changed again
# within the same clock tick after it was read; it is compared by content instead.
_RACY_NS = 2_000_000_000


def language_of(path: str) -> str:
    return LANGUAGES.get(os.path.splitext(path)[1].lower(), "text")


def is_binary(data: bytes) -> bool:
    """Binary: a NUL in the first 8000 bytes that are not UTF-8 text either."""
    head = data[:8000]
    if b"\0" not in head:
        return False
    try:
        codecs.getincrementaldecoder("utf-8")().decode(head, final=False)
    except UnicodeDecodeError:
        return True
    return False


def list_files(root: Path) -> list[str]:
    """The repository's files, relative to ``root`` with "/" separators, sorted."""
    paths = _git_files(root)
    if paths is None:
        paths = _walk_files(root)
    return sorted(p for p in paths if not p.startswith(".velmora/") and _storable(p))


def _storable(path: str) -> bool:
    # A name that is not UTF-8 cannot be stored as text in the index.
    try:
        path.encode("utf-8")
    except UnicodeEncodeError:
        return False
    return True


def _git_files(root: Path) -> list[str] | None:
    try:
        done = subprocess.run(
            ["git", "-C", str(root), "ls-files", "-z", "--cached", "--others",
             "--exclude-standard"],
            capture_output=True,
        )
    except OSError:
        return None
    if done.returncode != 0:
        return None
    # A path git lists twice (conflicted, or deleted but still cached) is read once.
    return sorted({os.fsdecode(p) for p in done.stdout.split(b"\0") if p})


def _walk_files(root: Path) -> list[str]:
    """Every file below ``root`` but ``.git``, ``.velmora`` and what ``.gitignore``s exclude."""
    found: list[str] = []
    specs: dict[str, pathspec.GitIgnoreSpec] = {}

    def ignored(rel: str, is_dir: bool) -> bool:
        # The deepest .gitignore with a rule for the path decides, as in git.
        parts = rel.split("/")
        for depth in range(len(parts) - 1, -1, -1):
            base = "/".join(parts[:depth])
            spec = specs.get(base)
            if spec is None:
                continue
            sub = "/".join(parts[depth:]) + ("/" if is_dir else "")
            include = spec.check_file(sub).include
            if include is not None:
                return include
        return False

    for dirpath, dirnames, filenames in os.walk(root):
        base = Path(dirpath).relative_to(root).as_posix()
        base = "" if base == "." else base
        if ".gitignore" in filenames:
            try:
                lines = (Path(dirpath) / ".gitignore").read_text(errors="replace").splitlines()
                specs[base] = pathspec.GitIgnoreSpec.from_lines(lines)
            except OSError:
                pass
        prefix = base + "/" if base else ""
        dirnames[:] = sorted(
            d for d in dirnames
            if d not in (".git", ".velmora") and not ignored(prefix + d, True)
        )
        found += (prefix + f for f in filenames if not ignored(prefix + f, False))
    return found


@dataclass
class Summary:
    files: int = 0
    added: int = 0
    changed: int = 0
    removed: int = 0
    chunks: int = 0
    bytes: int = 0
    on_disk: int = 0
    seconds: float = 0.0
    store: str = ""

    def line(self) -> str:
        return (
            f"indexed {self.files} files ({self.added} added, {self.changed} changed, "
            f"{self.removed} removed): {self.chunks} chunks, {self.bytes / 1e6:.1f} MB "
            f"written, {self.on_disk} kept on disk, {self.store} layout, "
            f"{self.seconds:.1f} s"
        )


class Progress:
    """A one-line progress bar on a terminal; silent otherwise."""

    def __init__(self, total: int, stream: TextIO | None = None) -> None:
        self.stream = stream if stream is not None else sys.stderr
        self.total = total
        self.shown = self.stream.isatty()
        self.last = 0.0

    def update(self, done: int, force: bool = False) -> None:
        now = time.monotonic()
        if not self.shown or (now - self.last < 0.1 and not force):
            return
        self.last = now
        width = 30
        filled = width * done // max(self.total, 1)
        self.stream.write(
            f"\rindexing [{'#' * filled}{'.' * (width - filled)}] {done}/{self.total} files"
        )
        self.stream.flush()

    def close(self) -> None:
        if self.shown:
            self.update(self.total, force=True)
            self.stream.write("\n")
            self.stream.flush()


def default_layout() -> chunk_store.Layout:
    return "compressed" if chunk_store.contentless_delete_supported() else "code_chunks"


def index(
    root: Path, store: chunk_store.Layout | None = None, progress: bool = True
) -> Summary:
    """Index the repository at ``root``, or bring its index up to date.

    ``store`` forces a chunk layout (an index in another layout is converted); None keeps
    the index's layout, or picks one for a new index.
    """
    started = time.monotonic()
    run_ns = time.time_ns()
    db_path = schema.index_path(root)
    if db_path.exists():
        db = schema.open_index(db_path)
    else:
        db_path.parent.mkdir(parents=True, exist_ok=True)
        # Keep the index out of git's view of the work tree.
        (db_path.parent.parent / ".gitignore").write_text("*\n")
        db = Database(db_path)
        schema.create(db, store or default_layout())
    try:
        summary = _update(db, root, store, run_ns, progress)
    finally:
        db.close()
    summary.seconds = time.monotonic() - started
    return summary


def _update(
    db: Database, root: Path, store: chunk_store.Layout | None, run_ns: int, progress: bool
) -> Summary:
    current = chunk_store.layout(db)
    wanted = store or current or default_layout()
    with db.transaction() as cursor:
        # A new index, or one converted to another layout, is loaded whole.
        bulk = current != wanted or not cursor.execute("SELECT 1 FROM files").fetchone()
        if current != wanted:
            chunk_store.drop_tables(cursor)
            chunk_store.create_tables(cursor, wanted)
            # Every file is parsed again into the new layout; a size of -1 never matches.
            cursor.execute("UPDATE files SET size = -1, text_on_disk = 0")
        chunk_store.set_bulk_load(cursor, wanted, bulk)
    last_run = int(schema.get_meta(db, "last_run_ns") or 0)
    known = {
        path: (file_id, size, mtime_ns, sha1)
        for file_id, path, size, mtime_ns, sha1 in db.fetchall(
            "SELECT id, path, size, mtime_ns, sha1 FROM files"
        )
    }
    paths = list_files(root)
    summary = Summary(store=wanted)
    bar = Progress(len(paths)) if progress else None
    seen: set[str] = set()
    for start in range(0, len(paths), _BATCH_FILES):
        with db.transaction() as cursor:
            for done, path in enumerate(paths[start : start + _BATCH_FILES], start):
                if _index_file(cursor, root, path, known.get(path), wanted, last_run, summary):
                    seen.add(path)
                if bar:
                    bar.update(done + 1)
    with db.transaction() as cursor:
        for path, (file_id, *_) in known.items():
            if path not in seen:
                chunk_store.drop_chunks(cursor, wanted, file_id)
                cursor.execute("DELETE FROM files WHERE id = ?", (file_id,))
                summary.removed += 1
        schema.set_meta(cursor, "last_run_ns", str(run_ns))
        if bulk:
            chunk_store.optimize(cursor, wanted)
            chunk_store.set_bulk_load(cursor, wanted, False)
    if bar:
        bar.close()
    summary.files, summary.on_disk = db.fetchall(
        "SELECT COUNT(*), coalesce(sum(text_on_disk), 0) FROM files"
    )[0]
    return summary


def _index_file(
    cursor, root: Path, path: str, known, store, last_run: int, summary: Summary
) -> bool:
    """Bring one file's row and chunks up to date; False when it is not indexed."""
    location = root / path
    try:
        info = os.lstat(location)
    except OSError:
        return False
    if not stat.S_ISREG(info.st_mode):
        return False
    if (
        known is not None
        and (info.st_size, info.st_mtime_ns) == (known[1], known[2])
        and info.st_mtime_ns + _RACY_NS < last_run
    ):
        return True
    try:
        data = read_bytes_no_follow(location)
    except OSError:
        return False
    if is_binary(data):
        return False
    sha1 = hashlib.sha1(data).hexdigest()
    if known is not None and sha1 == known[3] and known[1] >= 0:
        cursor.execute(
            "UPDATE files SET size = ?, mtime_ns = ? WHERE id = ?",
            (len(data), info.st_mtime_ns, known[0]),
        )
        return True

    text = data.decode("utf-8", errors="replace")
    language = language_of(path)
    chunks = code_text.code_chunks(text)
    if len(chunks) >= chunk_store.CHUNK_STRIDE:
        return False
    on_disk = code_text.text_kept_on_disk(language, code_text.stored_text_bytes(text))
    row = (language, len(data), info.st_mtime_ns, sha1, int(on_disk))
    if known is None:
        file_id = cursor.execute(
            "INSERT INTO files (path, language, size, mtime_ns, sha1, text_on_disk) "
            "VALUES (?, ?, ?, ?, ?, ?)",
            (path, *row),
        ).lastrowid
        summary.added += 1
    else:
        file_id = known[0]
        chunk_store.drop_chunks(cursor, store, file_id)
        cursor.execute(
            "UPDATE files SET language = ?, size = ?, mtime_ns = ?, sha1 = ?, "
            "text_on_disk = ? WHERE id = ?",
            (*row, file_id),
        )
        summary.changed += 1
    if not on_disk:
        chunk_store.store_chunks(cursor, store, file_id, chunks)
        summary.chunks += len(chunks)
        summary.bytes += len(data)
    return True
