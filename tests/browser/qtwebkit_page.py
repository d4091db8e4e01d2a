#!/usr/bin/python3
"""Opens one page in QtWebKit with NPAPI plug-ins enabled and reports what the browser does.

Run with Debian's /usr/bin/python3 (python3-pyqt5.qtwebkit). Plug-ins are found in the folders of
QTWEBKIT_PLUGIN_PATH (--plugin-dir sets it). Unless --use-display is given, the page is shown on a
private Xvfb server that this program starts and stops, whatever DISPLAY says.

One JSON object per line on standard output, each with "t" (seconds since start) and "event":
  plugins        the plug-ins the engine found, once the first page has loaded: mime, name, file
  load_started   the main frame starts loading
  load_finished  url, ok, title, text (the page's visible text, cut at 2000 characters)
  url_changed    the main frame's URL changed: url
  console        a JavaScript console message: text
  screenshot     path of the PNG written
  end            reason ("matched", "timeout", "error"), url (the main frame's last URL)

Exit status: 0 when the main frame's URL came to contain --until (or, without --until, the time
ran out), 3 when --until never matched, 1 when the browser could not be set up, 2 for bad arguments.
"""
import argparse
import json
import os
import signal
import subprocess
import sys
import time
from urllib.parse import urlsplit

START = time.monotonic()
TEXT_LIMIT = 2000


def emit(event, **fields):
    record = {"t": round(time.monotonic() - START, 3), "event": event}
    record.update(fields)
    sys.stdout.write(json.dumps(record, separators=(",", ":")) + "\n")
    sys.stdout.flush()


# navigator.mimeTypes, since this engine answers null for a plug-in's own mime-type items.
PLUGIN_LIST_SCRIPT = """(function () {
  var list = [];
  for (var i = 0; i < navigator.mimeTypes.length; i++) {
    var m = navigator.mimeTypes[i], p = m.enabledPlugin;
    list.push({mime: m.type, name: p ? p.name : null, file: p ? p.filename : null});
  }
  return JSON.stringify(list);
})()"""


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("url", help="the page to open")
    parser.add_argument("--until", default="", help="stop once the main frame's URL contains this")
    parser.add_argument("--timeout", type=float, default=20.0, help="seconds before giving up")
    parser.add_argument("--proxy", default="", help="HTTP proxy for every request: [http://]HOST:PORT")
    parser.add_argument("--screenshot", default="", help="PNG of the window, written at the end")
    parser.add_argument("--after-load", type=float, default=0.0,
                        help="stop this many seconds after the first page finished loading")
    parser.add_argument("--settle", type=float, default=0.5,
                        help="seconds to keep running after --until matched (lets the page paint)")
    parser.add_argument("--plugin-dir", action="append", default=[],
                        help="folder to search for NPAPI plug-ins (QTWEBKIT_PLUGIN_PATH)")
    parser.add_argument("--size", default="1024x768", help="window size WxH")
    parser.add_argument("--use-display", action="store_true",
                        help="show the window on $DISPLAY instead of a private Xvfb")
    return parser.parse_args()


def end_with_parent():
    """In a child: asks the kernel for SIGTERM when this program dies, even by SIGKILL."""
    import ctypes
    PR_SET_PDEATHSIG = 1
    ctypes.CDLL(None, use_errno=True).prctl(PR_SET_PDEATHSIG, signal.SIGTERM)


class PrivateXvfb:
    """An Xvfb on a free display number, chosen by the server itself (-displayfd)."""

    def __init__(self, size):
        read_end, write_end = os.pipe()
        self.process = subprocess.Popen(
            ["Xvfb", "-displayfd", str(write_end), "-screen", "0", size + "x24", "-nolisten", "tcp",
             "-noreset"],
            pass_fds=(write_end,), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            preexec_fn=end_with_parent)
        os.close(write_end)
        number = b""
        with os.fdopen(read_end, "rb") as pipe:
            while not number.endswith(b"\n"):
                chunk = pipe.read(1)
                if not chunk:
                    break
                number += chunk
        if not number.strip():
            self.stop()
            raise RuntimeError("Xvfb did not start")
        self.display = ":" + number.decode().strip()

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(timeout=5)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()


def proxy_address(text):
    parts = urlsplit(text if "://" in text else "http://" + text)
    if not parts.hostname or not parts.port:
        raise ValueError("a proxy needs HOST:PORT: " + text)
    return parts.hostname, parts.port


