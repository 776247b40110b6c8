"""A TLS front for a plain server on loopback: `tls_front.py PORT CERT KEY [OPTION]`.

Prints the port it listens on, then joins each connection with one to PORT. Runs until it is killed.
Options: `max=1.1` and `max=1.2` offer no later TLS, `alpn=h2` offers HTTP/2, `cut` drops the
connection in place of ending TLS properly, and `resume` drops each but the first connection that
resumes no session. `stall` is a server of HTTP/2 itself: it answers every request with 200 and
nothing else, but none on the connection that the first one comes by.
"""

import asyncio
import ssl
import sys

# Of HTTP/2 (RFC 9113): what a client begins with, a frame of no settings, and the type and flags of
# the frame that ends a request.
_H2_PREFACE = b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"
_H2_SETTINGS = bytes.fromhex("000000040000000000")
_H2_END_OF_DATA = b"\x00\x01"


def _h2_ok(stream):
    """The headers and the end of an answer: status 200."""
    return bytes.fromhex("0000010105") + stream + b"\x88"


async def copy(reader, writer):
    """Everything up to the end, whichever side ends it."""
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
        self._stalls = "stall" in options
        self._silent = None
        self._accepted = 0

    async def serve(self, reader, writer):
        self._accepted += 1
        resumed = writer.get_extra_info("ssl_object").session_reused
        if self._must_resume and self._accepted > 1 and not resumed:
            writer.transport.abort()
            return
        if self._stalls:
            await self._answer_by_http2(reader, writer)
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

    async def _answer_by_http2(self, reader, writer):
        writer.write(_H2_SETTINGS)
        try:
            await reader.readexactly(len(_H2_PREFACE))
            while True:
                head = await reader.readexactly(9)
                await reader.readexactly(int.from_bytes(head[:3], "big"))
                if head[3:5] == _H2_END_OF_DATA:
                    self._silent = self._silent or writer
                    if self._silent is not writer:
                        writer.write(_h2_ok(head[5:]))
        except (asyncio.IncompleteReadError, OSError):
            writer.close()

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
    if "alpn=h2" in options or "stall" in options:
        context.set_alpn_protocols(["h2", "http/1.1"])
    context.load_cert_chain(certificate, key)
    return context


async def main():
    port, certificate, key, *options = sys.argv[1:]
    front = Front(int(port), options)
    server = await asyncio.start_server(
        front.serve, "127.0.0.1", 0, ssl=tls(certificate, key, options)
    )
    print(server.sockets[0].getsockname()[1], flush=True)
    await server.serve_forever()


if __name__ == "__main__":
    asyncio.run(main())
