"""The files of the device; watches the folders that the daemon writes to."""

import asyncio
import ctypes
import os
import shutil
import struct
from pathlib import Path

from lab.common import names
from lab.device.inside.part import Report, verb

_IN_CLOSE_WRITE = 0x8
_IN_MOVED_FROM = 0x40
_IN_MOVED_TO = 0x80
_IN_DELETE = 0x200
_WRITTEN = _IN_CLOSE_WRITE | _IN_MOVED_TO
_DELETED = _IN_MOVED_FROM | _IN_DELETE
_EVENT_HEAD = struct.Struct("iIII")
_WATCHED = (names.STATE_FOLDER, names.RUN_FOLDER)


def of_a_device() -> dict[str, str]:
    """The files of any device, by their paths, except for the CAs that it trusts."""
    hosts = "".join(f"{host.address} {host}\n" for host in names.Host)
    return {"/etc/hosts": f"127.0.0.1 localhost\n{hosts}",
            "/etc/nsswitch.conf": "passwd: files\ngroup: files\nhosts: files\n",
            "/etc/passwd": "root:x:0:0:root:/:/bin/sh\n",
            "/etc/group": "root:x:0:\n",
            "/etc/machine-id": f"{'0123456789abcdef' * 2}\n"}


class Files:
    def __init__(self, report: Report) -> None:
        self._report = report
        self._library = ctypes.CDLL(None, use_errno=True)
        self._inotify = self._library.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        if self._inotify < 0:
            raise OSError(ctypes.get_errno(), "cannot watch more files on this machine: too "
                          "many devices at once for its sysctl fs.inotify.max_user_instances")
        self._watches: dict[int, str] = {}
        asyncio.get_running_loop().add_reader(self._inotify, self._on_change)

    @verb
    def write(self, path: str, data: bytes, mode: int = 0o644) -> None:
        self.make_folder(str(Path(path).parent))
        Path(path).write_bytes(data)
        Path(path).chmod(mode)

    @verb
    def read(self, path: str) -> bytes | None:
        try:
            return Path(path).read_bytes()
        except FileNotFoundError:
            return None

    @verb
    def delete(self, path: str) -> None:
        Path(path).unlink()

    @verb
    def make_folder(self, path: str, mode: int | None = None) -> None:
        Path(path).mkdir(parents=True, exist_ok=True)
        if mode is not None:
            Path(path).chmod(mode)
        if path in _WATCHED:
            self._watch(path)

    @verb
    def delete_folder(self, path: str) -> None:
        shutil.rmtree(path)

    def _watch(self, path: str) -> None:
        watch = self._library.inotify_add_watch(self._inotify, path.encode(), _WRITTEN | _DELETED)
        if watch < 0:
            raise OSError(ctypes.get_errno(), f"unable to watch {path}")
        self._watches[watch] = path

    def _on_change(self) -> None:
        data = os.read(self._inotify, 64 * 1024)
        while data:
            watch, mask, _, length = _EVENT_HEAD.unpack_from(data)
            name = data[_EVENT_HEAD.size:_EVENT_HEAD.size + length].rstrip(b"\0").decode()
            data = data[_EVENT_HEAD.size + length:]
            if mask & (_WRITTEN | _DELETED):
                kind = "file.written" if mask & _WRITTEN else "file.deleted"
                self._report(kind, path=f"{self._watches[watch]}/{name}")
