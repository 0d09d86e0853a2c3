#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""One-shot HTTPS server for the diagnostics upload tests (standard library only).

Binds 127.0.0.1 on a free port and prints the port on the first line of stdout. The first POST is
written to the capture file as four lines (method, path, Content-Type, an empty line) followed by
the raw body, then answered 200 and the server exits. Whatever happens, it exits by itself after
30 s, so a failed test never leaves it behind.
"""

import argparse
import http.server
import os
import ssl
import sys
import threading

LIFETIME_SECONDS = 30.0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--cert", required=True)
    parser.add_argument("--key", required=True)
    parser.add_argument("--capture", required=True)
    args = parser.parse_args()

    watchdog = threading.Timer(LIFETIME_SECONDS, lambda: os._exit(2))
    watchdog.daemon = True
    watchdog.start()

    captured = threading.Event()

    class Handler(http.server.BaseHTTPRequestHandler):
        # Applied to each connection before the TLS handshake (deferred below), so a client that
        # stalls can't hold the server.
        timeout = 10

        def do_POST(self):
            length = int(self.headers.get("Content-Length", "0"))
            body = self.rfile.read(length)
            head = "%s\n%s\n%s\n\n" % (self.command, self.path, self.headers.get("Content-Type", ""))
            # Written whole before the answer, so the capture is complete once the client has it.
            temp = args.capture + ".part"
            with open(temp, "wb") as f:
                f.write(head.encode("utf-8"))
                f.write(body)
                f.flush()
                os.fsync(f.fileno())
            os.replace(temp, args.capture)
            self.send_response(200)
            self.send_header("Content-Length", "0")
            self.end_headers()
            captured.set()

        def log_message(self, format, *args):
            pass

    server = http.server.HTTPServer(("127.0.0.1", 0), Handler)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(args.cert, args.key)
    server.socket = context.wrap_socket(server.socket, server_side=True, do_handshake_on_connect=False)

    sys.stdout.write("%d\n" % server.server_address[1])
    sys.stdout.flush()

    while not captured.is_set():
        server.handle_request()
    server.server_close()


if __name__ == "__main__":
    main()
