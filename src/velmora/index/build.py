"""``velmora index``: keep a repository's index in step with its files."""

from __future__ import annotations

import codecs
import errno
import hashlib
import os
import sqlite3
import stat
import subprocess
import threading
import time
from collections import deque
from collections.abc import Iterator
from concurrent.futures import Future, ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path
from typing import NamedTuple

from velmora.index import safety, symbols
from velmora.index.ignore_rules import IgnoreRules
from velmora.storage import schema
from velmora.storage.database import Database
from velmora.utils.progress import Progress
from velmora.storage import chunk_store, code_text, codec, layouts, symbol_store
from velmora.storage.layouts import ChunkLayout
from velmora.utils.fsio import escaped_name, is_utf8, read_bytes_no_follow

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
_BATCH_BYTES = 64 << 20
# Files read, chunked and compressed ahead of the one writer, per worker.
_AHEAD_PER_WORKER = 8
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
    return _listing(root)[0]


def _listing(root: Path) -> tuple[list[str], list[str]]:
    """The repository's files as ``list_files`` has them, and those whose names are not
    UTF-8, which the index cannot hold as text (decoded with surrogate escapes)."""
    paths = _git_files(root)
    if paths is None:
        paths = _walk_files(root)
    paths = sorted(p for p in paths if not p.startswith(".velmora/"))
    if all(p.isascii() for p in paths):
        return paths, []
    return [p for p in paths if is_utf8(p)], [p for p in paths if not is_utf8(p)]


# Git reads the repository's own configuration, which may name commands to run (an
# fsmonitor hook, say): none of them may run for a listing of files.
_GIT_SAFE = [
    "-c", "core.fsmonitor=", "-c", "core.hooksPath=/dev/null", "-c", "core.untrackedCache=false",
    "-c", "diff.external=", "-c", "core.sshCommand=", "-c", "protocol.allow=never",
]


def _git_environment() -> dict[str, str]:
    env = {k: v for k, v in os.environ.items() if not k.startswith("GIT_")}
    env.update(GIT_CONFIG_NOSYSTEM="1", GIT_TERMINAL_PROMPT="0", GIT_OPTIONAL_LOCKS="0")
    return env


def _git_files(root: Path) -> list[str] | None:
    try:
        done = subprocess.run(
            ["git", *_GIT_SAFE, "-C", str(root), "ls-files", "-z", "--cached", "--others",
             "--exclude-standard"],
            capture_output=True,
            env=_git_environment(),
            stdin=subprocess.DEVNULL,
        )
    except OSError:
        return None
    if done.returncode != 0:
        return None
    # A path git lists twice (conflicted, or deleted but still cached) is read once.
    paths = set(os.fsdecode(done.stdout).split("\0"))
    paths.discard("")
    return list(paths)


def _walk_files(root: Path) -> list[str]:
    """Every file below ``root`` but ``.git``, ``.velmora`` and what ``.gitignore``s exclude."""
    found: list[str] = []
    rules = IgnoreRules()
    ignored = rules.ignored

    # A stack, not recursion: a tree may be deeper than Python's recursion limit.
    pending = [""]
    while pending:
        base = pending.pop()
        prefix = base + "/" if base else ""
        try:
            with os.scandir(root / base) as listing:
                entries = [(entry.name, entry.is_dir(follow_symlinks=False)) for entry in listing]
        except OSError:
            continue
        if (".gitignore", False) in entries:
            try:
                lines = (root / prefix / ".gitignore").read_text(errors="replace").splitlines()
                rules.add(base, lines)
            except OSError:
                pass
        for name, is_dir in sorted(entries, reverse=True):
            if is_dir and name in (".git", ".velmora"):
                continue
            if not ignored(prefix + name, is_dir):
                (pending if is_dir else found).append(prefix + name)
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
            f"indexed {_count(self.files, 'file')} ({self.added} added, {self.changed} changed, "
            f"{self.removed} removed): {_count(self.chunks, 'chunk')}, {self.bytes / 1e6:.1f} MB "
            f"written, {self.on_disk} kept on disk, {self.store} layout, "
            f"{self.seconds:.1f} s"
        )


