"""./dev cloud --check: starts the cloud, runs ./dev cloud-check against it, and stops it. Exits
with the status of the checker, which gets all further arguments."""

import http.client
import json
import shlex
import signal
import ssl
import subprocess
import sys
import tempfile
from urllib.parse import urlencode, urlsplit

from cloud.process import ROOT, Cloud, CloudFailed

_DEVICE = "device-0001"
_OTHER_DEVICE = "device-0002"


def _exchange(cloud: Cloud, device: str) -> str:
    """Provisions a device and returns its access token."""
    url = urlsplit(cloud.token_url)
    connection = http.client.HTTPSConnection(
        url.hostname or "", url.port,
        context=ssl.create_default_context(cafile=str(cloud.authority)))
    form = {"code": cloud.provision(device), "client_id": cloud.client_id,
            "client_secret": cloud.client_secret_file.read_text(), "redirect_uri": "oob",
            "scope": "", "grant_type": "authorization_code"}
    connection.request("POST", url.path, urlencode(form),
                       {"Content-Type": "application/x-www-form-urlencoded"})
    answer = json.loads(connection.getresponse().read())
    connection.close()
    return answer["access_token"]


def _expired_token(cloud: Cloud) -> str:
    token = _exchange(cloud, _DEVICE)
    cloud.sql(f"UPDATE access_tokens SET expires_at = 1 WHERE device = '{_DEVICE}'")
    return token


def _check(arguments: list[str]) -> int:
    with Cloud() as cloud, tempfile.NamedTemporaryFile("w") as expired:
        expired.write(_expired_token(cloud))
        expired.flush()
        return subprocess.run(
            [ROOT / "dev", "cloud-check", "--service", cloud.service_url,
             "--token-url", cloud.token_url,
             "--ca", str(cloud.authority), "--client-id", cloud.client_id,
             "--client-secret-file", str(cloud.client_secret_file), "--device", _DEVICE,
             "--foreign-device", _OTHER_DEVICE, "--expired-token-file", expired.name,
             "--code-command", shlex.join(cloud.provisioning(_DEVICE)), *arguments],
            check=False).returncode


def _end(*_: object) -> None:
    raise KeyboardInterrupt


def main(arguments: list[str]) -> int:
    signal.signal(signal.SIGTERM, _end)
    try:
        return _check(arguments)
    except KeyboardInterrupt:
        return 130
    except CloudFailed as error:
        print(f"cloud: {error}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
