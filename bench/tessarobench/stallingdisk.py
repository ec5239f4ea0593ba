"""A file system that passes everything on to the folder beneath it, until it is told to hang, to fail, or to be full.

It is mounted over a folder of a board, through the kernel's FUSE interface and without help of other programs. A hanging
operation is one that a broken card never answers: the thread that asked waits in the kernel, where no signal reaches it,
and not even SIGKILL. What the kernel has read already stays readable, as with a real card.
"""

from __future__ import annotations

import contextlib
import errno
import os
import selectors
import socket
import stat
import struct
import subprocess
import sys
from pathlib import Path
from typing import Any

from .namespaces import mount, unmount

DEVICE = "/dev/fuse"
HANG, WORK, COUNT = "hang", "work", "count"
_BUFFER = 1 << 20
_WRITE_AT_MOST = 1 << 17
_MAJOR, _MINOR = 7, 31  # of the protocol, as it is spoken here
_ROOT = 1

_HEADER = struct.Struct("<IIQQIIII")  # length, operation, number of the request, node, user, group, process, reserved
_REPLY = struct.Struct("<IiQ")        # length, negative error, number of the request
_ATTRIBUTES = struct.Struct("<6Q10I")
_ENTRY = struct.Struct("<4Q2I")       # node, generation, and how long both may be kept: not at all
_OPENED = struct.Struct("<QII")

_WRITING = os.O_WRONLY | os.O_RDWR | os.O_CREAT | os.O_TRUNC
_SET_MODE, _SET_OWNER, _SET_GROUP, _SET_SIZE, _SET_TIMES = 1, 2, 4, 8, 0x10 | 0x20 | 0x80 | 0x100


def available() -> bool:
    """Whether this user may mount one."""
    return os.access(DEVICE, os.R_OK | os.W_OK)


class StallingDisk:
    """Served by a process of its own once `mount` was called, in whatever world; `unmount` belongs there, too.

    (Not by a thread: whoever starts a program from the disk would wait for himself.) `folder` is what lies beneath, which
    never stalls; it must outlive the disk.
    """

    def __init__(self, folder: str):
        self._device = os.open(DEVICE, os.O_RDWR | os.O_CLOEXEC)
        self._control, far = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        with far:
            self._server = subprocess.Popen([sys.executable, "-S", "-m", __name__, folder, str(self._device), str(far.fileno())],
                                            cwd=Path(__file__).parents[1], pass_fds=[self._device, far.fileno()],
                                            stdin=subprocess.DEVNULL, start_new_session=True)

    def mount(self, target: str) -> None:
        self._target = target
        mount("stallingdisk", target, "fuse", 0,
              f"fd={self._device},rootmode=40755,user_id=0,group_id=0,allow_other,default_permissions")
        os.close(self._device)

    def stall(self, fault: Any) -> None:
        """From now on every operation hangs (HANG) or fails with this error number; ENOSPC fails those that need room."""
        self._order(str(fault))

    def recover(self) -> None:
        """Everything works again, and what hung is answered."""
        self._order(WORK)

    @property
    def hung(self) -> int:
        """How many operations wait."""
        return self._order(COUNT)

    def unmount(self) -> None:
        """Whoever still waits gets the answer."""
        self.recover()
        unmount(self._target)
        self._control.close()
        self._server.wait(5)

    def _order(self, word: str) -> int:
        self._control.send(word.encode())
        return int(self._control.recv(64))


