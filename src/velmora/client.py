"""The ``velmora`` command's fast path: a search handed to its repository's resident server.

It imports builtin modules only, so that a search answered by a server costs the interpreter's
start-up and little more; anything else (another command, no server) runs the full command.
"""

from __future__ import annotations

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
    """The search's exit status, its output written as it comes; None when no server took it
    (no server runs, or it leaves this search to the command)."""
    if not wanted(argv) or sys.stdout is None:  # the full command reports a closed output
        return None
    cwd = os.getcwd()
    sock = wire.connect(_root(cwd))
    if sock is None:
        return None
    out, err = sys.stdout, sys.stderr
    written = False
    try:
        tty = "1" if out.isatty() else "0"
        encoding = getattr(out, "encoding", None) or "utf-8"
        errors = getattr(out, "errors", None) or "strict"
        sock.sendall(wire.request(["search", wire.PACKAGE, cwd, tty, encoding, errors, *argv]))
        out.flush()
        while (answer := wire.read_frame(sock)) is not None:
            kind, payload = answer
            if kind == wire.EXIT:
                return int(payload)
            if kind == wire.FALLBACK and not written:
                return None
            written = True
            stream = out if kind == wire.OUT else err
            try:
                if hasattr(stream, "buffer"):
                    stream.buffer.write(payload)
                else:  # a text stream put in place of the standard one (tests, embedding)
                    stream.write(payload.decode(encoding, errors))
                stream.flush()
            except BrokenPipeError:
                # The reader went away (``| head``): stop quietly, as the full command does.
                os.dup2(os.open(os.devnull, os.O_WRONLY), stream.fileno())
                return 0
            except OSError as error:  # a full disk under the output, say
                os.dup2(os.open(os.devnull, os.O_WRONLY), stream.fileno())
                print(f"velmora: error: {error.strerror or error}", file=err)
                return 2
    except OSError:
        if not written:
            return None
    except KeyboardInterrupt:
        # Closing the socket tells the server, which stops the search's worker.
        print("velmora: interrupted", file=err)
        return 130
    finally:
        sock.close()
    print("velmora: error: the server stopped in the middle of the search", file=err)
    return 2


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
