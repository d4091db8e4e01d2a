#!/usr/bin/env python3
"""Loopback HTTP(S) server for the tests: the files under --root, else the answers of Handler.scripted,
else 404 (200 "ok" with --answer-ok). --fail SUBSTRING=STATUS[xCOUNT] answers STATUS to paths holding
SUBSTRING (COUNT times); --rate caps each answer's bytes a second; --log gets each request as a JSON line;
--port-file gets "HTTP HTTPS"; a --certificate that does not exist is made, with its authority beside it
(ca.pem). The http port is also a proxy (absolute URLs and CONNECT), demanding --proxy-auth USER:PASSWORD
when given; --connect-to PORT tunnels every other host name to that port."""
import argparse
import base64
import http.server
import json
import os
import select
import socket
import ssl
import struct
import subprocess
import sys
import threading
import time
import urllib.parse


CHALLENGE = [("WWW-Authenticate", 'Basic realm="test"')]


def pattern(n):
    return (bytes(range(256)) * (n // 256 + 1))[:n]


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def setup(self):
        if self.server.tls:
            self.request.settimeout(30)
            self.request = self.server.tls.wrap_socket(self.request, server_side=True)
        super().setup()

    def finish(self):
        try:
            super().finish()
            self.request.close()  # a TLS socket: the server closes only the plain one it accepted
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

    def refused_by_proxy(self):
        credentials = self.server.state.proxy_auth
        if not credentials or self.headers.get("Proxy-Authorization") == credentials:
            return False
        self.send(407, b"proxy", [("Proxy-Authenticate", 'Basic realm="proxy"')])
        return True

    def do_GET(self):
        state = self.server.state
        url = urllib.parse.urlsplit(self.path)
        body = self.rfile.read(int(self.headers.get("Content-Length") or 0))
        state.record(self.command, self.path, self.requestline, body)
        if url.scheme and self.refused_by_proxy():
            return
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
        """/bytes?n=N, /status/CODE (with a challenge; n=N for a body of N bytes), /redirect?to=URL&n=HOPS, /never, /stall (4096 bytes
        of 1000000, then silence), /hold (the headers of 1000 bytes, then silence), /reset (65536 of 10000000), /overlong (69632 of 65536),
        /client/moved-after/CODE/... (CODE once, then 302 to /bytes?n=64), /client/fails-once/CODE/N/...,
        /client/fault/VERB/ARG/... (VERB as above with ARG; a redirect goes to itself)."""
        first = self.server.state.first_time
        verb, arg = parts[0], parts[1] if len(parts) > 1 else "0"
        if parts[:2] == ["client", "fault"] and len(parts) > 3:
            verb, arg = parts[2], parts[3]
            query = {"to": [path]} if verb == "redirect" else query
        if verb == "bytes":
            self.send(200, pattern(int(query.get("n", [arg])[0])))
        elif verb == "status":
            self.send(int(arg), pattern(int(query["n"][0])) if "n" in query else b"challenge", CHALLENGE)
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
        elif verb in ("stall", "reset", "overlong", "hold"):
            total, sent = {"stall": (1000000, 4096), "reset": (10000000, 65536), "overlong": (65536, 69632),
                           "hold": (1000, 0)}[verb]
            self.send(200, pattern(sent), length=total)
            if verb == "reset":
                self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                self.connection.close()
            elif verb in ("stall", "hold"):
                self.server.state.stopping.wait()
            self.close_connection = True
        else:
            return False
        return True

    def do_CONNECT(self):
        self.close_connection = True
        if self.refused_by_proxy():
            return
        host, _, port = self.path.rpartition(":")
        loopback = host in ("127.0.0.1", "localhost", "[::1]", "::1")
        try:
            target = int(port) if loopback or not self.server.state.target else self.server.state.target
            upstream = socket.create_connection(("127.0.0.1", target), timeout=10)
        except (OSError, ValueError):
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


class State:
    def __init__(self, args):
        self.root, self.answer_ok, self.log_path, self.target = args.root, args.answer_ok, args.log, args.connect_to
        scale = {"k": 1024, "m": 1024 * 1024}.get(args.rate[-1:].lower(), 1)  # as nginx: 256k, 1m, bytes
        self.rate = int(args.rate[:-1] if scale > 1 else args.rate or 0) * scale
        self.proxy_auth = args.proxy_auth and "Basic " + base64.b64encode(args.proxy_auth.encode()).decode()
        self.rules = []
        for rule in args.fail:
            substring, _, outcome = rule.rpartition("=")
            status, _, count = outcome.partition("x")
            self.rules.append([substring, int(status), int(count) if count else -1])
        self.lock, self.seen, self.stopping = threading.Lock(), set(), threading.Event()

    def record(self, method, path, request, body):
        entry = {"method": method, "path": path, "request": request, "body": body.decode("latin-1")}
        with self.lock, open(self.log_path or os.devnull, "a") as log:
            log.write(json.dumps(entry, separators=(",", ":")) + "\n")

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


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, state, tls=None):
        super().__init__(("127.0.0.1", 0), Handler)
        self.state, self.tls = state, tls


def make_certificate(certificate, key):
    """A test authority and a server certificate it signs (both sent) for loopback and the test domains."""
    folder = os.path.dirname(os.path.abspath(certificate))
    ca, leaf = os.path.join(folder, "ca"), os.path.join(folder, "leaf.pem")
    domains = ",".join(f"DNS:{name},DNS:*.{name}" for name in ("talvo.us", "talvo.com", "vantrel.com", "example.org"))
    for request in (["-keyout", ca + ".key", "-out", ca + ".pem", "-subj", "/CN=Test Server Authority"],
                    ["-CA", ca + ".pem", "-CAkey", ca + ".key", "-keyout", key, "-out", leaf, "-subj", "/CN=127.0.0.1",
                     "-addext", "subjectAltName=IP:127.0.0.1,DNS:localhost," + domains, "-addext",
                     "basicConstraints=critical,CA:FALSE", "-addext", "extendedKeyUsage=serverAuth"]):
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                        "-nodes", "-days", "2", *request], check=True)
    with open(certificate, "w") as out, open(leaf) as server, open(ca + ".pem") as authority:
        out.write(server.read() + authority.read())


def main(argv):
    parser = argparse.ArgumentParser()
    parser.add_argument("--port-file", required=True)
    for option in ("--log", "--root", "--certificate", "--key", "--rate", "--proxy-auth"):
        parser.add_argument(option, default="")
    parser.add_argument("--fail", action="append", default=[])
    parser.add_argument("--answer-ok", action="store_true")
    parser.add_argument("--connect-to", type=int, default=0)
    args = parser.parse_args(argv)
    state = State(args)
    servers = [Server(state)]
    if args.certificate and not os.path.exists(args.certificate):
        make_certificate(args.certificate, args.key)
    if args.certificate:
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        tls.load_cert_chain(args.certificate, args.key)
        servers.append(Server(state, tls))
        threading.Thread(target=servers[1].serve_forever, daemon=True).start()
    with open(args.port_file + ".tmp", "w") as out:
        out.write(" ".join(str(server.server_address[1]) for server in servers) + "\n")
    os.rename(args.port_file + ".tmp", args.port_file)
    servers[0].serve_forever()


if __name__ == "__main__":
    main(sys.argv[1:])
