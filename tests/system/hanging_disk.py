"""A disk that stops answering when it is told to, and goes on later: a file system in this process's memory.

The kernel's requests (linux/fuse.h) are read by a thread. A request that hangs stays unanswered, so whoever made it waits
and cannot even be killed. Nobody of this process may touch the folder while it hangs; what is on the disk is asked of the
object.
"""

import contextlib
import errno
import os
import select
import stat
import struct
import threading
import time
import unittest
from pathlib import PurePath

import own_mounts
from processes import bound

_IN = struct.Struct("<IIQQIIII")
_OUT = struct.Struct("<IiQ")
_ATTR = struct.Struct("<6Q10I")
_OPEN = struct.Struct("<QII")
_READ = struct.Struct("<QQIIQII")
_SETATTR = struct.Struct("<IIQQQQQQIIIIIIII")
(LOOKUP, FORGET, GETATTR, SETATTR, READLINK, SYMLINK, MKDIR, UNLINK, RMDIR, RENAME, LINK, OPEN, READ, WRITE, STATFS,
 RELEASE, FSYNC, FLUSH, INIT, OPENDIR, READDIR, RELEASEDIR, FSYNCDIR, CREATE, INTERRUPT, DESTROY, BATCH_FORGET,
 RENAME2) = (1, 2, 3, 4, 5, 6, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 20, 25, 26, 27, 28, 29, 30, 35, 36, 38, 42, 45)
_UNANSWERED = {FORGET, INTERRUPT, DESTROY, BATCH_FORGET}
_ROOT = 1


class _Node:
    def __init__(self, number, mode, uid, gid):
        self.number, self.mode, self.uid, self.gid = number, mode, uid, gid
        self.data = bytearray()
        self.names = {}
        self.links = 1
        self.modified = time.time_ns()

    def is_folder(self):
        return stat.S_ISDIR(self.mode)

    def attributes(self):
        seconds, rest = divmod(self.modified, 10**9)
        return _ATTR.pack(self.number, len(self.data), len(self.data) // 512 + 1, seconds, seconds, seconds, rest, rest,
                          rest, self.mode, self.links, self.uid, self.gid, 0, 4096, 0)


