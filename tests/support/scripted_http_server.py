#!/usr/bin/env python3
"""Loopback HTTP server for the networking tests, for behaviour a static file server cannot show.

Paths:
  /bytes?n=N            200 with N bytes of a fixed pattern
  /headers              200 with the request's header lines as the body
  /status/CODE          answers CODE with a short body (401, 403, 407, ...)
  /once/CODE/KEY        CODE the first time KEY is asked for, then 200 "granted"
  /redirect?to=URL&n=K  302 to URL after K-1 more hops through /redirect
  /client/moved-after/CODE/...  CODE the first time the path is asked for, then 302 to /bytes?n=64
  /client/fails-once/CODE/N/... CODE the first time the path is asked for, then 200 with N bytes
  /never                reads the request and never answers
  /stall                sends the header and 4096 of 1000000 bytes, then nothing more
  /reset                sends the header and 65536 of 10000000 bytes, then resets the connection

Under /client/fault/ (a path a page may name as its package folder) the same answers follow
/client/fault/VERB/..., with the verbs bytes/N, status/CODE, stall, reset, redirect (back to the
same path, for ever) and overlong (a body 4096 bytes longer than its Content-Length of 65536).

Every request's path (without query) is appended to --request-log before it is answered.
The chosen port is written to --port-file once the server listens.
"""
import argparse
import http.server
import os
import socket
import struct
import threading
import urllib.parse

PATTERN = bytes(range(256))


def pattern(n):
    return (PATTERN * (n // len(PATTERN) + 1))[:n]


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, fmt, *args):
        pass

    def finish(self):
        try:
            super().finish()
        except OSError:
            pass

    def send_body(self, code, body, extra=()):
        self.send_response(code)
        for name, value in extra:
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def start_partial(self, total, sent):
        self.send_response(200)
        self.send_header("Content-Length", str(total))
        self.end_headers()
        self.wfile.write(pattern(sent))
        self.wfile.flush()

    def do_GET(self):
        url = urllib.parse.urlsplit(self.path)
        query = urllib.parse.parse_qs(url.query)
        self.server.record(url.path)
        parts = url.path.strip("/").split("/")
        if parts[:2] == ["client", "fault"] and len(parts) > 3:
            self.fault(parts[2:], url.path)
        elif parts[0] == "bytes":
            self.send_body(200, pattern(int(query.get("n", ["0"])[0])))
        elif parts[0] == "headers":
            self.send_body(200, str(self.headers).encode())
        elif parts[0] == "status" and len(parts) == 2:
            self.send_body(int(parts[1]), b"challenge", [("WWW-Authenticate", 'Basic realm="test"')])
        elif parts[0] == "once" and len(parts) == 3:
            if self.server.first_time(url.path):
                self.send_body(int(parts[1]), b"challenge")
            else:
                self.send_body(200, b"granted")
        elif parts[:2] == ["client", "moved-after"] and len(parts) >= 3:
            if self.server.first_time(url.path):
                self.send_body(int(parts[2]), b"challenge", [("WWW-Authenticate", 'Basic realm="test"')])
            else:
                self.send_body(302, b"", [("Location", "/bytes?n=64")])
        elif parts[:2] == ["client", "fails-once"] and len(parts) >= 4:
            if self.server.first_time(url.path):
                self.send_body(int(parts[2]), b"failed")
            else:
                self.send_body(200, pattern(int(parts[3])))
        elif parts[0] == "redirect":
            hops = int(query.get("n", ["1"])[0])
            target = query["to"][0]
            if hops > 1:
                target = "/redirect?" + urllib.parse.urlencode({"to": target, "n": hops - 1})
            self.send_body(302, b"", [("Location", target)])
        elif parts[0] == "never":
            self.server.stopping.wait()
        elif parts[0] == "stall":
            self.start_partial(1000000, 4096)
            self.server.stopping.wait()
        elif parts[0] == "reset":
            self.reset_after(10000000, 65536)
        else:
            self.send_body(404, b"not found")

    def fault(self, parts, path):
        verb = parts[0]
        if verb == "status":
            self.send_body(int(parts[1]), b"refused", [("WWW-Authenticate", 'Basic realm="test"')])
        elif verb == "stall":
            self.start_partial(1000000, 4096)
            self.server.stopping.wait()
        elif verb == "reset":
            self.reset_after(10000000, 65536)
        elif verb == "redirect":
            self.send_body(302, b"", [("Location", path)])
        elif verb == "bytes":
            self.send_body(200, pattern(int(parts[1])))
        elif verb == "overlong":
            self.start_partial(65536, 65536 + 4096)
        else:
            self.send_body(404, b"not found")

    def reset_after(self, total, sent):
        self.start_partial(total, sent)
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.connection.close()
        self.close_connection = True


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, request_log):
        super().__init__(("127.0.0.1", 0), Handler)
        self.request_log = request_log
        self.lock = threading.Lock()
        self.seen = set()
        self.stopping = threading.Event()

    def record(self, path):
        with self.lock, open(self.request_log, "a") as log:
            log.write(path + "\n")

    def first_time(self, key):
        with self.lock:
            if key in self.seen:
                return False
            self.seen.add(key)
            return True


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port-file", required=True)
    parser.add_argument("--request-log", required=True)
    args = parser.parse_args()
    server = Server(args.request_log)
    with open(args.port_file + ".tmp", "w") as out:
        out.write("%d\n" % server.server_address[1])
    os.rename(args.port_file + ".tmp", args.port_file)
    server.serve_forever()


if __name__ == "__main__":
    main()
