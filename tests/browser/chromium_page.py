#!/usr/bin/env python3
"""Opens one page in headless Chromium or --firefox with the bridge extension, --host as native host. Reports
a JSON line "end": url, the first request holding --until in the server's log ("" when none came within
--timeout s: exit status 3), and left, the hosts running 10 s after the browser quit or, when the page's
URL has a fragment (its tab then closes), after that request, the browser staying open."""
import argparse
import contextlib
import json
import os
import signal
import subprocess
import sys
import time

EXTENSION_ORIGIN = "chrome-extension://knlfbodnojljbpfbfhefckeblhadobpa/"  # from the key in its manifest
# A DevTools port on loopback keeps the browser running when the page closes its tab.
FLAGS = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-background-networking",
         "--no-first-run", "--ignore-certificate-errors", "--remote-debugging-port=0"]
ADDON_ID = "gpc-bridge@talvo.example"  # from its manifest
# Unsigned add-ons in the profile's own folder enabled unasked (ESR allows that).
USER_PREFS = ('user_pref("xpinstall.signatures.required", false);\n'
              'user_pref("extensions.autoDisableScopes", 0);\n')


def arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("url")
    parser.add_argument("--chromium", default="/usr/bin/chromium")
    parser.add_argument("--timeout", type=float, default=40.0)
    for name in ("extension", "access-log", "until", "browser-log", "host", "host-pids", "user-data-dir",
                 "firefox", "authority"):
        parser.add_argument("--" + name, default="")
    return parser.parse_args()


def install_host(args):
    """Names --host to the browser by a wrapper (a manifest's "path" takes no arguments) noting its pids."""
    folder, wrapper = os.path.join(args.user_data_dir, "NativeMessagingHosts"), args.host_pids + ".sh"
    key, allowed = ("allowed_extensions", ADDON_ID) if args.firefox else ("allowed_origins", EXTENSION_ORIGIN)
    folder = os.path.expanduser("~/.mozilla/native-messaging-hosts") if args.firefox else folder
    os.makedirs(folder, exist_ok=True)
    with open(wrapper, "w") as script:
        script.write("#!/bin/sh\necho $$ >>'%s'\nexec '%s' --native-messaging\n" % (args.host_pids,
                                                                                     args.host))
    os.chmod(wrapper, 0o755)
    with open(os.path.join(folder, "com.vantrel.talvo.gpc.json"), "w") as manifest:
        json.dump({"name": "com.vantrel.talvo.gpc", "description": "GPC plug-in host", "type": "stdio",
                   "path": wrapper, key: [allowed]}, manifest)


def firefox_profile(args):
    """Firefox takes no extension on its command line: it finds it, unsigned, in the profile made here in
    --user-data-dir, which trusts --authority."""
    profile = args.user_data_dir
    for command in (["7z", "a", "-tzip", profile + "/extensions/" + ADDON_ID + ".xpi", args.extension + "/*"],
                    ["certutil", "-N", "-d", profile, "--empty-password"],
                    ["certutil", "-A", "-d", profile, "-n", "authority", "-t", "C,,", "-i", args.authority]):
        subprocess.run(command, check=True, capture_output=True)
    with open(profile + "/user.js", "w") as prefs:
        prefs.write(USER_PREFS)
    return [args.firefox, "--headless", "--no-remote", "--profile", profile]


def poll(seconds, probe):
    """Asks `probe()` every 0.1 s until it answers something true or `seconds` pass; its last answer."""
    deadline = time.monotonic() + seconds
    while not (answer := probe()) and time.monotonic() < deadline:
        time.sleep(0.1)
    return answer


def running(pid):
    with contextlib.suppress(OSError), open("/proc/%s/stat" % pid) as stat:
        return stat.read().rpartition(")")[2].split()[0] != "Z"  # a zombie has ended
    return False


def hosts_left(args):
    """The hosts of --host-pids still running 10 s on, killed."""
    def hosts():
        with open(args.host_pids, "a+") as pids:
            pids.seek(0)
            return [int(pid) for pid in pids.read().split() if running(pid)]
    poll(10, lambda: not hosts())
    left = hosts()
    for pid in left:
        os.kill(pid, signal.SIGKILL)
    return left


def run_browser(args):
    install_host(args)
    start = os.path.getsize(args.access_log) if os.path.exists(args.access_log) else 0
    with open(args.browser_log or os.devnull, "ab") as log:
        chromium = [args.chromium, *FLAGS, "--user-data-dir=" + args.user_data_dir,
                    "--load-extension=" + args.extension, "--disable-extensions-except=" + args.extension]
        browser = subprocess.Popen((firefox_profile(args) if args.firefox else chromium) + [args.url],
                                   stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True)

    def requested():
        with open(args.access_log, "a+") as log:  # made here when the server has logged nothing yet
            log.seek(start)
            lines = [line for line in log if args.until in line and line.endswith("\n")]
            return [json.loads(line)["request"].split(" ")[1] for line in lines]

    left, url = [], ""
    try:
        url = (poll(args.timeout, requested) or [""])[0]
        left = hosts_left(args) if url and "#" in args.url else []
    finally:
        browser.terminate()
        poll(10, lambda: browser.poll() is not None)
        left += hosts_left(args)
        with contextlib.suppress(ProcessLookupError):
            os.killpg(browser.pid, signal.SIGKILL)  # what the browser left behind
        browser.wait()
    print(json.dumps({"event": "end", "url": url, "left": left}, separators=(",", ":")), flush=True)
    return 0 if url else 3


if __name__ == "__main__":
    sys.exit(run_browser(arguments()))
