#!/usr/bin/env python3
"""Opens one page in headless Chromium with the bridge extension loaded and reports what happens.

Drives Chromium over --remote-debugging-pipe (DevTools protocol, NUL-separated JSON on fds 3/4),
so no port and no websocket library are needed. Prints one JSON object per line:
  {"t":"extension","url":...}            the extension's service worker came up
  {"t":"status","text":...,"state":...}   the embed's status box changed (seen from the page)
  {"t":"screenshot","path":...}           a PNG of the page as the run ends
  {"t":"navigated","url":...}             the top frame loaded a new document
  {"t":"end","url":...,"text":...}        the last URL and the page's visible text
  {"t":"host","running":...}              with --close-tab: whether the host outlived the tab
Exit status: 0 when the top frame reached a URL containing --until (or the status box showed
--until-status), 3 when it did not in
--timeout seconds, 2 when the browser or the extension did not come up. Chromium and everything
it started (the native host too) run in a process group of their own, stopped on the way out.
"""
import argparse
import base64
import json
import os
import select
import signal
import subprocess
import sys
import time

from driver_support import emit, running

# Reports each change of an embed's status box to the driver through the gpcStatus binding.
STATUS_WATCH = """
(() => {
  let last = null;
  const report = () => {
    const box = document.querySelector('[data-talvo-gpc-status]');
    if (!box) return;
    const text = box.textContent + '|' + (box.getAttribute('data-talvo-gpc-state') || '');
    if (text !== last) { last = text; window.gpcStatus(text); }
  };
  new MutationObserver(report).observe(document, {childList: true, subtree: true, characterData: true,
                                                  attributes: true});
})();
"""

QUIET_FLAGS = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-background-networking",
               "--disable-component-update", "--disable-sync", "--no-first-run", "--disable-quic",
               "--no-default-browser-check", "--disable-default-apps", "--ignore-certificate-errors",
               "--window-size=800,600"]


class Pipe:
    """The DevTools protocol over two pipes, with a session-aware request/response helper."""

    def __init__(self, to_browser, from_browser):
        self.to_browser, self.from_browser = to_browser, from_browser
        self.buffer = b""
        self.next_id = 0
        self.events = []

    def send(self, method, params=None, session=None):
        self.next_id += 1
        message = {"id": self.next_id, "method": method, "params": params or {}}
        if session:
            message["sessionId"] = session
        os.write(self.to_browser, json.dumps(message).encode() + b"\0")
        return self.next_id

    def read(self, timeout):
        """The next message, or None after `timeout` seconds."""
        deadline = time.monotonic() + timeout
        while b"\0" not in self.buffer:
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([self.from_browser], [], [], left)[0]:
                return None
            chunk = os.read(self.from_browser, 1 << 20)
            if not chunk:
                raise EOFError("the browser closed its pipe")
            self.buffer += chunk
        raw, self.buffer = self.buffer.split(b"\0", 1)
        return json.loads(raw)

    def call(self, method, params=None, session=None, timeout=10):
        """Sends a command and waits for its answer; events met meanwhile are kept for later."""
        wanted = self.send(method, params, session)
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            message = self.read(deadline - time.monotonic())
            if message is None:
                break
            if message.get("id") == wanted:
                return message.get("result", {}) if "error" not in message else {"error": message["error"]}
            self.events.append(message)
        return {"error": "no answer to " + method}

    def next_event(self, timeout):
        if self.events:
            return self.events.pop(0)
        return self.read(timeout)


def launch(args):
    to_browser_r, to_browser_w = os.pipe()
    from_browser_r, from_browser_w = os.pipe()

    def child_fds():
        # Copies first: dup2 onto the same number would keep the close-on-exec flag.
        reader, writer = os.dup(to_browser_r), os.dup(from_browser_w)
        os.dup2(reader, 3)
        os.dup2(writer, 4)

    argv = [args.chromium] + QUIET_FLAGS + [
        "--user-data-dir=" + args.user_data_dir, "--load-extension=" + args.extension,
        "--disable-extensions-except=" + args.extension, "--remote-debugging-pipe", "about:blank"]
    log = open(args.browser_log, "w") if args.browser_log else subprocess.DEVNULL
    process = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                               preexec_fn=child_fds, close_fds=False, start_new_session=True)
    os.close(to_browser_r)
    os.close(from_browser_w)
    return process, Pipe(to_browser_w, from_browser_r)


def stop(process):
    try:
        os.killpg(process.pid, signal.SIGTERM)
    except ProcessLookupError:
        return
    try:
        process.wait(5)
    except subprocess.TimeoutExpired:
        pass
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


