#!/usr/bin/env python3
"""Opens one page in headless Firefox ESR with the bridge extension installed and reports what happens
(see driver_support.run_bridge_browser). Firefox offers no pipe to drive it, so the profile is made
ready first: the extension as an unsigned XPI (ESR honours xpinstall.signatures.required false) and the
server's authority in its NSS store. Exit status 2 when that fails."""
import json
import os
import subprocess
import sys
import zipfile

from driver_support import BRIDGE_OPTIONS, arguments, install_host, run_bridge_browser

# Add-ons in the profile's own folder enabled without asking; nothing else reaching out or asking.
PREFS = {"xpinstall.signatures.required": False, "extensions.autoDisableScopes": 0,
         "extensions.enabledScopes": 15, "extensions.update.enabled": False, "app.update.enabled": False,
         "browser.shell.checkDefaultBrowser": False, "browser.startup.homepage_override.mstone": "ignore",
         "datareporting.policy.dataSubmissionEnabled": False, "security.OCSP.enabled": 0,
         "toolkit.telemetry.reportingpolicy.firstRun": False, "network.trr.mode": 5,
         "dom.security.https_first": False}


def make_profile(args):
    profile, extension, authority = args.profile, args.extension, args.authority
    os.makedirs(os.path.join(profile, "extensions"), exist_ok=True)
    with open(os.path.join(profile, "user.js"), "w") as prefs:
        prefs.writelines("user_pref(%s, %s);\n" % (json.dumps(key), json.dumps(PREFS[key])) for key in PREFS)
    with open(os.path.join(extension, "manifest.json")) as manifest:
        addon = json.load(manifest)["browser_specific_settings"]["gecko"]["id"]
    with zipfile.ZipFile(os.path.join(profile, "extensions", addon + ".xpi"), "w") as xpi:
        for name in ("manifest.json", "background.js", "content.js"):
            xpi.write(os.path.join(extension, name), name)
    install_host(os.path.expanduser("~/.mozilla/native-messaging-hosts"), "allowed_extensions", addon, args)
    store = "sql:" + profile
    return all(subprocess.run(command, capture_output=True).returncode == 0 for command in (
        ["certutil", "-N", "-d", store, "--empty-password"],
        ["certutil", "-A", "-d", store, "-n", "test-authority", "-t", "C,,", "-i", authority]))


if __name__ == "__main__":
    args = arguments(firefox="/usr/bin/firefox-esr", profile="", authority="", **BRIDGE_OPTIONS)
    if not make_profile(args):
        sys.exit(2)
    argv = [args.firefox, "--headless", "--no-remote", "--profile", args.profile, args.url]
    sys.exit(run_bridge_browser(argv, args))
