"""Waiting on the server's event loop, without a thread, for a descriptor to have something
to read: a client's request, a worker's reply."""

from __future__ import annotations

import asyncio
import math


async def readable(fd: int, timeout: float = math.inf) -> bool:
    """Whether ``fd`` has something to read (or its end) within ``timeout`` seconds."""
    loop = asyncio.get_running_loop()
    ready = loop.create_future()

    def wake() -> None:
        if not ready.done():  # it may fire again before the waiter runs
            ready.set_result(None)

    loop.add_reader(fd, wake)
    try:
        await asyncio.wait_for(ready, None if math.isinf(timeout) else timeout)
    except TimeoutError:
        return False
    finally:
        loop.remove_reader(fd)
    return True
