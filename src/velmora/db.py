"""The index database handle."""

from __future__ import annotations

import sqlite3
from pathlib import Path
from typing import Any, Sequence


class Database:
    """One SQLite index database, opened on ``db_path``."""

    def __init__(self, db_path: str | Path) -> None:
        self.db_path = Path(db_path)
        self.connection = sqlite3.connect(self.db_path)

    def fetchone(self, sql: str) -> Any:
        return self.connection.execute(sql).fetchone()

    def fetchall(self, sql: str, parameters: Sequence[Any] = ()) -> list[Any]:
        return self.connection.execute(sql, parameters).fetchall()

    def close(self) -> None:
        self.connection.close()