def _count(n: int, noun: str) -> str:
    return f"{n} {noun}" if n == 1 else f"{n} {noun}s"


def default_layout() -> ChunkLayout:
    return layouts.COMPRESSED


def index(
    root: Path,
    store: chunk_store.Layout | None = None,
    progress: bool = True,
    rebuild: bool = False,
    workers: int | None = None,
    wait: bool = True,
) -> Summary:
    """Index the repository at ``root``, or bring its index up to date.

    ``store`` forces a chunk layout (an index in another layout is converted); None keeps
    the index's layout, or picks one for a new index.  ``rebuild`` starts over, beside the
    old index, which is replaced only once the new one is complete. One pass runs at a time:
    without ``wait``, ``safety.IndexBusy`` when another runs.
    """
    started = time.monotonic()
    db_path = safety.index_file(root)
    forced = layouts.named(store) if store else None
    with safety.pass_lock(db_path, wait=wait, say=progress):
        run_ns = time.time_ns()
        if rebuild:
            built = db_path.with_name(db_path.name + ".new")
            safety.remove_index_file(built)
            summary = _index_at(built, root, forced, run_ns, progress, workers)
            safety.replace_index_file(built, db_path)
        else:
            summary = _index_at(db_path, root, forced, run_ns, progress, workers)
    summary.seconds = time.monotonic() - started
    return summary


def _index_at(
    db_path: Path, root: Path, forced: ChunkLayout | None, run_ns: int, progress: bool,
    workers: int | None,
) -> Summary:
    if os.path.lexists(db_path):
        db = schema.open_index(db_path, progress)
    else:
        safety.create_private_file(db_path)
        db = Database(db_path)
        schema.create(db, forced or default_layout())
    try:
        safety.for_writing(db)
        return _update(db, root, forced, run_ns, progress, workers)
    finally:
        db.close()


