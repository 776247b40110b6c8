"""The file system of a process of the booted device: `python3 -m inside.view PROCESS USER` prints
every folder, each with whether the user may write to it.

It enters the process's mount namespace itself, since no program can be started there."""

import ctypes
import json
import os
import pwd
import sys
from collections.abc import Iterator


def _enter(process: int) -> None:
    libc = ctypes.CDLL(None, use_errno=True)
    with open(f"/proc/{process}/ns/mnt", "rb") as namespace:
        if libc.setns(namespace.fileno(), 0) != 0:
            raise OSError(ctypes.get_errno(), "setns")


def _become(user: str) -> None:
    account = pwd.getpwnam(user)
    os.setgroups([])
    os.setresgid(*[account.pw_gid] * 3)
    os.setresuid(*[account.pw_uid] * 3)


def _folders() -> Iterator[tuple[str, bool]]:
    for folder, below, _ in os.walk("/"):
        if folder == "/":
            below.remove("proc")  # It has only processes.
        yield folder, os.access(folder, os.W_OK)


if __name__ == "__main__":
    _enter(int(sys.argv[1]))
    _become(sys.argv[2])
    print(json.dumps(dict(_folders())))
