"""The kernel's queue of the changes below a directory (Linux inotify), read without waiting.

The kernel queues a change's event before the call that made it returns, so one read that
empties the queue has every change made before it began: nothing is left in flight, as it
is with a watcher that hands events over from a thread of its own.
"""

from __future__ import annotations

import ctypes
import errno
import os
import struct

_MODIFY, _ATTRIB, _CLOSE_WRITE = 0x2, 0x4, 0x8
_MOVED_FROM, _MOVED_TO, _CREATE, _DELETE = 0x40, 0x80, 0x100, 0x200
_DELETE_SELF, _MOVE_SELF = 0x400, 0x800
_OVERFLOW, _IGNORED, _ONLYDIR, _DONT_FOLLOW, _ISDIR = 0x4000, 0x8000, 0x1000000, 0x2000000, 0x40000000
_MASK = (
    _MODIFY | _ATTRIB | _CLOSE_WRITE | _MOVED_FROM | _MOVED_TO | _CREATE | _DELETE
    | _DELETE_SELF | _MOVE_SELF | _ONLYDIR | _DONT_FOLLOW
)
# struct inotify_event: wd, mask, cookie, len, then len bytes of NUL-padded name.
_EVENT = struct.Struct("iIII")


class TreeEvents:
    """Every directory below ``root`` watched, except ``skip`` (the index's, whose writes
    change nothing) and what symbolic links lead to. An ``OSError`` when the tree cannot be
    watched whole (the user's limit of watches is reached, say)."""

    def __init__(self, root: str, skip: str) -> None:
        libc = ctypes.CDLL(None, use_errno=True)
        self._add = libc.inotify_add_watch
        self._add.argtypes = (ctypes.c_int, ctypes.c_char_p, ctypes.c_uint32)
        self._fd = libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        if self._fd < 0:
            raise OSError(ctypes.get_errno(), "cannot watch the tree")
        self._skip = os.fsencode(skip)
        self._dirs: dict[int, bytes] = {}
        try:
            self._watch_below(os.fsencode(root))
        except OSError:
            self.close()
            raise

    def close(self) -> None:
        if self._fd >= 0:
            os.close(self._fd)
            self._fd = -1

    def changed(self) -> bool:
        """Whether anything below the root changed since the last call."""
        changed = False
        while True:
            try:
                data = os.read(self._fd, 1 << 16)
            except BlockingIOError:
                return changed
            at = 0
            while at < len(data):
                wd, mask, _, size = _EVENT.unpack_from(data, at)
                name = data[at + _EVENT.size : at + _EVENT.size + size].rstrip(b"\0")
                at += _EVENT.size + size
                if mask & _IGNORED:
                    self._dirs.pop(wd, None)
                    continue
                directory = self._dirs.get(wd)
                if mask & _OVERFLOW or directory is None:
                    changed = changed or bool(mask & _OVERFLOW)  # events were lost
                    continue
                path = directory + b"/" + name if name else directory
                if path == self._skip or path.startswith(self._skip + b"/"):
                    continue
                changed = True
                if mask & _ISDIR and mask & (_CREATE | _MOVED_TO):
                    # What it already holds was made before its watch: the pass that this
                    # change sets off lists the tree again.
                    self._watch_below(path)

    def _watch_below(self, top: bytes) -> None:
        below = [top]
        while below:
            directory = below.pop()
            if directory == self._skip:
                continue
            wd = self._add(self._fd, directory, _MASK)
            if wd < 0:
                code = ctypes.get_errno()
                if code in (errno.ENOSPC, errno.ENOMEM):
                    raise OSError(code, "too many directories to watch")
                continue  # gone, or not a directory (a link), or not readable
            self._dirs[wd] = directory
            try:
                with os.scandir(directory) as entries:
                    below += [entry.path for entry in entries if entry.is_dir(follow_symlinks=False)]
            except OSError:
                pass
