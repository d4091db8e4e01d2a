#!/usr/bin/env python3
"""Loopback HTTP server that records every request, for the tests that drive the plug-in host.

Each request is appended to --log as one JSON object per line: method, path (with query) and
body. Every answer is 200 "ok" (text/plain) unless a --fail rule matches:
  --fail SUBSTRING=STATUS[xCOUNT]  answer STATUS to requests whose path contains SUBSTRING,
                                   the first COUNT of them (every one without COUNT)
The chosen port is written to --port-file once the server listens.
"""
import argparse
import http.server
import json
import os
import threading


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, fmt, *args):
        pass

    def answer(self):
        length = int(self.headers.get("Content-Length", "0") or "0")
        body = self.rfile.read(length) if length > 0 else b""
        self.server.record(self.command, self.path, body)
        status = self.server.status_for(self.path)
        payload = b"ok" if status < 400 else b"failed"
        self.send_response(status)
        self.send_header("Content-Type", "text/plain")
        self.send_header("Content-Length", str(len(payload)))
        self.end_headers()
        self.wfile.write(payload)

    do_GET = answer
    do_POST = answer


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, log_path, rules):
        super().__init__(("127.0.0.1", 0), Handler)
        self.log_path = log_path
        self.rules = rules
        self.lock = threading.Lock()

    def record(self, method, path, body):
        line = json.dumps({"method": method, "path": path, "body": body.decode("latin-1")},
                          separators=(",", ":"))
        with self.lock, open(self.log_path, "a") as log:
            log.write(line + "\n")

    def status_for(self, path):
        with self.lock:
            for rule in self.rules:
                if rule["text"] in path and rule["left"] != 0:
                    rule["left"] -= 1
                    return rule["status"]
        return 200


def parse_rule(text):
    pattern, _, outcome = text.rpartition("=")
    status, _, count = outcome.partition("x")
    return {"text": pattern, "status": int(status), "left": int(count) if count else -1}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--log", required=True)
    parser.add_argument("--port-file", required=True)
    parser.add_argument("--fail", action="append", default=[])
    args = parser.parse_args()
    server = Server(args.log, [parse_rule(rule) for rule in args.fail])
    temporary = args.port_file + ".tmp"
    with open(temporary, "w") as out:
        out.write(str(server.server_address[1]))
    os.rename(temporary, args.port_file)
    server.serve_forever()


if __name__ == "__main__":
    main()
