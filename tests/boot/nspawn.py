"""systemd-nspawn's command line for a device. `python3 -m tests.boot.nspawn ROOT PROGRAM...` runs a
program in a root without changing it, to check whether systemd-nspawn works."""

import os
import sys
from pathlib import Path

# The device's /tmp is part of its root, so that the device itself decides what survives a reboot.
ENVIRONMENT = {"SYSTEMD_NSPAWN_TMPFS_TMP": "0", "PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}

# The exit code with which systemd-nspawn asks to be started again: the device reboots.
REBOOT = 133


def command(root: Path, *options: str, network: str = "--private-network") -> list[str]:
    """With an isolated network, and without a registration at the machine's systemd."""
    # setpriv makes the device end with its parent.
    return ["setpriv", "--pdeathsig", "KILL",
            "systemd-nspawn", "--quiet", f"--directory={root}", "--register=no",
            "--keep-unit", network, "--resolv-conf=off", "--timezone=off",
            "--link-journal=no", "--machine=access-point", "--console=pipe",
            # A device has a keyring, which containers usually lack.
            "--system-call-filter=@keyring", *options]


if __name__ == "__main__":
    os.execvpe("setpriv", command(Path(sys.argv[1]), "--volatile=overlay", *sys.argv[2:]),
               ENVIRONMENT)
