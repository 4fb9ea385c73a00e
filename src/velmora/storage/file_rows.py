"""The indexed files as a search takes them: one named row per file of the ``files`` table."""

from __future__ import annotations

from typing import TYPE_CHECKING, NamedTuple

if TYPE_CHECKING:
    from velmora.storage.database import Database


class FileRow(NamedTuple):
    """A file a search covers. To the module ``code_text`` it is the 4-tuple it calls a
    ``FileRow``, of which it reads the id alone."""

    id: int
    path: str  # relative to the repository's root, with "/" separators
    language: str
    sha1: str | None  # its text's hash where a reader asks for it; a search does not (None)


def select_files(db: Database) -> list[FileRow]:
    """Every indexed file, by path."""
    make = FileRow._make
    return list(db.kept("files", lambda: tuple(
        make(row) for row in db.rows("SELECT id, path, language, NULL FROM files ORDER BY path")
    )))
