"""The reference cloud as a child process, for programs: the lab, tests and measurements."""

import csv
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
_READY = "Ctrl-C ends it."
_STOP_SECONDS = 60


def is_ready(process: subprocess.Popen) -> bool:
    """Waits until a cloud that prints to a pipe is up; False if it ends before."""
    assert process.stdout
    return any(_READY in line for line in process.stdout)


class CloudFailed(Exception):
    """The cloud did not start."""


class Cloud:
    """A context manager, with data in a temporary folder, and on free ports."""

    def __init__(self, *options: str) -> None:
        """`options` as for ./dev cloud."""
        self._options = options

    def __enter__(self) -> "Cloud":
        # The user that root becomes must reach it.
        self._folder = tempfile.mkdtemp(prefix="pelmor-cloud-")
        os.chmod(self._folder, 0o711)
        self.data = Path(self._folder) / "data"
        self._process = subprocess.Popen(
            [*self._command(), "--port", "0", "--query-port", "0", "--parent",
             str(os.getpid()), *self._options], cwd=ROOT,
            stdout=subprocess.PIPE, text=True, start_new_session=True)
        try:
            if not is_ready(self._process):
                raise CloudFailed("the cloud did not start; its output says why")
        except BaseException:  # Also an interrupt.
            self.close()
            raise
        addresses = json.loads((self.data / "run/addresses.json").read_text())
        self.service_url = addresses["service"]
        self.token_url = addresses["token"]
        self.query_url = addresses["query"]
        self.client_id = addresses["client_id"]
        self.client_secret_file = self.data / "client_secret"
        self.authority = self.data / "ca.pem"
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        if self._process.poll() is None:
            self._process.send_signal(signal.SIGTERM)
        self._process.communicate(timeout=_STOP_SECONDS)
        shutil.rmtree(self._folder)

    def provision(self, device: str) -> str:
        """A code for the device."""
        return self.provision_all([device])[0]

    def provision_all(self, devices: list[str]) -> list[str]:
        return subprocess.run([*self._command(), "provision", *devices], cwd=ROOT, check=True,
                              capture_output=True, text=True).stdout.split()

    def provisioning(self, device: str) -> list[str]:
        """The command, in the tree's folder, that prints a code for the device."""
        return [*self._command(), "provision", device]

    def pid(self, name: str) -> int:
        """Of the present "postgresql", "victoria-metrics" or "service"."""
        return int((self.data / f"run/{name}.pid").read_text())

    def log(self, name: str) -> str:
        return (self.data / f"log/{name}.log").read_text()

    def sql(self, query: str) -> list[list[str]]:
        """The rows of a query, as text; bytea is hexadecimal."""
        output = self.run_as_owner(
            "psql", "--host", str(self.data / "run"), "--username", "cloud", "--no-psqlrc",
            "--tuples-only", "--csv", "--command", query, "cloud")
        return list(csv.reader(output.splitlines()))

    def run_as_owner(self, *argv: str) -> str:
        """Runs a program as the user who runs the cloud; its output."""
        owner = self.data.stat()
        change = ["setpriv", "--reuid", str(owner.st_uid), "--regid", str(owner.st_gid),
                  "--clear-groups"] if os.getuid() == 0 else []
        return subprocess.run([*change, *argv], check=True, capture_output=True, text=True).stdout

    def _command(self) -> list[str]:
        return [sys.executable, "-m", "cloud", "--data", str(self.data)]
