"""A TLS front for a plain server on loopback: `tls_front.py PORT CERT KEY [OPTION]`.

Prints the port it listens on, then joins each connection with one to PORT. Runs until it is killed.
Options: `max=1.1` and `max=1.2` offer no later TLS, `alpn=h2` offers HTTP/2, `cut` drops the
connection in place of ending TLS properly, and `resume` drops each but the first connection that
resumes no session.
"""

import socket
import ssl
import sys
import threading


def copy_out(plain, secure, cut):
    """What the server says, to the client."""
    try:
        while data := plain.recv(65536):
            secure.sendall(data)
        if not cut:
            secure.unwrap()
    except OSError:
        pass
    try:
        secure.shutdown(socket.SHUT_RDWR)
    except OSError:
        pass


def serve(raw, context, port, cut, must_resume):
    try:
        secure = context.wrap_socket(raw, server_side=True)
    except OSError:
        raw.close()
        return
    if must_resume and not secure.session_reused:
        secure.close()
        return
    plain = socket.create_connection(("127.0.0.1", port))
    threading.Thread(target=copy_out, args=(plain, secure, cut), daemon=True).start()
    try:
        while data := secure.recv(65536):
            plain.sendall(data)
        plain.shutdown(socket.SHUT_RDWR)
    except OSError:
        pass


def main():
    port, certificate, key, *options = sys.argv[1:]
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    if "max=1.1" in options:
        context.set_ciphers("ALL:@SECLEVEL=0")
        context.minimum_version = ssl.TLSVersion.TLSv1
        context.maximum_version = ssl.TLSVersion.TLSv1_1
    if "max=1.2" in options:
        context.maximum_version = ssl.TLSVersion.TLSv1_2
    if "alpn=h2" in options:
        context.set_alpn_protocols(["h2", "http/1.1"])
    context.load_cert_chain(certificate, key)
    listener = socket.create_server(("127.0.0.1", 0))
    print(listener.getsockname()[1], flush=True)
    must_resume = False
    while True:
        raw, _ = listener.accept()
        threading.Thread(
            target=serve, args=(raw, context, int(port), "cut" in options, must_resume), daemon=True
        ).start()
        must_resume = "resume" in options


if __name__ == "__main__":
    main()
