#!/usr/bin/env python3
"""A repository server for the tests, on 127.0.0.1, that can misbehave.

Usage: repo_server.py ROOT PORTFILE [CERT KEY]. The first path segment
picks the behaviour for the package named by the rest: ok (ranges
honoured), norange, short (closes halfway), more (sends more than its
length), stall, drip (a byte every 0.3 s, at most 100), slow (1 KiB every
20 ms); redirect (to another host), same (to ok/ on this host) and
dripall (drip) apply to every file. A closed range ("bytes=A-B") is
answered by ok as asked, and by these liars: alter (one byte of it
altered), cut (a byte short of it), other (206 for the range a byte
further on), switch (the file grows after the first request for it).
Each connection it accepts adds a line to PORTFILE.connections, and each
request "CONNECTION MODE NAME RANGE BODYBYTES" to PORTFILE.requests; it
keeps connections open between requests."""
import http.server, os, ssl, sys, threading, time

SEEN = set()  # the files switch has served once
LOCK = threading.Lock()

ROOT = sys.argv[1]


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def setup(self):
        super().setup()
        with open(sys.argv[2] + ".connections", "a") as log:
            log.write("%s:%d\n" % self.client_address)

    def send_body(self, mode, name, ranged, body):
        with LOCK, open(sys.argv[2] + ".requests", "a") as log:
            log.write("%s:%d %s %s %s %d\n" % (self.client_address + (
                mode, name, ranged or "-", len(body))))

    def do_GET(self):
        mode, _, name = self.path.lstrip("/").partition("/")
        if mode in ("redirect", "same"):
            host = "localhost" if mode == "redirect" else "127.0.0.1"
            self.send_response(302)
            self.send_header("Location", "%s://%s:%d/ok/%s" % (
                SCHEME, host, self.server.server_port, name))
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        if mode == "dripall":
            mode = "drip"
        elif not name.endswith(".tsappinstall"):
            mode = "ok"  # the index always arrives; the packages misbehave
        path = os.path.join(ROOT, *[p for p in name.split("/") if p not in ("", ".", "..")])
        if not os.path.isfile(path):
            self.send_error(404)
            return
        data = open(path, "rb").read()
        if mode == "switch":
            with LOCK:
                if path in SEEN:
                    data += b"\0" * 100
                SEEN.add(path)
        start = 0
        ranged = self.headers.get("Range", "")
        first, _, last = ranged[6:].partition("-")
        liars = ("ok", "alter", "cut", "other", "switch")
        if mode in liars and ranged.startswith("bytes=") and last:
            start, end = int(first), min(int(last) + 1, len(data))
            if mode == "other":
                start, end = start + 1, min(end + 1, len(data))
            self.send_response(206)
            self.send_header("Content-Range", "bytes %d-%d/%d" % (start, end - 1, len(data)))
            body = data[start:end]
            if mode == "alter":
                body = body[: len(body) // 2] + bytes([body[len(body) // 2] ^ 1]) + \
                    body[len(body) // 2 + 1 :]
            elif mode == "cut":
                body = body[:-1]
        else:
            if mode in liars and ranged.startswith("bytes="):
                start = int(first)
                self.send_response(206)
                self.send_header("Content-Range", "bytes %d-%d/%d" % (
                    start, len(data) - 1, len(data)))
            else:
                self.send_response(200)
            body = data[start:] + (b"x" * 4096 if mode == "more" else b"")
        self.send_body(mode, name, ranged, body)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if mode in ("drip", "slow"):
            self.close_connection = True
            size, pause, most = (1, 0.3, 100) if mode == "drip" else (1024, 0.02, len(body))
            try:
                for at in range(0, min(len(body), most), size):
                    self.wfile.write(body[at : at + size])
                    self.wfile.flush()
                    time.sleep(pause)
            except (BrokenPipeError, ConnectionResetError):
                pass  # the client gave up, as it should
            return
        if mode in ("short", "stall"):
            self.close_connection = True
            self.wfile.write(body[: len(body) // 2])
            self.wfile.flush()
            if mode == "stall":
                time.sleep(30)
            return
        self.wfile.write(body)


class Server(http.server.ThreadingHTTPServer):
    def handle_error(self, request, client_address):
        # A client that stops a reply it will not take (a range answered
        # whole) resets the connection: that is no error of the server's.
        if not isinstance(sys.exc_info()[1], (ConnectionResetError, BrokenPipeError)):
            super().handle_error(request, client_address)


server = Server(("127.0.0.1", 0), Handler)
server.daemon_threads = True
SCHEME = "http"
if len(sys.argv) > 4:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(sys.argv[3], sys.argv[4])
    server.socket = context.wrap_socket(server.socket, server_side=True)
    SCHEME = "https"
with open(sys.argv[2] + ".tmp", "w") as out:
    out.write(str(server.server_port))
os.rename(sys.argv[2] + ".tmp", sys.argv[2])
server.serve_forever()
