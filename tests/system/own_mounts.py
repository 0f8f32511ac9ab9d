"""File systems that only this process and what it starts can see: small ones in memory, full or read-only as a case likes."""

import ctypes
import functools
import os
import unittest

_LIBC = ctypes.CDLL(None, use_errno=True)
_NEW_MOUNTS = 0x00020000
_READ_ONLY, _REMOUNT, _REC, _PRIVATE, _DETACH = 1, 32, 16384, 1 << 18, 2


def _call(name, *arguments):
    if getattr(_LIBC, name)(*arguments) != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{name}: {os.strerror(number)}")


def mount(source, folder, kind, flags=0, options=""):
    _call("mount", source.encode(), os.fsencode(folder), kind.encode(), ctypes.c_ulong(flags), options.encode())


def unmount(folder):
    """At once, even where it is used."""
    _call("umount2", os.fsencode(folder), _DETACH)


@functools.cache
def enter():
    """From now on this thread, and all that it starts, has its own mounts. Skips the case where that cannot be had."""
    try:
        _call("unshare", _NEW_MOUNTS)
        mount("none", "/", "", _REC | _PRIVATE)
    except OSError as error:
        raise unittest.SkipTest(f"no mounts of its own: {error}") from None


class SmallDisk:
    """A file system in memory with room for so many pages."""

    def __init__(self, place, pages=64):
        self.folder = place.new_folder("disk")
        self._size = f"size={4 * pages}k,mode=755"
        mount("none", self.folder, "tmpfs", 0, self._size)
        place.on_leaving(unmount, self.folder)

    def be_read_only(self, yes=True):
        mount("none", self.folder, "", _REMOUNT | (_READ_ONLY if yes else 0), self._size)

    def fill(self):
        """Leaves no room."""
        with open(self.folder / "ballast", "ab", buffering=0) as ballast:
            try:
                while True:
                    ballast.write(bytes(4096))
            except OSError:
                pass

    def make_room(self):
        (self.folder / "ballast").unlink()
