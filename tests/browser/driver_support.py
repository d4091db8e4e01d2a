"""What the browser drivers share: their options, their reports (a JSON line each, "event" naming it)
and one run of a bridge browser, which sees no page: it is watched through the server's access log."""
import argparse
import json
import os
import signal
import subprocess
import time

# The options of both bridge drivers (run_bridge_browser tells what they do).
BRIDGE_OPTIONS = dict(extension="", access_log="", until="", timeout=40.0, browser_log="", host="",
                      host_pids="")


def arguments(**defaults):
    """The page's URL and the options `--name value`, each typed as its default."""
    parser = argparse.ArgumentParser()
    parser.add_argument("url")
    for name, default in defaults.items():
        parser.add_argument("--" + name.replace("_", "-"), default=default, type=type(default))
    return parser.parse_args()


def emit(kind, **fields):
    print(json.dumps(dict(event=kind, **fields), separators=(",", ":"), ensure_ascii=False), flush=True)


def install_host(folder, key, allowed, args):
    """Names --host to the browser as its native-messaging host in `folder`, through a wrapper (a manifest's
    "path" takes no arguments, and the browser's are dropped) that adds each host's id to --host-pids."""
    os.makedirs(folder, exist_ok=True)
    wrapper = args.host_pids + ".sh"
    with open(wrapper, "w") as script:
        script.write("#!/bin/sh\necho $$ >>'%s'\nexec '%s' --native-messaging\n"
                     % (args.host_pids, args.host))
    os.chmod(wrapper, 0o755)
    with open(os.path.join(folder, "com.vantrel.talvo.gpc.json"), "w") as manifest:
        json.dump({"name": "com.vantrel.talvo.gpc", "description": "GPC plug-in host", "path": wrapper,
                   "type": "stdio", key: [allowed]}, manifest)


def running(pid, group=None):
    """Whether process `pid` runs (a zombie does not), in process group `group` when one is given."""
    try:
        with open("/proc/%s/stat" % pid) as stat:
            fields = stat.read().rpartition(")")[2].split()
    except OSError:  # gone, or no process at all
        return False
    return fields[0] != "Z" and (group is None or int(fields[2]) == group)


def poll(seconds, probe):
    """Asks `probe()` every 0.1 s until it answers something true or `seconds` pass; its last answer."""
    deadline = time.monotonic() + seconds
    while not (answer := probe()) and time.monotonic() < deadline:
        time.sleep(0.1)
    return answer


def left_after(seconds, pids):
    """The processes of `pids()` still running after `seconds`, killed."""
    poll(seconds, lambda: not [pid for pid in pids() if running(pid)])
    left = [int(pid) for pid in pids() if running(pid)]
    for pid in left:
        os.kill(pid, signal.SIGKILL)
    return left


def run_bridge_browser(argv, args):
    """Runs `argv` in a process group of its own until the server gets a request holding --until, then asks
    it to quit. Reports "left" (pids): when the page's URL has a fragment (the page then closes its tab), the
    hosts still running 10 s after that request, the browser staying open; after the browser quit, the hosts
    and its group's processes still there 5 s on (all killed). Then "end" (url: the request, or "").
    Exit status 0 when the request came within --timeout seconds, else 3."""
    start = os.path.getsize(args.access_log) if os.path.exists(args.access_log) else 0
    with open(args.browser_log or os.devnull, "ab") as log:
        browser = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                   start_new_session=True)

    def requested():
        with open(args.access_log, "a+") as log:  # made here when the server has logged nothing yet
            log.seek(start)
            lines = [line for line in log if args.until in line and line.endswith("\n")]
            return [json.loads(line)["request"].split(" ")[1] for line in lines]

    def hosts():
        with open(args.host_pids) as pids:
            return pids.read().split()

    try:
        url = (poll(args.timeout, requested) or [""])[0]
        if url and "#" in args.url:
            emit("left", pids=left_after(10, hosts))
    finally:
        browser.terminate()
        poll(10, lambda: browser.poll() is not None)
        group = left_after(5, lambda: [pid for pid in os.listdir("/proc") if running(pid, browser.pid)])
        browser.wait()
    emit("left", pids=group + left_after(10, hosts))
    emit("end", url=url)
    return 0 if url else 3
