#!/usr/bin/env python3
"""An HTTP CONNECT proxy on 127.0.0.1 that sends every host name to the local test server.

"CONNECT any-host:any-port" opens a tunnel to 127.0.0.1:--target-port, so a browser or the
plug-in can reach real names (meet.talvo.us, downloads.example.org) while every byte stays on
this machine. "CONNECT 127.0.0.1:N" (or localhost:N) tunnels to that loopback port itself.
Nothing ever connects to another address. Other methods are answered 405.

Each CONNECT is appended to --log as a JSON line {"host": ..., "port": ...}. The chosen port is
written to --port-file (with a final line break) once the proxy listens. Stops on SIGTERM.
"""
import argparse
import json
import os
import select
import signal
import socket
import socketserver
import sys
import threading

LOOPBACK_NAMES = ("127.0.0.1", "localhost", "[::1]", "::1")
TUNNEL_IDLE_SECONDS = 60


class Handler(socketserver.StreamRequestHandler):
    def handle(self):
        request_line = self.rfile.readline(8192).decode("latin-1").strip()
        while self.rfile.readline(8192) not in (b"\r\n", b"\n", b""):
            pass  # request headers: nothing in them changes where the tunnel goes
        parts = request_line.split()
        if len(parts) != 3 or parts[0].upper() != "CONNECT":
            self.wfile.write(b"HTTP/1.1 405 Method Not Allowed\r\nContent-Length: 0\r\n\r\n")
            return
        host, _, port_text = parts[1].rpartition(":")
        port = int(port_text) if port_text.isdigit() else 443
        self.server.record(host, port)
        target_port = port if host in LOOPBACK_NAMES else self.server.target_port
        try:
            upstream = socket.create_connection(("127.0.0.1", target_port), timeout=10)
        except OSError:
            self.wfile.write(b"HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n")
            return
        self.wfile.write(b"HTTP/1.1 200 Connection Established\r\n\r\n")
        self.wfile.flush()
        with upstream:
            relay(self.connection, upstream)


def relay(a, b):
    """Copies bytes both ways until either side closes or the tunnel idles too long."""
    sockets = [a, b]
    while True:
        readable, _, _ = select.select(sockets, [], [], TUNNEL_IDLE_SECONDS)
        if not readable:
            return
        for source in readable:
            try:
                data = source.recv(65536)
            except OSError:
                return
            if not data:
                return
            (b if source is a else a).sendall(data)


class Proxy(socketserver.ThreadingTCPServer):
    daemon_threads = True
    allow_reuse_address = True

    def __init__(self, target_port, log_path):
        super().__init__(("127.0.0.1", 0), Handler)
        self.target_port = target_port
        self.log_path = log_path
        self.lock = threading.Lock()

    def record(self, host, port):
        if not self.log_path:
            return
        with self.lock, open(self.log_path, "a") as log:
            log.write(json.dumps({"host": host, "port": port}, separators=(",", ":")) + "\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--target-port", type=int, required=True,
                        help="port on 127.0.0.1 that every other host name is sent to")
    parser.add_argument("--port-file", required=True)
    parser.add_argument("--log", default="")
    args = parser.parse_args()
    proxy = Proxy(args.target_port, args.log)
    signal.signal(signal.SIGTERM, lambda *unused: sys.exit(0))
    temporary = args.port_file + ".tmp"
    with open(temporary, "w") as f:
        f.write("%d\n" % proxy.server_address[1])
    os.rename(temporary, args.port_file)
    proxy.serve_forever()


if __name__ == "__main__":
    main()