class DiskServer:
    """Answers the kernel's requests, in its own process: reads a request or an order, and does it."""

    def __init__(self, folder: str, device: int, control: socket.socket):
        self.folder, self._device, self._control = folder, device, control
        self._fault: Any = WORK
        self._names: dict[int, str] = {_ROOT: ""}
        self._numbers: dict[str, int] = {"": _ROOT}
        self._held: list[bytes] = []

    def serve(self) -> None:
        """Until nobody gives orders any more."""
        with selectors.DefaultSelector() as ready:
            ready.register(self._device, selectors.EVENT_READ, self._take_request)
            ready.register(self._control, selectors.EVENT_READ, self._take_order)
            while all(key.data() for key, _ in ready.select()):
                pass

    def _take_order(self) -> bool:
        word = self._control.recv(64).decode()
        if not word:
            return False
        if word != COUNT:
            self._fault = int(word) if word.isdigit() else word
        held = self._held
        if word == WORK:
            self._held = []
            for request in held:
                self._answer(request)
        self._control.send(str(len(held)).encode())
        return True

    def _take_request(self) -> bool:
        try:
            request = os.read(self._device, _BUFFER)
        except OSError as error:
            return error.errno != errno.ENODEV  # unmounted; or the one who asked has gone meanwhile
        if self._fault == HANG and _HEADER.unpack_from(request)[1] not in _NEVER_HANGS:
            self._held.append(request)
        else:
            self._answer(request)
        return True

    def _answer(self, request: bytes) -> None:
        _, operation, number, node, *_ = _HEADER.unpack_from(request)
        action = _OPERATIONS.get(operation, DiskServer._unknown)
        if action is None:
            return
        try:
            self._fail_if_told(operation, request)
            content, error = action(self, node, request[_HEADER.size:]), 0
        except OSError as failure:
            content, error = b"", failure.errno or errno.EIO
        with contextlib.suppress(OSError):  # interrupted or unmounted: nobody waits for it
            os.write(self._device, _REPLY.pack(_REPLY.size + len(content), -error, number) + content)

    def _fail_if_told(self, operation: int, request: bytes) -> None:
        if not isinstance(self._fault, int) or operation in _NEVER_HANGS:
            return
        needs_room = operation in _NEED_ROOM or (operation == _OPEN and _opens_for_writing(request))
        if self._fault != errno.ENOSPC or needs_room:
            raise OSError(self._fault, "as told")

    # --- names -------------------------------------------------------------------------------------------------------

    def _path(self, node: int, name: str = "") -> str:
        inside = self._names[node]
        return os.path.join(self.folder, inside, name) if name else os.path.join(self.folder, inside)

    def _entry(self, node: int, name: str) -> bytes:
        status = os.lstat(self._path(node, name))
        inside = os.path.join(self._names[node], name)
        number = self._numbers.setdefault(inside, len(self._names) + 1)
        self._names[number] = inside
        return _ENTRY.pack(number, 0, 0, 0, 0, 0) + _packed(status)

    def _renamed(self, old: str, new: str) -> None:
        """The node goes by its new name; one that had that name before has none any more."""
        number = self._numbers.pop(old, None)
        if number is not None:
            self._names[number] = new
            self._numbers[new] = number

    # --- what the kernel asks for --------------------------------------------------------------------------------------

    def _init(self, _node: int, _body: bytes) -> bytes:
        return struct.pack("<4I2H2I2H8I", _MAJOR, _MINOR, _WRITE_AT_MOST, 0, 64, 48, _WRITE_AT_MOST, 1, 0, 0, *[0] * 8)

    def _lookup(self, node: int, body: bytes) -> bytes:
        return self._entry(node, _text(body))

    def _getattr(self, node: int, _body: bytes) -> bytes:
        return struct.pack("<QII", 0, 0, 0) + _packed(os.lstat(self._path(node)))

    def _setattr(self, node: int, body: bytes) -> bytes:
        valid, _, _, size, _, atime, mtime, _, atime_ns, mtime_ns, _, mode, _, user, group = \
            struct.unpack_from("<II6Q7I", body)
        path = self._path(node)
        if valid & _SET_MODE:
            os.chmod(path, stat.S_IMODE(mode))
        if valid & (_SET_OWNER | _SET_GROUP):
            os.chown(path, user if valid & _SET_OWNER else -1, group if valid & _SET_GROUP else -1, follow_symlinks=False)
        if valid & _SET_SIZE:
            os.truncate(path, size)
        if valid & _SET_TIMES:
            os.utime(path, ns=(atime * 10**9 + atime_ns, mtime * 10**9 + mtime_ns))
        return self._getattr(node, b"")

    def _readlink(self, node: int, _body: bytes) -> bytes:
        return os.fsencode(os.readlink(self._path(node)))

    def _mkdir(self, node: int, body: bytes) -> bytes:
        mode, _ = struct.unpack_from("<II", body)
        os.mkdir(self._path(node, _text(body[8:])), mode)
        return self._entry(node, _text(body[8:]))

    def _unlink(self, node: int, body: bytes) -> bytes:
        os.unlink(self._path(node, _text(body)))
        return b""

    def _rmdir(self, node: int, body: bytes) -> bytes:
        os.rmdir(self._path(node, _text(body)))
        return b""

    def _rename(self, node: int, body: bytes, at: int = 8) -> bytes:
        folder, = struct.unpack_from("<Q", body)
        old, new = (os.fsdecode(part) for part in body[at:].split(b"\0")[:2])
        os.rename(self._path(node, old), self._path(folder, new))
        self._renamed(os.path.join(self._names[node], old), os.path.join(self._names[folder], new))
        return b""

    def _rename2(self, node: int, body: bytes) -> bytes:
        return self._rename(node, body, 16)

    def _open(self, node: int, body: bytes) -> bytes:
        flags, _ = struct.unpack_from("<II", body)
        return _OPENED.pack(os.open(self._path(node), flags & ~os.O_CREAT | os.O_CLOEXEC), 0, 0)

    def _create(self, node: int, body: bytes) -> bytes:
        flags, mode, _, _ = struct.unpack_from("<4I", body)
        name = _text(body[16:])
        handle = os.open(self._path(node, name), flags | os.O_CREAT | os.O_CLOEXEC, mode)
        return self._entry(node, name) + _OPENED.pack(handle, 0, 0)

    def _read(self, _node: int, body: bytes) -> bytes:
        handle, offset, size = struct.unpack_from("<QQI", body)
        return os.pread(handle, size, offset)

    def _write(self, _node: int, body: bytes) -> bytes:
        handle, offset, size = struct.unpack_from("<QQI", body)
        return struct.pack("<II", os.pwrite(handle, body[40:40 + size], offset), 0)

    def _release(self, _node: int, body: bytes) -> bytes:
        os.close(struct.unpack_from("<Q", body)[0])
        return b""

    def _fsync(self, _node: int, body: bytes) -> bytes:
        os.fsync(struct.unpack_from("<Q", body)[0])
        return b""

    def _unknown(self, _node: int, _body: bytes) -> bytes:
        raise OSError(errno.ENOSYS, "not needed here")

    def _done(self, _node: int, _body: bytes) -> bytes:
        return b""

    def _opendir(self, _node: int, _body: bytes) -> bytes:
        return _OPENED.pack(0, 0, 0)

    def _readdir(self, node: int, body: bytes) -> bytes:
        _, offset, size = struct.unpack_from("<QQI", body)
        listing = b""
        for place, entry in enumerate(sorted(os.scandir(self._path(node)), key=lambda each: each.name)):
            raw = os.fsencode(entry.name)
            record = struct.pack("<QQII", entry.inode(), place + 1, len(raw), _type(entry)) + raw
            record += bytes(-len(record) % 8)
            if place >= offset:
                if len(listing) + len(record) > size:
                    break
                listing += record
        return listing

    def _statfs(self, _node: int, _body: bytes) -> bytes:
        room = os.statvfs(self.folder)
        return struct.pack("<5Q10I", room.f_blocks, room.f_bfree, room.f_bavail, room.f_files, room.f_ffree, room.f_bsize,
                           room.f_namemax, room.f_frsize, *[0] * 7)


