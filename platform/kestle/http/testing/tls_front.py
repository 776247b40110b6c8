"""A TLS front for a plain server on loopback: `tls_front.py PORT CERT KEY [OPTION,...]`.

Prints the port it listens on, then forwards each connection to PORT. Runs until it is killed.
Options: `max=1.1` and `max=1.2` limit the version of TLS, `alpn=h2` prefers HTTP/2, `cut` closes
the connection without a TLS close_notify, `resume` drops every connection after the first that does
not resume a session, and `slow=SECONDS` delays each handshake.
"""

import asyncio
import ssl
import sys
import time


async def copy(reader, writer):
    """Copies until either side ends the connection."""
    try:
        while data := await reader.read(65536):
            writer.write(data)
            await writer.drain()
    except OSError:
        pass


class Front:
    def __init__(self, port, options):
        self._port = port
        self._cut = "cut" in options
        self._must_resume = "resume" in options
        self._accepted = 0

    async def serve(self, reader, writer):
        self._accepted += 1
        resumed = writer.get_extra_info("ssl_object").session_reused
        if self._must_resume and self._accepted > 1 and not resumed:
            writer.transport.abort()
            return
        plain_reader, plain_writer = await asyncio.open_connection("127.0.0.1", self._port)
        inward = asyncio.create_task(self._copy_in(reader, plain_writer))
        await copy(plain_reader, writer)
        if self._cut:
            await writer.drain()
            writer.transport.abort()
        else:
            writer.close()
        await inward
        plain_writer.close()

    @staticmethod
    async def _copy_in(reader, plain_writer):
        await copy(reader, plain_writer)
        if not plain_writer.is_closing():
            plain_writer.write_eof()


def tls(certificate, key, options):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    if "max=1.1" in options:
        context.set_ciphers("ALL:@SECLEVEL=0")
        context.minimum_version = ssl.TLSVersion.TLSv1
        context.maximum_version = ssl.TLSVersion.TLSv1_1
    if "max=1.2" in options:
        context.maximum_version = ssl.TLSVersion.TLSv1_2
    if "alpn=h2" in options:
        context.set_alpn_protocols(["h2", "http/1.1"])
    for seconds in (one.removeprefix("slow=") for one in options if one.startswith("slow=")):
        context.sni_callback = lambda *_: time.sleep(float(seconds))
    context.load_cert_chain(certificate, key)
    return context


async def main():
    port, certificate, key, *rest = sys.argv[1:]
    options = ",".join(rest).split(",")
    front = Front(int(port), options)
    server = await asyncio.start_server(
        front.serve, "127.0.0.1", 0, ssl=tls(certificate, key, options)
    )
    print(server.sockets[0].getsockname()[1], flush=True)
    await server.serve_forever()


if __name__ == "__main__":
    asyncio.run(main())
