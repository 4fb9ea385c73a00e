"""The background server that a search starts for its repository, so that the next search is
answered by a process that already holds the index open and watches the tree."""

from __future__ import annotations

import asyncio
import subprocess
import sys
import time
from pathlib import Path

from velmora.serve import wire

# A background server nobody searched through for this long goes.
IDLE_SECONDS = 15 * 60
_WORKERS = 2


def start(root: Path) -> None:
    """Start a background server for the repository at ``root``, unless one answers already."""
    sock = wire.connect(str(root))
    if sock is not None:
        sock.close()
        return
    subprocess.Popen(
        # -P: the working directory is not put on the module path, so nothing there is imported.
        [sys.executable, "-P", "-m", "velmora.cli", "serve", "--background", str(root)],
        cwd="/", stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL, start_new_session=True,
    )


def run(root: Path) -> None:
    """Serve the repository's socket until ``velmora stop``, its index is removed, or no
    search came for ``IDLE_SECONDS``."""
    asyncio.run(_serve(root))


async def _serve(root: Path) -> None:
    # Imported here: a search that starts a server does not wait for what the server needs.
    from velmora.serve.resident import Resident

    resident = Resident([root], [root.name], workers=_WORKERS, background=True)
    if not await resident.start():
        return  # another server holds the repository
    try:
        while time.monotonic() - resident.last_search < IDLE_SECONDS:
            try:
                await asyncio.wait_for(resident.stopping.wait(), 10)
                break
            except TimeoutError:
                pass
    finally:
        await resident.stop()
