#!/usr/bin/env python3
"""Opens one page in headless Chromium with the bridge extension loaded and reports what happens (see
driver_support.run_bridge_browser). A DevTools port on loopback keeps the browser running when the page
closes its tab."""
import os
import sys

from driver_support import BRIDGE_OPTIONS, arguments, install_host, run_bridge_browser

FLAGS = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-background-networking",
         "--disable-sync", "--disable-component-update", "--no-first-run", "--disable-quic",
         "--no-default-browser-check", "--disable-default-apps", "--ignore-certificate-errors",
         "--remote-debugging-port=0"]

if __name__ == "__main__":
    args = arguments(chromium="/usr/bin/chromium", user_data_dir="", **BRIDGE_OPTIONS)
    # The extension's id follows from the key in its manifest.
    install_host(os.path.join(args.user_data_dir, "NativeMessagingHosts"), "allowed_origins",
                 "chrome-extension://knlfbodnojljbpfbfhefckeblhadobpa/", args)
    sys.exit(run_bridge_browser([args.chromium, *FLAGS, "--user-data-dir=" + args.user_data_dir,
                                 "--load-extension=" + args.extension,
                                 "--disable-extensions-except=" + args.extension, args.url], args))
