#!/usr/bin/env python3
"""Loopback HTTP(S) server for the tests: the files under --root, else the answers of Handler.scripted
(scripted silence, stalls, resets, challenges, redirects, header echo), else 404 (200 "ok" with
--answer-ok). --fail SUBSTRING=STATUS[xCOUNT] answers STATUS to paths holding SUBSTRING (COUNT times);
--rate caps each answer's bytes a second; --log gets each request as a JSON line; --port-file gets
"HTTP HTTPS". With --connect-to PORT it is a CONNECT proxy taking every host name to that port.
"""
import argparse
import http.server
import json
import os
import select
import socket
import ssl
import struct
import sys
import threading
import time
import urllib.parse

PATTERN = bytes(range(256))
CHALLENGE = [("WWW-Authenticate", 'Basic realm="test"')]


def pattern(n):
    return (PATTERN * (n // len(PATTERN) + 1))[:n]


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, fmt, *args):
        pass

    def setup(self):
        if self.server.tls:
            self.request.settimeout(30)
            self.request = self.server.tls.wrap_socket(self.request, server_side=True)
        super().setup()

    def finish(self):
        try:
            super().finish()
            self.request.close()
        except OSError:
            pass

    def send(self, code, body, extra=(), length=None):
        self.send_response(code)
        for name, value in extra:
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(body) if length is None else length))
        self.end_headers()
        rate, start, sent = self.server.state.rate, time.monotonic(), 0
        step = max(1, min(65536, rate // 10)) if rate else len(body) or 1
        while sent < len(body):
            self.wfile.write(body[sent:sent + step])
            sent += step
            if rate:
                time.sleep(max(0.0, sent / rate - (time.monotonic() - start)))
        self.wfile.flush()

    def cut(self, total, sent, then):
        self.send(200, pattern(sent), length=total)
        if then == "reset":
            self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            self.connection.close()
        elif then == "wait":
            self.server.state.stopping.wait()
        self.close_connection = True

    def do_GET(self):
        state = self.server.state
        url = urllib.parse.urlsplit(self.path)
        body = self.rfile.read(int(self.headers.get("Content-Length") or 0))
        state.record(self.command, self.path, self.requestline, body)
        failure = state.failure(url.path)
        file = os.path.join(state.root, urllib.parse.unquote(url.path).lstrip("/"))
        if failure:
            self.send(failure, b"failed")
        elif state.root and ".." not in url.path.split("/") and os.path.isfile(file):
            kind = "text/html" if file.endswith(".html") else "application/octet-stream"
            with open(file, "rb") as served:
                self.send(200, served.read(), [("Content-Type", kind)])
        elif not self.scripted(url.path.strip("/").split("/"), url.path, urllib.parse.parse_qs(url.query)):
            self.send(200, b"ok") if state.answer_ok else self.send(404, b"none")

    do_POST = do_GET

    def scripted(self, parts, path, query):
        """/bytes?n=N, /headers, /status/CODE, /once/CODE/KEY (CODE once, then "granted"), /never,
        /redirect?to=URL&n=HOPS, /stall (4096 bytes of 1000000, then silence), /reset (65536 of 10000000),
        /client/moved-after/CODE/... (CODE once, then 302 to /bytes?n=64), /client/fails-once/CODE/N/...,
        /client/fault/VERB/... (bytes/N, status/CODE, stall, reset, overlong, redirect to itself)."""
        first = self.server.state.first_time
        verb, arg = parts[0], parts[1] if len(parts) > 1 else "0"
        if parts[:2] == ["client", "fault"] and len(parts) > 3:
            verb, arg = parts[2], parts[3]
            if verb == "redirect":
                query = {"to": [path]}
        if verb == "bytes":
            self.send(200, pattern(int(query.get("n", [arg])[0])))
        elif verb == "headers":
            self.send(200, str(self.headers).encode())
        elif verb == "status":
            self.send(int(arg), b"challenge", CHALLENGE)
        elif verb == "once" and len(parts) == 3:
            self.send(int(arg), b"challenge") if first(path) else self.send(200, b"granted")
        elif parts[:2] == ["client", "moved-after"] and len(parts) > 2:
            self.send(int(parts[2]), b"challenge", CHALLENGE) if first(path) else \
                self.send(302, b"", [("Location", "/bytes?n=64")])
        elif parts[:2] == ["client", "fails-once"] and len(parts) > 3:
            self.send(int(parts[2]), b"failed") if first(path) else self.send(200, pattern(int(parts[3])))
        elif verb == "redirect":
            hops, target = int(query.get("n", ["1"])[0]), query["to"][0]
            if hops > 1:
                target = "/redirect?" + urllib.parse.urlencode({"to": target, "n": hops - 1})
            self.send(302, b"", [("Location", target)])
        elif verb == "never":
            self.server.state.stopping.wait()
        elif verb in ("stall", "reset", "overlong"):
            self.cut(*{"stall": (1000000, 4096, "wait"), "reset": (10000000, 65536, "reset"),
                       "overlong": (65536, 65536 + 4096, "")}[verb])
        else:
            return False
        return True


class State:
    def __init__(self, args):
        self.root, self.answer_ok, self.log_path = args.root, args.answer_ok, args.log
        self.rate = parse_rate(args.rate)
        self.rules = [parse_rule(rule) for rule in args.fail]
        self.lock, self.seen, self.stopping = threading.Lock(), set(), threading.Event()

    def record(self, method, path, request, body):
        entry = {"method": method, "path": path, "request": request, "body": body.decode("latin-1")}
        line = json.dumps(entry, separators=(",", ":"))
        with self.lock, open(self.log_path, "a") as log:
            log.write(line + "\n")

    def failure(self, path):
        with self.lock:
            for rule in self.rules:
                if rule[0] in path and rule[2] != 0:
                    rule[2] -= 1
                    return rule[1]
        return 0

    def first_time(self, key):
        with self.lock:
            seen = key in self.seen
            self.seen.add(key)
            return not seen


def parse_rule(text):
    substring, _, outcome = text.rpartition("=")
    status, _, count = outcome.partition("x")
    return [substring, int(status), int(count) if count else -1]


def parse_rate(text):
    """An nginx-style rate: bytes, or with a k or m suffix."""
    scale = {"k": 1024, "m": 1024 * 1024}.get(text[-1:].lower(), 1)
    return int(text[:-1] if scale > 1 else text or 0) * scale


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, state, tls=None, handler=Handler):
        super().__init__(("127.0.0.1", 0), handler)
        self.state, self.tls = state, tls

    def handle_error(self, request, address):
        pass


class Tunnel(http.server.BaseHTTPRequestHandler):
    def log_message(self, fmt, *args):
        pass

    def do_CONNECT(self):
        host, _, port = self.path.rpartition(":")
        port = int(port) if port.isdigit() else 443
        state = self.server.state
        with state.lock, open(state.log_path or os.devnull, "a") as log:
            log.write(json.dumps({"host": host, "port": port}, separators=(",", ":")) + "\n")
        loopback = host in ("127.0.0.1", "localhost", "[::1]", "::1")
        try:
            upstream = socket.create_connection(("127.0.0.1", port if loopback else state.target), timeout=10)
        except OSError:
            return self.send_error(502)
        self.wfile.write(b"HTTP/1.1 200 Connection Established\r\n\r\n")
        with upstream:
            ends = [self.connection, upstream]
            while True:
                readable = select.select(ends, [], [], 60)[0]
                data = readable and readable[0].recv(65536)
                if not data:
                    return
                ends[readable[0] is ends[0]].sendall(data)


def main(argv):
    parser = argparse.ArgumentParser()
    parser.add_argument("--port-file", required=True)
    parser.add_argument("--log", default="")
    parser.add_argument("--root", default="")
    parser.add_argument("--certificate", default="")
    parser.add_argument("--key", default="")
    parser.add_argument("--rate", default="")
    parser.add_argument("--fail", action="append", default=[])
    parser.add_argument("--answer-ok", action="store_true")
    parser.add_argument("--connect-to", type=int, default=0)
    args = parser.parse_args(argv)
    state = State(args)
    state.target = args.connect_to
    servers = [Server(state, handler=Tunnel if args.connect_to else Handler)]
    if args.certificate:
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        tls.load_cert_chain(args.certificate, args.key)
        servers.append(Server(state, tls))
    for server in servers[1:]:
        threading.Thread(target=server.serve_forever, daemon=True).start()
    with open(args.port_file + ".tmp", "w") as out:
        out.write(" ".join(str(server.server_address[1]) for server in servers) + "\n")
    os.rename(args.port_file + ".tmp", args.port_file)
    servers[0].serve_forever()


if __name__ == "__main__":
    main(sys.argv[1:])