def run_browser(args):
    # Qt reads these when it starts: they must be set before the first Qt import.
    if args.plugin_dir:
        os.environ["QTWEBKIT_PLUGIN_PATH"] = ":".join(os.path.abspath(d) for d in args.plugin_dir)
    os.environ["QT_QPA_PLATFORM"] = "xcb"
    from PyQt5.QtCore import QTimer, QUrl
    from PyQt5.QtNetwork import QNetworkProxy
    from PyQt5.QtWebKit import QWebSettings
    from PyQt5.QtWebKitWidgets import QWebPage, QWebView
    from PyQt5.QtWidgets import QApplication

    class Page(QWebPage):
        def javaScriptConsoleMessage(self, message, line, source):
            emit("console", text=message, line=line, source=source)

    app = QApplication(["qtwebkit_page"])
    if args.proxy:
        host, port = proxy_address(args.proxy)
        QNetworkProxy.setApplicationProxy(QNetworkProxy(QNetworkProxy.HttpProxy, host, port))
    settings = QWebSettings.globalSettings()
    settings.setAttribute(QWebSettings.PluginsEnabled, True)
    settings.setAttribute(QWebSettings.JavascriptEnabled, True)

    view = QWebView()
    page = Page(view)
    view.setPage(page)
    width, height = (int(v) for v in args.size.split("x"))
    view.resize(width, height)
    # The test servers use their own certificates: the page and the plug-in's streams load anyway.
    page.networkAccessManager().sslErrors.connect(lambda reply, errors: reply.ignoreSslErrors())
    frame = page.mainFrame()

    outcome = {"reason": "timeout"}

    def finish(reason):
        if outcome["reason"] == reason:
            return
        outcome["reason"] = reason
        finishing.start(int(args.settle * 1000))

    def url_changed(url):
        text = url.toString()
        emit("url_changed", url=text)
        if args.until and args.until in text:
            finish("matched")

    finishing = QTimer()
    finishing.setSingleShot(True)
    finishing.timeout.connect(app.quit)
    frame.loadStarted.connect(lambda: emit("load_started", url=frame.requestedUrl().toString()))
    loads = {"finished": 0}

    def load_finished(ok):
        loads["finished"] += 1
        if loads["finished"] == 1:
            if args.after_load > 0:
                QTimer.singleShot(int(args.after_load * 1000), app.quit)
            # The engine's plug-in list as a page sees it (PyQt5 has no binding of the
            # plug-in database).
            found = frame.evaluateJavaScript(PLUGIN_LIST_SCRIPT)
            emit("plugins", plugins=json.loads(found) if isinstance(found, str) else [])
        emit("load_finished", url=frame.url().toString(), ok=ok, title=frame.title(),
             text=frame.toPlainText()[:TEXT_LIMIT])

    frame.loadFinished.connect(load_finished)
    frame.urlChanged.connect(url_changed)
    QTimer.singleShot(int(args.timeout * 1000), app.quit)
    for stop_signal in (signal.SIGTERM, signal.SIGINT):
        signal.signal(stop_signal, lambda *unused: app.quit())
    # Python handles signals only between byte codes: a timer lets it look now and then.
    wake = QTimer()
    wake.timeout.connect(lambda: None)
    wake.start(200)

    view.show()
    view.load(QUrl(args.url))
    app.exec_()

    if args.screenshot:
        view.grab().save(args.screenshot, "PNG")
        emit("screenshot", path=args.screenshot)
    emit("end", reason=outcome["reason"], url=frame.url().toString())
    # Plug-ins are destroyed with the page, while the application still exists.
    view.setPage(None)
    del page
    app.processEvents()
    if outcome["reason"] == "matched" or not args.until:
        return 0
    return 3


def main():
    args = parse_arguments()
    xvfb = None
    try:
        if not args.use_display:
            xvfb = PrivateXvfb(args.size)
            os.environ["DISPLAY"] = xvfb.display
            os.environ.pop("WAYLAND_DISPLAY", None)
        return run_browser(args)
    except Exception as error:  # reported as a line, so the caller sees why
        emit("end", reason="error", error=str(error))
        return 1
    finally:
        if xvfb:
            xvfb.stop()


if __name__ == "__main__":
    sys.exit(main())
