#!/usr/bin/env python3
"""STAND-IN for `gpc-host --native-messaging`, for the browser bridge test until that mode exists.

Speaks the bridge's native-messaging protocol on stdin/stdout (32-bit native-order length, then
UTF-8 JSON) and runs each embed through the existing command-line gpc-host, which loads the real
module: "embed" starts `gpc-host --page-url URL --param NAME=VALUE ...`; its "navigate" events go
back as "navigate" messages, its finished package download as a "downloading" status, its failure
to start as an "error". "destroy" and the end of stdin stop the runs. What it cannot do like the
real mode: a navigation is reported to the module as done at once, not when "navigated" arrives.

Usage (from a wrapper the browser starts): standin_native_host.py --gpc-host PATH [--log FILE] [ORIGIN]
"""
import argparse
import json
import os
import struct
import subprocess
import sys
import threading

_out_lock = threading.Lock()
_log = None


def log(text):
    if _log:
        _log.write(text + "\n")
        _log.flush()


def send(message):
    data = json.dumps(message).encode("utf-8")
    with _out_lock:
        sys.stdout.buffer.write(struct.pack("=I", len(data)) + data)
        sys.stdout.buffer.flush()
    log("out " + json.dumps(message))


def read_message():
    header = sys.stdin.buffer.read(4)
    if len(header) < 4:
        return None
    (length,) = struct.unpack("=I", header)
    return json.loads(sys.stdin.buffer.read(length).decode("utf-8"))


def relay(embed_id, process):
    """Turns one gpc-host run's event lines into bridge messages."""
    for line in process.stdout:
        try:
            event = json.loads(line)
        except ValueError:
            continue
        name = event.get("event")
        if name == "navigate":
            send({"type": "navigate", "id": embed_id, "request": event.get("id", 0),
                  "url": event.get("url", ""), "target": event.get("target") or "_self"})
        elif name == "stream_end" and str(event.get("url", "")).endswith(".7z") and event.get("reason") == 0:
            size = event.get("bytes", 0)
            send({"type": "status", "id": embed_id, "stage": "downloading", "done": size, "total": size})
        elif name == "instance" and event.get("result", 0) != 0:
            send({"type": "error", "id": embed_id, "message": "The module refused to start (%s)." % event.get("result")})
    code = process.wait()
    log("gpc-host for %s ended with %d" % (embed_id, code))


def main():
    global _log
    parser = argparse.ArgumentParser()
    parser.add_argument("--gpc-host", required=True)
    parser.add_argument("--log")
    parser.add_argument("origin", nargs="*")
    args = parser.parse_args()
    if args.log:
        _log = open(args.log, "a")
    log("started by %s" % " ".join(args.origin))
    runs = {}
    while True:
        message = read_message()
        if message is None:
            break
        log("in " + json.dumps(message))
        kind, embed_id = message.get("type"), message.get("id")
        if kind == "embed" and embed_id not in runs:
            argv = [args.gpc_host, "--run-ms", "60000", "--page-url", message.get("pageUrl", "")]
            for name, value in message.get("params", []):
                argv += ["--param", "%s=%s" % (name, value)]
            send({"type": "status", "id": embed_id, "stage": "started"})
            process = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                       stderr=_log or subprocess.DEVNULL, text=True)
            runs[embed_id] = process
            threading.Thread(target=relay, args=(embed_id, process), daemon=True).start()
        elif kind == "destroy" and embed_id in runs:
            runs.pop(embed_id).terminate()
    for process in runs.values():
        process.terminate()
    for process in runs.values():
        process.wait()
    log("stdin closed")
    os._exit(0)


if __name__ == "__main__":
    main()