class HangingDisk:
    """Mounted in a folder of its own; skips the case where the system does not allow that. own_mounts.enter() first."""

    def __init__(self, place):
        self.folder = place.new_folder("disk")
        root = _Node(_ROOT, stat.S_IFDIR | 0o755, os.getuid(), os.getgid())
        self._nodes = {_ROOT: root}
        self._next = _ROOT + 1
        self._lock = threading.Condition()
        self._hangs = frozenset()
        self._held = []
        self.failure = None
        try:
            self._device = os.open("/dev/fuse", os.O_RDWR | os.O_CLOEXEC | os.O_NONBLOCK)
        except OSError as error:
            raise unittest.SkipTest(f"/dev/fuse cannot be used: {error}") from None
        try:
            own_mounts.mount("test", self.folder, "fuse.test", 0,
                             f"fd={self._device},rootmode=40000,user_id={os.getuid()},group_id={os.getgid()},allow_other")
        except OSError as error:
            os.close(self._device)
            raise unittest.SkipTest(f"FUSE cannot be mounted: {error}") from None
        self._leaving, self._left = os.pipe()
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()
        place.on_leaving(self._leave)

    # What a case says.

    def hang(self, *operations):
        """From now on these are not answered; all, when none is named."""
        with self._lock:
            self._hangs = frozenset(operations) or frozenset(range(64))

    def wait_until_somebody_waits(self):
        with self._lock:
            if not self._lock.wait_for(lambda: self._held, bound(90)):
                raise AssertionError("nobody touches the disk that hangs")

    def answer(self):
        """Everybody who waits gets an answer, and so does everybody from now on."""
        with self._lock:
            self._hangs = frozenset()
            for request in self._held:
                self._act(*request)
            self._held.clear()

    def put(self, name, data):
        """Replaces a file, made in one step, by another one."""
        with self._lock:
            *folders, last = PurePath(name).parts
            folder = self._nodes[_ROOT]
            for part in folders:
                if part not in folder.names:
                    folder.names[part] = self._make(stat.S_IFDIR | 0o755, 0, 0).number
                folder = self._nodes[folder.names[part]]
            node = self._make(stat.S_IFREG | 0o644, 0, 0)
            node.data += data
            folder.names[last] = node.number

    def take_away(self, name):
        """A file or folder at the top, which is returned for bring_back."""
        with self._lock:
            return self._nodes[_ROOT].names.pop(name)

    def bring_back(self, name, taken):
        with self._lock:
            self._nodes[_ROOT].names[name] = taken

    def get(self, name):
        """What a file holds; nothing when there is none."""
        with self._lock:
            node = self._nodes[_ROOT]
            for part in PurePath(name).parts:
                if part not in node.names:
                    return b""
                node = self._nodes[node.names[part]]
            return bytes(node.data)

    def names(self, folder="."):
        with self._lock:
            node = self._nodes[_ROOT]
            for part in PurePath(folder).parts:
                if part not in node.names:
                    return []
                node = self._nodes[node.names[part]]
            return sorted(node.names)

    # What the kernel says.

    def _leave(self):
        with contextlib.suppress(OSError):
            own_mounts.unmount(self.folder)
        os.close(self._left)
        self._thread.join(bound(10))
        # Who still waits gets an error with that.
        os.close(self._device)
        os.close(self._leaving)
        if self.failure:
            raise AssertionError(f"the disk failed: {self.failure!r}")

    def _serve(self):
        try:
            events = select.poll()
            events.register(self._device, select.POLLIN)
            events.register(self._leaving, select.POLLIN)
            while True:
                if any(ready == self._leaving for ready, _ in events.poll()):
                    return
                try:
                    request = os.read(self._device, 1 << 20)
                except (InterruptedError, BlockingIOError, FileNotFoundError):  # the last: who asked has gone
                    continue
                except OSError:
                    return
                _, operation, unique, node, uid, gid, _, _ = _IN.unpack_from(request)
                with self._lock:
                    if operation in _UNANSWERED:
                        continue
                    if operation in self._hangs:
                        self._held.append((operation, unique, node, uid, gid, request[_IN.size:]))
                        self._lock.notify_all()
                    else:
                        self._act(operation, unique, node, uid, gid, request[_IN.size:])
        except Exception as error:
            self.failure = error

    def _act(self, operation, unique, node, uid, gid, body):
        action = self._ACTIONS.get(operation)
        try:
            answer = action(self, self._nodes.get(node), body, uid, gid) if action else errno.ENOSYS
        except KeyError:
            answer = errno.ENOENT
        error, data = (-answer, b"") if isinstance(answer, int) else (0, answer)
        with contextlib.suppress(OSError):  # who asked is gone
            os.write(self._device, _OUT.pack(_OUT.size + len(data), error, unique) + data)

    def _make(self, mode, uid, gid):
        node = self._nodes[self._next] = _Node(self._next, mode, uid, gid)
        self._next += 1
        return node

    @staticmethod
    def _entry(node):
        return struct.pack("<QQQQII", node.number, 0, 0, 0, 0, 0) + node.attributes()

    @staticmethod
    def _name(body):
        return os.fsdecode(body.split(b"\0", 1)[0])

    def _init(self, _node, body, *_):
        _, minor, readahead, _ = struct.unpack_from("<IIII", body)
        big_writes = 1 << 5
        return struct.pack("<IIIIHHIIHHI28x", 7, min(minor, 31), readahead, big_writes, 16, 12, 1 << 17, 1, 0, 0, 0)

    def _lookup(self, node, body, *_):
        return self._entry(self._nodes[node.names[self._name(body)]])

    def _getattr(self, node, *_):
        return struct.pack("<QII", 0, 0, 0) + node.attributes()

    def _setattr(self, node, body, *_):
        values = _SETATTR.unpack_from(body)
        valid, size, mode, uid, gid = values[0], values[3], values[11], values[13], values[14]
        if valid & 1:
            node.mode = stat.S_IFMT(node.mode) | stat.S_IMODE(mode)
        if valid & 2:
            node.uid = uid
        if valid & 4:
            node.gid = gid
        if valid & 8:
            node.data[size:] = bytes(max(0, size - len(node.data)))
        node.modified = time.time_ns()
        return self._getattr(node)

    def _add(self, folder, name, node):
        folder.names[name] = node.number
        folder.modified = time.time_ns()
        return self._entry(node)

    def _mkdir(self, node, body, uid, gid):
        mode, mask = struct.unpack_from("<II", body)
        name = self._name(body[8:])
        if name in node.names:
            return errno.EEXIST
        return self._add(node, name, self._make(stat.S_IFDIR | (mode & ~mask), uid, gid))

    def _create(self, node, body, uid, gid):
        _, mode, mask, _ = struct.unpack_from("<IIII", body)
        name = self._name(body[16:])
        made = self._nodes[node.names[name]] if name in node.names else self._make(mode & ~mask, uid, gid)
        return self._add(node, name, made) + _OPEN.pack(0, 0, 0)

    def _unlink(self, node, body, *_):
        gone = self._nodes[node.names.pop(self._name(body))]
        gone.links -= 1
        node.modified = time.time_ns()
        return b""

    def _rename(self, node, body, *_, skip=8):
        target = self._nodes[struct.unpack_from("<Q", body)[0]]
        old, new = (os.fsdecode(name) for name in body[skip:].split(b"\0")[:2])
        target.names[new] = node.names.pop(old)
        node.modified = target.modified = time.time_ns()
        return b""

    def _rename2(self, node, body, *_):
        no_replace = 1
        if struct.unpack_from("<Q", body, 8)[0] & no_replace:
            return errno.EINVAL
        return self._rename(node, body, skip=16)

    def _link(self, node, body, *_):
        old = self._nodes[struct.unpack_from("<Q", body)[0]]
        name = self._name(body[8:])
        if name in node.names:
            return errno.EEXIST
        old.links += 1
        return self._add(node, name, old)

    def _open(self, *_):
        return _OPEN.pack(0, 0, 0)

    def _read(self, node, body, *_):
        _, offset, size, *_ = _READ.unpack_from(body)
        return bytes(node.data[offset:offset + size])

    def _write(self, node, body, *_):
        _, offset, size, *_ = _READ.unpack_from(body)
        node.data.extend(bytes(max(0, offset - len(node.data))))
        node.data[offset:offset + size] = body[_READ.size:_READ.size + size]
        node.modified = time.time_ns()
        return struct.pack("<II", size, 0)

    def _statfs(self, *_):
        return struct.pack("<5Q4I24x", 1 << 20, 1 << 20, 1 << 20, 1 << 20, 1 << 20, 4096, 255, 4096, 0)

    def _readdir(self, node, body, *_):
        _, offset, size, *_ = _READ.unpack_from(body)
        data = b""
        for at, (name, number) in enumerate(list(node.names.items())[offset:], offset + 1):
            raw = os.fsencode(name)
            entry = struct.pack("<QQII", number, at, len(raw), self._nodes[number].mode >> 12) + raw
            entry += bytes(-len(entry) % 8)
            if len(data) + len(entry) > size:
                break
            data += entry
        return data

    def _nothing(self, *_):
        return b""

    _ACTIONS = {INIT: _init, LOOKUP: _lookup, GETATTR: _getattr, SETATTR: _setattr, MKDIR: _mkdir, CREATE: _create,
                UNLINK: _unlink, RMDIR: _unlink, RENAME: _rename, RENAME2: _rename2, LINK: _link, OPEN: _open,
                OPENDIR: _open, READ: _read, WRITE: _write, STATFS: _statfs, READDIR: _readdir, RELEASE: _nothing,
                RELEASEDIR: _nothing, FSYNC: _nothing, FSYNCDIR: _nothing, FLUSH: _nothing}
