"""What an HTTPS server of the lab's clouds shows."""

import ssl
import tempfile


def server_context(chain: str, key: str) -> ssl.SSLContext:
    """Of PEM texts, which the library takes from a file alone."""
    context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    with tempfile.NamedTemporaryFile("w") as file:
        file.write(key + chain)
        file.flush()
        context.load_cert_chain(file.name)
    return context
