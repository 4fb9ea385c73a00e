"""The ``velmora`` command's fast path: a search handed to its repository's resident server.

It imports builtin modules only, so that a search answered by a server costs the interpreter's
start-up and little more; anything else (another command, no server) runs the full command.
"""

from __future__ import annotations

import _socket
import os
import sys

from velmora.serve import wire


def main() -> None:
    argv = sys.argv[1:]
    status = forward(argv)
    if status is None:
        from velmora.cli import main as run

        status = run(argv)
    sys.exit(status)


def wanted(argv: list[str]) -> bool:
    """Whether this command may be answered by a server: a search, not told otherwise."""
    options = argv[: argv.index("--")] if "--" in argv else argv
    return (
        argv[:2] == ["search", "code"]
        and "--no-server" not in options
        and not os.environ.get("VELMORA_NO_SERVER")
    )


def forward(argv: list[str]) -> int | None:
    """The search's exit status, the server's worker having written its output to this
    process's own standard output and error; None when no server took it (no server runs,
    it leaves this search to the command, or the output is no file to hand over)."""
    if not wanted(argv):
        return None
    out, err = sys.stdout, sys.stderr
    try:
        descriptors = [out.fileno(), err.fileno()]
        out.flush()
        err.flush()
    except (AttributeError, ValueError, OSError):  # closed, or a stream of an embedding
        return None
    cwd = os.getcwd()
    sock = wire.connect(_root(cwd))
    if sock is None:
        return None
    try:
        try:
            encoding = getattr(out, "encoding", None) or "utf-8"
            errors = getattr(out, "errors", None) or "strict"
            wire.send(sock, wire.request(["search", wire.PACKAGE, cwd, encoding, errors, *argv]), descriptors)
        except OSError:
            return None  # nothing was written: the command searches itself
        while (answer := wire.read_frame(sock)) is not None:
            kind, payload = answer
            if kind == wire.EXIT:
                _ended(sock)
                return int(payload)
            if kind == wire.FALLBACK:
                return None
            (out if kind == wire.OUT else err).write(payload.decode(encoding, "replace"))
    except OSError:
        pass
    except KeyboardInterrupt:
        _stopped(sock)
        print("velmora: interrupted", file=err)
        return 130
    finally:
        sock.close()
    print("velmora: error: the server stopped in the middle of the search", file=err)
    return 2


def _stopped(sock) -> None:
    """Tell the server to stop the search, and wait until it has: its worker writes to this
    process's output, and must not once this process is gone."""
    try:
        sock.shutdown(_socket.SHUT_WR)
    except OSError:
        return
    _ended(sock)


def _ended(sock) -> None:
    """Wait for the server to close the connection: by then it holds nothing of this search."""
    try:
        while sock.recv(4096):
            pass
    except (OSError, KeyboardInterrupt):
        pass


def _root(cwd: str) -> str:
    """The repository holding ``cwd``, found as the full command finds it."""
    directory = cwd
    while True:
        if any(os.path.lexists(os.path.join(directory, mark)) for mark in (".velmora", ".git")):
            return directory
        parent = os.path.dirname(directory)
        if parent == directory:
            return cwd
        directory = parent


if __name__ == "__main__":
    main()