def _update(
    db: Database,
    root: Path,
    forced: ChunkLayout | None,
    run_ns: int,
    progress: bool,
    workers: int | None,
) -> Summary:
    current = db.layout
    wanted = forced or current or default_layout()
    paths, unnamed = _listing(root)
    with db.transaction() as cursor:
        # A new index, or one converted to another layout, is loaded whole.
        bulk = current != wanted or not cursor.execute("SELECT 1 FROM files").fetchone()
        if current != wanted:
            layouts.drop_tables(cursor)
            wanted.create_tables(cursor)
            schema.set_meta(cursor, schema.PAIR_MARK, "1")
            # Every file is parsed again into the new layout; a size of -1 never matches.
            cursor.execute("UPDATE files SET size = -1, text_on_disk = 0, chunks = 0")
        cursor.execute(schema.ON_DISK_INDEX_DDL)
        wanted.prepare_load(cursor, lambda: _samples(root, paths))
        wanted.set_bulk_load(cursor, bulk)
        schema.set_meta(cursor, schema.PASS_MARK, str(run_ns))
    db.layout = wanted
    dictionary = wanted.dictionary(db)
    last_run = schema.whole_number(schema.get_meta(db, "last_run_ns"))
    known = {
        row[0]: _Known._make(row[1:])
        # A size that is not a number (a tampered row) marks the file for a full read.
        for row in db.rows(
            "SELECT path, id, CASE typeof(size) WHEN 'integer' THEN size ELSE -1 END, "
            "mtime_ns, sha1, inode FROM files"
        )
    }
    left_out = {row[0]: row[1:] for row in db.fetchall("SELECT * FROM skipped")}
    summary = Summary(store=wanted.name)
    extracting = symbols.available()
    # An index without every file's definitions (converted from an older form, or made
    # without ctags) reads every file again for them.
    reread = extracting and schema.get_meta(db, symbol_store.MARK) is None
    seen, skipped, work = _survey(root, paths, known, left_out, -1 if reread else last_run)
    skipped |= _not_utf8(root, unnamed)
    bar = Progress(len(paths)) if progress else None
    if bar:
        bar.update(len(paths) - len(work))
    writer = _Writer(db, wanted, summary)
    with _Pool(workers, wanted, dictionary) as pool:
        try:
            for done, (path, outcome) in enumerate(pool.prepared(root, work), len(paths) - len(work) + 1):
                if bar:
                    bar.update(done)
                if isinstance(outcome, _LeftOut):
                    skipped[path] = outcome
                else:
                    seen.add(path)
                    writer.write(known.get(path), outcome)
            writer.commit()
        except BaseException:
            writer.rollback()
            raise
    with db.transaction() as cursor:
        for path in known.keys() - seen:
            wanted.drop_chunks(cursor, known[path].id)
            symbol_store.drop(cursor, known[path].id)
            cursor.execute("DELETE FROM files WHERE id = ?", (known[path].id,))
            summary.removed += 1
        cursor.execute("DELETE FROM skipped")
        cursor.executemany(
            "INSERT INTO skipped (path, reason, size, mtime_ns, inode) VALUES (?, ?, ?, ?, ?)",
            [(path, *why) for path, why in skipped.items()],
        )
        schema.set_meta(cursor, "last_run_ns", str(run_ns))
        schema.set_meta(cursor, "last_pass_seconds", f"{(time.time_ns() - run_ns) / 1e9:.3f}")
        if bulk:
            wanted.optimize(cursor)
            wanted.set_bulk_load(cursor, False)
            _reclaim(cursor)
        if extracting:
            schema.set_meta(cursor, symbol_store.MARK, "1")
        else:
            schema.delete_meta(cursor, symbol_store.MARK)
        schema.delete_meta(cursor, schema.PASS_MARK)
    if bar:
        bar.close()
    summary.files, summary.on_disk = db.fetchall(
        "SELECT COUNT(*), COUNT(*) FILTER (WHERE text_on_disk != 0) FROM files"
    )[0]
    return summary


def _reclaim(cursor: sqlite3.Cursor) -> None:
    """Give the file system back the pages a merge freed (in an index made with auto_vacuum).

    sqlite3 steps the pragma once, and each step moves one page; the last statement is
    read to its end so that the transaction can commit.
    """
    for _ in range(cursor.execute("PRAGMA freelist_count").fetchone()[0]):
        cursor.execute("PRAGMA incremental_vacuum")
    cursor.execute("PRAGMA freelist_count").fetchall()


