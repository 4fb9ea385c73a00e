"""``velmora status``: what the index holds, and what it left out and why."""

from __future__ import annotations

import os
import time
from pathlib import Path

from velmora.storage import schema


def report(root: Path) -> str:
    """The status of the repository's index, as text in the manner of ``git status``."""
    db_path = schema.index_path(root)
    if not os.path.lexists(db_path):
        return "No index yet.\n  (use \"velmora index\" to build one)\n"
    db = schema.open_index(db_path)
    try:
        db.read_only()
        files, text_bytes, on_disk = db.fetchall(
            "SELECT COUNT(*), coalesce(sum(size), 0), COUNT(*) FILTER (WHERE text_on_disk != 0) "
            "FROM files"
        )[0]
        skipped = db.fetchall(
            "SELECT reason, path FROM skipped WHERE reason != ? ORDER BY reason, path",
            (schema.NOT_UTF8,))
        odd = db.fetchall(
            "SELECT path FROM skipped WHERE reason = ? ORDER BY path", (schema.NOT_UTF8,))
        kept = db.fetchall("SELECT path FROM files WHERE text_on_disk != 0 ORDER BY path")
        store = None if db.layout is None else db.layout.name
        last_run = schema.get_meta(db, "last_run_ns")
        seconds = schema.get_meta(db, "last_pass_seconds")
        running = schema.get_meta(db, schema.PASS_MARK)
    finally:
        db.close()
    size = sum(
        os.lstat(p).st_size
        for p in (db_path, db_path.with_name(db_path.name + "-wal"))
        if os.path.lexists(p)
    )
    lines = [
        f"Index {db_path.relative_to(root)}: {store} layout, {_size(size)}"
        + (f" ({size / text_bytes:.2f}x the text)" if text_bytes else ""),
        f"Indexed: {files} file{'s' if files != 1 else ''}, {_size(text_bytes)} of text"
        + (f", {on_disk} kept on disk (read from the files at search time)" if on_disk else ""),
    ]
    if last_run:
        lines.append(f"Last pass: {_when(int(last_run))}" + (f", took {float(seconds):.1f} s" if seconds else ""))
    if running:
        lines.append(
            f"A pass has been writing since {_when(int(running))} and has not finished"
            " (or was interrupted): the index may be incomplete"
        )
    if kept:
        lines += ["", "Kept on disk (large data files):", *(f"\t{path}" for (path,) in kept)]
    if odd:
        lines += ["", "Names not UTF-8 (read from the files at search time):",
                  *(f"\t{path}" for (path,) in odd)]
    if skipped:
        lines += ["", "Left out of the index:", '  (these files are not searched)']
        lines += [f"\t{reason + ':':<16}{path}" for reason, path in skipped]
    else:
        lines += ["", "Nothing left out."]
    return "\n".join(lines) + "\n"


def _size(n: int) -> str:
    if n < 1000:
        return f"{n} bytes"
    return f"{n / 1e6:.1f} MB" if n >= 100_000 else f"{n / 1e3:.1f} kB"


def _when(ns: int) -> str:
    return time.strftime("%Y-%m-%d %H:%M:%S UTC", time.gmtime(ns / 1e9))