def _text(body: bytes) -> str:
    return os.fsdecode(body.split(b"\0", 1)[0])


def _type(entry: os.DirEntry) -> int:
    return stat.S_IFMT(entry.stat(follow_symlinks=False).st_mode) >> 12


def _packed(status: os.stat_result) -> bytes:
    seconds, rests = zip(*(divmod(value, 10**9) for value in (status.st_atime_ns, status.st_mtime_ns, status.st_ctime_ns)))
    return _ATTRIBUTES.pack(status.st_ino, status.st_size, status.st_blocks, *seconds, *rests, status.st_mode,
                            status.st_nlink, status.st_uid, status.st_gid, 0, 4096, 0)


def _opens_for_writing(request: bytes) -> bool:
    return bool(struct.unpack_from("<I", request, _HEADER.size)[0] & _WRITING)


_OPEN = 14
_OPERATIONS: dict[int, Any] = {  # None: nobody waits for an answer
    1: DiskServer._lookup, 2: None, 3: DiskServer._getattr, 4: DiskServer._setattr, 5: DiskServer._readlink,
    9: DiskServer._mkdir, 10: DiskServer._unlink, 11: DiskServer._rmdir, 12: DiskServer._rename,
    _OPEN: DiskServer._open, 15: DiskServer._read, 16: DiskServer._write, 17: DiskServer._statfs,
    18: DiskServer._release, 20: DiskServer._fsync, 25: DiskServer._done, 26: DiskServer._init,
    27: DiskServer._opendir, 28: DiskServer._readdir, 29: DiskServer._done, 30: DiskServer._done,
    35: DiskServer._create, 36: None, 42: None, 45: DiskServer._rename2,
}
_NEVER_HANGS = {2, 18, 26, 29, 36, 42}  # forgetting, closing, the beginning, and interrupts: nobody waits for them
_NEED_ROOM = {9, 16, 35}


if __name__ == "__main__":
    DiskServer(sys.argv[1], int(sys.argv[2]), socket.socket(fileno=int(sys.argv[3]))).serve()