def _samples(root: Path, paths: list[str]) -> list[bytes]:
    """Texts to train the codec's dictionary on: whole files spread over the repository."""
    samples: list[bytes] = []
    total = 0
    step = max(1, len(paths) // 2000)
    for path in paths[::step]:
        try:
            data = read_bytes_no_follow(root / path)
        except OSError:
            continue
        if is_binary(data):
            continue
        # Chunk-sized pieces, as the codec will see them.
        samples += [data[i : i + 4096] for i in range(0, min(len(data), 64 << 10), 4096)]
        total += min(len(data), 64 << 10)
        if total >= codec.SAMPLE_BYTES:
            break
    return samples


class _Known(NamedTuple):
    id: int
    size: int
    mtime_ns: int
    sha1: str
    inode: int


class _Prepared(NamedTuple):
    """What a worker made of a file that is indexed: its row, and its chunks if they changed."""

    path: str
    size: int
    mtime_ns: int
    inode: int
    sha1: str
    language: str
    on_disk: bool
    encoded: list[tuple] | None  # None: the stored chunks still hold its text
    definitions: list[symbols.Definition]


class _LeftOut(NamedTuple):
    reason: str
    size: int
    mtime_ns: int
    inode: int


def _survey(
    root: Path,
    paths: list[str],
    known: dict[str, _Known],
    left_out: dict[str, tuple],
    last_run: int,
) -> tuple[set[str], dict[str, _LeftOut], list[tuple[str, os.stat_result, _Known | None]]]:
    """Sort the listed files by their metadata alone: indexed and unchanged (by size,
    mtime and inode), left out (with the reason), or to be read; a file gone since it was
    listed is none of these.  Runs once per file of the repository, so it stays lean."""
    seen: set[str] = set()
    skipped: dict[str, _LeftOut] = {}
    work: list[tuple[str, os.stat_result, _Known | None]] = []
    prefix = os.path.join(root, "")
    lstat, is_file, is_link = os.lstat, stat.S_ISREG, stat.S_ISLNK
    settled = last_run - _RACY_NS
    for path in paths:
        try:
            info = lstat(prefix + path)
        except OSError:
            continue
        stamp = (info.st_size, info.st_mtime_ns, info.st_ino)
        if not is_file(info.st_mode):
            skipped[path] = _LeftOut("symlink" if is_link(info.st_mode) else "not a file", *stamp)
            continue
        old = known.get(path)
        if info.st_mtime_ns < settled:
            if old is not None and stamp == (old.size, old.mtime_ns, old.inode):
                seen.add(path)
                continue
            if old is None and path in left_out and stamp == tuple(left_out[path][1:]):
                skipped[path] = _LeftOut(*left_out[path])
                continue
        work.append((path, info, old))
    return seen, skipped, work


def _not_utf8(root: Path, paths: list[str]) -> dict[str, _LeftOut]:
    """Files left out for their names, under their escaped names (a search reads them
    from disk)."""
    left: dict[str, _LeftOut] = {}
    for path in paths:
        try:
            info = os.lstat(root / path)
        except OSError:
            continue
        if stat.S_ISREG(info.st_mode):
            left[escaped_name(path)] = _LeftOut(
                schema.NOT_UTF8, info.st_size, info.st_mtime_ns, info.st_ino)
    return left


def _prepare(
    root: Path, path: str, info: os.stat_result, known: _Known | None, layout: ChunkLayout, encoder,
    extractor: symbols.Extractor,
) -> _Prepared | _LeftOut:
    """Read, check, chunk and encode one file, or say why it is left out."""
    stamp = (info.st_size, info.st_mtime_ns, info.st_ino)
    try:
        data = read_bytes_no_follow(root / path)
    except OSError as error:
        return _LeftOut("symlink" if error.errno == errno.ELOOP else "unreadable", *stamp)
    if is_binary(data):
        return _LeftOut("binary", *stamp)
    sha1 = hashlib.sha1(data).hexdigest()
    stamp = (len(data), info.st_mtime_ns, info.st_ino)
    definitions = extractor.definitions(path, data)
    if known is not None and sha1 == known.sha1 and known.size >= 0:
        return _Prepared(path, *stamp, sha1, "", False, None, definitions)
    text = data.decode("utf-8", errors="replace")
    language = language_of(path)
    chunks = code_text.code_chunks(text)
    if len(chunks) >= chunk_store.CHUNK_STRIDE:
        return _LeftOut("too many lines", *stamp)
    on_disk = code_text.text_kept_on_disk(language, code_text.stored_text_bytes(text))
    encoded = [] if on_disk else layout.encode_chunks(encoder, chunks)
    return _Prepared(path, *stamp, sha1, language, on_disk, encoded, definitions)


class _Pool:
    """Reads, chunks and encodes files on worker threads, ahead of the one writer.

    Threads rather than processes: reading, hashing, compressing and SQLite's own work let
    go of the GIL, and nothing has to be copied between processes (bench/bench_index.py).
    """

    def __init__(self, workers: int | None, layout: ChunkLayout, dictionary: bytes) -> None:
        self.workers = workers or min(4, os.cpu_count() or 1)
        self.layout, self.dictionary = layout, dictionary
        self.local = threading.local()
        self.extractors: list[symbols.Extractor] = []

    def __enter__(self) -> _Pool:
        self.executor = ThreadPoolExecutor(self.workers, thread_name_prefix="velmora-index")
        return self

    def __exit__(self, *exc_info: object) -> None:
        # On Ctrl-C the files queued are dropped; those being read finish first.
        self.executor.shutdown(wait=True, cancel_futures=True)
        for extractor in self.extractors:
            extractor.close()

    def prepared(
        self, root: Path, work: list[tuple[str, os.stat_result, _Known | None]]
    ) -> Iterator[tuple[str, _Prepared | _LeftOut]]:
        """Each file's outcome, in order: prepared, or the reason it is left out."""
        pending: deque[tuple[str, Future]] = deque()
        ahead = self.workers * _AHEAD_PER_WORKER
        for path, info, old in work:
            pending.append((path, self.executor.submit(self._prepare, root, path, info, old)))
            if len(pending) > ahead:
                path, future = pending.popleft()
                yield path, future.result()
        while pending:
            path, future = pending.popleft()
            yield path, future.result()

    def _prepare(self, root: Path, path: str, info: os.stat_result, known: _Known | None):
        if not hasattr(self.local, "encoder"):
            self.local.encoder = self.layout.encoder(self.dictionary)
        extractor = getattr(self.local, "extractor", None)
        if extractor is None:
            extractor = self.local.extractor = symbols.Extractor()
            self.extractors.append(extractor)
        return _prepare(root, path, info, known, self.layout, self.local.encoder, extractor)


class _Writer:
    """The one writer: files' rows and chunks, committed in batches."""

    def __init__(self, db: Database, layout: ChunkLayout, summary: Summary) -> None:
        self.connection = db.connection
        self.layout, self.summary = layout, summary
        self.cursor: sqlite3.Cursor | None = None
        self.files = self.bytes = 0

    def write(self, known: _Known | None, done: _Prepared) -> None:
        cursor = self.cursor
        if cursor is None:
            cursor = self.cursor = self.connection.cursor()
            cursor.execute("BEGIN IMMEDIATE")
        stamp = (done.size, done.mtime_ns, done.inode)
        if done.encoded is None:
            assert known is not None
            file_id = known.id
            cursor.execute(
                "UPDATE files SET size = ?, mtime_ns = ?, inode = ? WHERE id = ?", (*stamp, file_id)
            )
        else:
            row = (done.language, *stamp, done.sha1, int(done.on_disk), len(done.encoded))
            if known is None:
                added = cursor.execute(
                    "INSERT INTO files (language, size, mtime_ns, inode, sha1, text_on_disk, "
                    "chunks, path) VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
                    (*row, done.path),
                ).lastrowid
                assert added is not None  # an INSERT always gives its row id
                file_id = added
                self.summary.added += 1
            else:
                file_id = known.id
                self.layout.drop_chunks(cursor, file_id)
                cursor.execute(
                    "UPDATE files SET language = ?, size = ?, mtime_ns = ?, inode = ?, sha1 = ?, "
                    "text_on_disk = ?, chunks = ? WHERE id = ?",
                    (*row, file_id),
                )
                self.summary.changed += 1
            if not done.on_disk:
                self.layout.insert(cursor, file_id, done.encoded)
                self.summary.chunks += len(done.encoded)
                self.summary.bytes += done.size
                self.bytes += done.size
        symbol_store.replace(cursor, file_id, done.definitions)
        self.files += 1
        if self.files >= _BATCH_FILES or self.bytes >= _BATCH_BYTES:
            self.commit()

    def commit(self) -> None:
        if self.cursor is not None:
            self.connection.commit()
        self.cursor, self.files, self.bytes = None, 0, 0

    def rollback(self) -> None:
        if self.cursor is not None:
            self.connection.rollback()
        self.cursor, self.files, self.bytes = None, 0, 0
