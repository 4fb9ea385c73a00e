"""The definitions a file makes (name, kind, line, scope), found by universal-ctags.

ctags runs as one long-lived process per indexing thread, in its interactive mode with its
sandbox on: each file's bytes, already read and checked by the indexer, go to it through
a pipe, so it opens no file of the repository (nor any other), and reads no configuration
(``--options=NONE``). A file it takes longer than ``SECONDS_PER_FILE`` over ends that
process (a new one serves the next file) and gets no definitions.
"""

from __future__ import annotations

import contextlib
import json
import os
import select
import shutil
import subprocess
import time
from functools import cache
from typing import NamedTuple

SECONDS_PER_FILE = 5.0
# After this many files in a row on which ctags died, it is taken to be unusable here (a
# sandbox the system refuses, say) and the extractor stops starting it.
_FAILURES_TO_GIVE_UP = 3
# Larger files are mostly generated or data: their definitions are not worth the time.
MAX_BYTES = 2 << 20
# Data formats whose "definitions" are every key of every record.
_LEFT_OUT = "-JSON,-XML,-SVG,-PlistXML,-JavaProperties,-Iniconf,-Passwd"
_COMMAND = [
    "--options=NONE", "--_interactive=sandbox", "--output-format=json", "--fields=NnKs",
    f"--languages=all,{_LEFT_OUT}",
]


class Definition(NamedTuple):
    name: str
    kind: str
    line: int
    scope: str | None  # the enclosing class, function or namespace, when there is one


def available() -> bool:
    """Whether universal-ctags can be run here."""
    return _program() is not None


@cache
def _program() -> str | None:
    """The path of a universal-ctags that takes files through a pipe, if there is one (an
    older ctags of the same name does not)."""
    program = shutil.which("ctags")
    if program is None:
        return None
    try:
        features = subprocess.run(
            [program, "--options=NONE", "--list-features"], capture_output=True, text=True,
            stdin=subprocess.DEVNULL, timeout=SECONDS_PER_FILE, env={"PATH": os.defpath},
        ).stdout
    except (OSError, subprocess.SubprocessError):
        return None
    wanted = {"interactive", "json", "sandbox"}
    return program if wanted <= {line.split()[0] for line in features.splitlines() if line} else None


def _storable(value: object) -> str:
    # A lone surrogate (an escape in ctags's JSON) cannot be stored as text.
    return str(value).encode("utf-8", "replace").decode("utf-8")


class Extractor:
    """One ctags process, started on first use; not to be shared between threads."""

    def __init__(self) -> None:
        self._process: subprocess.Popen[bytes] | None = None
        self._pending = b""
        self._failures = 0

    def definitions(self, path: str, data: bytes) -> list[Definition]:
        """The definitions in ``data``, the text of the file at ``path`` (whose name tells
        ctags the language); none when ctags does not know the language, is missing, or
        runs out of time."""
        if len(data) > MAX_BYTES or not data or self._failures >= _FAILURES_TO_GIVE_UP:
            return []
        process = self._started()
        if process is None:
            return []
        request = json.dumps({"command": "generate-tags", "filename": path, "size": len(data)})
        try:
            assert process.stdin is not None
            process.stdin.write(request.encode() + b"\n" + data)
            process.stdin.flush()
            found = self._read_answer(process)
        except (OSError, ValueError):
            self.close()  # it died, or answered what it should not have
            found = None
        self._failures = 0 if found is not None else self._failures + 1
        return found or []

    def _started(self) -> subprocess.Popen[bytes] | None:
        if self._process is None:
            program = _program()
            if program is None:
                return None
            self._process = subprocess.Popen(
                [program, *_COMMAND], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                stderr=subprocess.DEVNULL, cwd="/", env={"PATH": os.defpath},
            )
            self._pending = b""
        return self._process

    def _read_answer(self, process: subprocess.Popen[bytes]) -> list[Definition]:
        """The definitions ctags gives for the file just sent; none when it is out of time."""
        assert process.stdout is not None
        deadline = time.monotonic() + SECONDS_PER_FILE
        found: list[Definition] = []
        fd = process.stdout.fileno()
        while True:
            while b"\n" in self._pending:
                line, self._pending = self._pending.split(b"\n", 1)
                # Bytes of the file that are not UTF-8 may reach a name as they are.
                record = json.loads(line.decode("utf-8", "replace"))
                kind = record.get("_type")
                if kind == "completed":
                    return found
                if kind == "tag":
                    scope = record.get("scope")
                    found.append(Definition(
                        _storable(record["name"]), _storable(record.get("kind", "")),
                        int(record["line"]), None if scope is None else _storable(scope),
                    ))
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([fd], [], [], left)[0]:
                self.close()  # out of time: a new process takes the next file
                return []
            chunk = os.read(fd, 1 << 16)
            if not chunk:
                raise OSError("ctags stopped")
            self._pending += chunk

    def close(self) -> None:
        process, self._process = self._process, None
        if process is not None:
            process.kill()
            process.wait()
            for stream in (process.stdin, process.stdout):
                if stream is not None:
                    # A ctags that died before reading leaves the request in stdin's buffer:
                    # closing it fails to flush, and still closes the pipe.
                    with contextlib.suppress(BrokenPipeError):
                        stream.close()
