#!/usr/bin/env python3
"""Opens one page in headless Firefox with the bridge extension installed and reports what happens.

Firefox offers no pipe to drive it the way Chromium does, so this driver makes the profile ready
before the start and watches the server instead of the page: the extension goes into the
profile's extensions folder as an unsigned XPI (Firefox ESR honours
xpinstall.signatures.required=false), the test server's certificate authority into the
profile's certificate store (NSS certutil), and the run ends when the server's access log shows
a new request containing --until. Prints one JSON object per line:
  {"t":"request","line":...}   the access-log line that matched
  {"t":"end","url":...}        the path of that request ("" when none came)
  {"t":"leftover","pids":[..]} processes of the browser's group still there after it quit
Exit status: 0 when the request came within --timeout seconds, 3 when it did not, 2 when the
profile could not be made. Firefox and what it started run in a process group of their own: the
browser is asked to quit (SIGTERM), and whatever outlives it is killed and reported.
"""
import argparse
import json
import os
import signal
import subprocess
import sys
import time
import zipfile

from driver_support import emit, stat_fields

PREFS = {
    "xpinstall.signatures.required": False,
    # Add-ons in the profile's own folder are enabled without asking.
    "extensions.autoDisableScopes": 0,
    "extensions.enabledScopes": 15,
    "extensions.update.enabled": False,
    "app.update.enabled": False,
    "browser.shell.checkDefaultBrowser": False,
    "browser.startup.homepage_override.mstone": "ignore",
    "datareporting.policy.dataSubmissionEnabled": False,
    "toolkit.telemetry.reportingpolicy.firstRun": False,
    "security.OCSP.enabled": 0,
    "network.trr.mode": 5,
    "dom.security.https_first": False,
}


def make_profile(profile, extension, authority):
    os.makedirs(os.path.join(profile, "extensions"), exist_ok=True)
    with open(os.path.join(profile, "user.js"), "w") as prefs:
        for name, value in PREFS.items():
            prefs.write("user_pref(%s, %s);\n" % (json.dumps(name), json.dumps(value)))
    with open(os.path.join(extension, "manifest.json")) as manifest:
        addon_id = json.load(manifest)["browser_specific_settings"]["gecko"]["id"]
    with zipfile.ZipFile(os.path.join(profile, "extensions", addon_id + ".xpi"), "w") as xpi:
        for name in ("manifest.json", "background.js", "content.js"):
            xpi.write(os.path.join(extension, name), name)
    store = "sql:" + profile
    for command in (["certutil", "-N", "-d", store, "--empty-password"],
                    ["certutil", "-A", "-d", store, "-n", "test-authority", "-t", "C,,", "-i", authority]):
        if subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode != 0:
            return False
    return True


def log_size(path):
    try:
        return os.path.getsize(path)
    except OSError:
        return 0


def wait_for_request(access_log, start, until, timeout):
    """The first line written to `access_log` after offset `start` that holds `until`."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        try:
            with open(access_log, errors="replace") as log:
                log.seek(start)
                for line in log:
                    if until in line:
                        return line.strip()
        except OSError:
            pass
        time.sleep(0.1)
    return None


def group_members(group):
    members = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        fields = stat_fields(entry)
        if fields is not None and int(fields[2]) == group and fields[0] != "Z":
            members.append(int(entry))
    return members


def quit_browser(process):
    if process.poll() is None:
        process.send_signal(signal.SIGTERM)
        try:
            process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            pass
    # What the browser started has a moment to see its ports close.
    deadline = time.monotonic() + 5
    while group_members(process.pid) and time.monotonic() < deadline:
        time.sleep(0.1)
    left = group_members(process.pid)
    if left:
        emit("leftover", pids=left)
        os.killpg(process.pid, signal.SIGKILL)
    if process.poll() is None:
        process.kill()
        process.wait()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("url")
    parser.add_argument("--firefox", default="/usr/bin/firefox-esr")
    parser.add_argument("--profile", required=True, help="a folder to make the profile in")
    parser.add_argument("--extension", required=True)
    parser.add_argument("--authority", required=True, help="PEM of the authority the server's certificate chains to")
    parser.add_argument("--access-log", required=True)
    parser.add_argument("--until", required=True)
    parser.add_argument("--timeout", type=float, default=30)
    parser.add_argument("--browser-log")
    args = parser.parse_args()
    if not make_profile(args.profile, args.extension, args.authority):
        emit("end", url="")
        return 2
    start = log_size(args.access_log)
    log = open(args.browser_log or os.devnull, "ab")
    process = subprocess.Popen([args.firefox, "--headless", "--no-remote", "--profile", args.profile, args.url],
                               stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True)
    try:
        line = wait_for_request(args.access_log, start, args.until, args.timeout)
    finally:
        quit_browser(process)
        log.close()
    if line is None:
        emit("end", url="")
        return 3
    emit("request", line=line)
    request = line.split('"')[1] if line.count('"') >= 2 else ""
    emit("end", url=request.split(" ")[1] if " " in request else "")
    return 0


if __name__ == "__main__":
    sys.exit(main())
