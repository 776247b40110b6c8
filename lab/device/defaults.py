"""The configuration and the release file of a new device."""

from collections.abc import Mapping

from lab.common import names

DEFAULT_CONFIGURATION = {
    "PELMOR_CLIENT_ID": "client-1",
    "PELMOR_CLIENT_SECRET": "secret-1",
    "PELMOR_SCOPE": "https://scope.quintara.example/pelmor",
    "PELMOR_URL": f"https://{names.Host.MONITORING}/v1/devices",
    "PELMOR_UPLOAD_INTERVAL_IN_SECONDS": "1",
}
DEFAULT_RELEASE = {
    "VARELNOS_RELEASE_VERSION": "9000.1.0",
    "VARELNOS_RELEASE_TRACK": "stable-channel",
    "VARELNOS_RELEASE_BOARD": "board-a",
}


def key_values(values: Mapping[str, str | None]) -> str:
    """A file of KEY=VALUE lines; None leaves a key out."""
    return "".join(f"{key}={value}\n" for key, value in values.items() if value is not None)