def wait_for_extension(pipe, timeout):
    pipe.call("Target.setDiscoverTargets", {"discover": True})
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        event = pipe.next_event(deadline - time.monotonic())
        if event is None:
            break
        info = event.get("params", {}).get("targetInfo", {})
        if info.get("type") == "service_worker" and info.get("url", "").startswith("chrome-extension://"):
            emit("extension", url=info["url"])
            return True
    return False


def open_page(pipe, url):
    targets = pipe.call("Target.getTargets").get("targetInfos", [])
    page = next((t for t in targets if t.get("type") == "page"), None)
    if page is None:
        page = {"targetId": pipe.call("Target.createTarget", {"url": "about:blank"}).get("targetId")}
    session = pipe.call("Target.attachToTarget", {"targetId": page["targetId"], "flatten": True}).get("sessionId")
    for method, params in (("Page.enable", {}), ("Runtime.enable", {}),
                           ("Runtime.addBinding", {"name": "gpcStatus"}),
                           ("Page.addScriptToEvaluateOnNewDocument", {"source": STATUS_WATCH})):
        pipe.call(method, params, session)
    pipe.call("Page.navigate", {"url": url}, session)
    return page["targetId"], session


def current(pipe, session, expression):
    result = pipe.call("Runtime.evaluate", {"expression": expression, "returnByValue": True}, session)
    return result.get("result", {}).get("value", "")


def screenshot(pipe, session, path):
    shot = pipe.call("Page.captureScreenshot", {"format": "png"}, session, timeout=5)
    if "data" not in shot:
        return False
    with open(path, "wb") as out:
        out.write(base64.b64decode(shot["data"]))
    emit("screenshot", path=path)
    return True


def watch(pipe, session, args):
    deadline = time.monotonic() + args.timeout
    next_poll, last_status = 0.0, ""
    while time.monotonic() < deadline:
        event = pipe.next_event(0.1)
        if event is not None and event.get("sessionId") == session:
            method, params = event.get("method"), event.get("params", {})
            if method == "Runtime.bindingCalled" and params.get("name") == "gpcStatus":
                text, _, state = params.get("payload", "").rpartition("|")
                emit("status", text=text, state=state)
                last_status = text
                if args.until_status and args.until_status in text:
                    break
            elif method == "Page.frameNavigated" and not params.get("frame", {}).get("parentId"):
                emit("navigated", url=params["frame"].get("url", ""))
        if time.monotonic() >= next_poll:
            next_poll = time.monotonic() + 0.2
            if args.until and args.until in current(pipe, session, "location.href"):
                time.sleep(0.2)  # let the page's own script fill in its text
                break
    if args.screenshot:
        screenshot(pipe, session, args.screenshot)
    url = current(pipe, session, "location.href")
    emit("end", url=url, text=current(pipe, session, "document.body ? document.body.innerText : ''"))
    reached = (args.until and args.until in url) or (args.until_status and args.until_status in last_status)
    return 0 if reached else 3


def close_tab(pipe, target, pid_file, timeout):
    """Closes the page's tab and reports whether the native host it used is still running after
    `timeout` seconds, while the browser itself stays open."""
    pipe.call("Target.closeTarget", {"targetId": target})
    try:
        with open(pid_file) as pids:
            pid = int(pids.read().split()[-1])
    except (OSError, ValueError, IndexError):
        emit("host", running=None)
        return
    deadline = time.monotonic() + timeout
    while running(pid) and time.monotonic() < deadline:
        time.sleep(0.1)
    emit("host", running=running(pid))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("url")
    parser.add_argument("--chromium", default="/usr/bin/chromium")
    parser.add_argument("--user-data-dir", required=True)
    parser.add_argument("--extension", required=True)
    parser.add_argument("--until", default="")
    parser.add_argument("--timeout", type=float, default=30)
    parser.add_argument("--until-status", default="", help="stop once the status box shows this")
    parser.add_argument("--screenshot", help="PNG of the page as the run ends")
    parser.add_argument("--browser-log")
    parser.add_argument("--close-tab", metavar="HOST_PID_FILE",
                        help="at the end close the tab and report whether the host named in this file ends")
    args = parser.parse_args()
    process, pipe = launch(args)
    try:
        if not wait_for_extension(pipe, 15):
            emit("end", url="", text="the extension did not come up")
            return 2
        target, session = open_page(pipe, args.url)
        code = watch(pipe, session, args)
        if args.close_tab:
            close_tab(pipe, target, args.close_tab, 10)
        return code
    except (EOFError, OSError) as error:
        emit("end", url="", text="browser: %s" % error)
        return 2
    finally:
        try:
            pipe.call("Browser.close", timeout=3)
        except (EOFError, OSError):
            pass
        stop(process)


if __name__ == "__main__":
    sys.exit(main())
