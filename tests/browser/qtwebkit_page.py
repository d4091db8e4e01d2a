#!/usr/bin/python3
"""Opens one page in QtWebKit with the NPAPI plug-ins of --plugin-dir, on an Xvfb of its own, and reports
load_finished (url, ok, title), url_changed (url) and end (reason "matched", "timeout" or "error"; url).
Exit status: 0 when the URL came to hold --until (or, without it, the time ran out), 3 when it never did,
1 when the browser could not be set up."""
import ctypes
import os
import signal
import subprocess
import sys

from driver_support import arguments, emit


def private_xvfb():
    """An Xvfb on a display number it picks itself, ending with this program even when that is killed."""
    read_end, write_end = os.pipe()
    xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(write_end), "-screen", "0", "1024x768x24"],
                            pass_fds=(write_end,), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                            preexec_fn=lambda: ctypes.CDLL(None).prctl(1, signal.SIGTERM))  # PR_SET_PDEATHSIG
    os.close(write_end)
    with os.fdopen(read_end) as pipe:
        os.environ["DISPLAY"] = ":" + pipe.readline().strip()
    return xvfb


def run_browser(args):
    # Qt reads these as it starts.
    os.environ.update(QTWEBKIT_PLUGIN_PATH=os.path.abspath(args.plugin_dir), QT_QPA_PLATFORM="xcb")
    from PyQt5.QtCore import QTimer, QUrl
    from PyQt5.QtNetwork import QNetworkProxy
    from PyQt5.QtWebKit import QWebSettings
    from PyQt5.QtWebKitWidgets import QWebView
    from PyQt5.QtWidgets import QApplication

    app = QApplication(["qtwebkit_page"])
    if args.proxy:
        host, port = args.proxy.rpartition("/")[2].split(":")
        QNetworkProxy.setApplicationProxy(QNetworkProxy(QNetworkProxy.HttpProxy, host, int(port)))
    QWebSettings.globalSettings().setAttribute(QWebSettings.PluginsEnabled, True)
    view = QWebView()
    # The servers' certificates come from a test authority: the page and the plug-in's streams load anyway.
    view.page().networkAccessManager().sslErrors.connect(lambda reply, errors: reply.ignoreSslErrors())
    frame = view.page().mainFrame()
    outcome = {"reason": "timeout"}

    def url_changed(url):
        emit("url_changed", url=url.toString())
        if args.until and args.until in url.toString() and outcome["reason"] != "matched":
            outcome["reason"] = "matched"
            QTimer.singleShot(int(args.settle * 1000), app.quit)

    def load_finished(ok):
        if args.after_load > 0:  # the first page's timer is the first to end
            QTimer.singleShot(int(args.after_load * 1000), app.quit)
        emit("load_finished", url=frame.url().toString(), ok=ok, title=frame.title())

    frame.urlChanged.connect(url_changed)
    frame.loadFinished.connect(load_finished)
    QTimer.singleShot(int(args.timeout * 1000), app.quit)
    view.show()
    view.load(QUrl(args.url))
    app.exec_()
    if args.screenshot:
        view.grab().save(args.screenshot, "PNG")
    emit("end", reason=outcome["reason"], url=frame.url().toString())
    view.setPage(None)  # the page, and the plug-ins with it, go while the application still exists
    app.processEvents()
    return 0 if outcome["reason"] == "matched" or not args.until else 3


if __name__ == "__main__":
    args = arguments(plugin_dir="", until="", timeout=20.0, settle=0.5, after_load=0.0, proxy="",
                     screenshot="")
    xvfb = None
    try:
        xvfb = private_xvfb()
        sys.exit(run_browser(args))
    except Exception as error:  # reported as a line, so the caller sees why
        emit("end", reason="error", error=str(error))
        sys.exit(1)
    finally:
        if xvfb:
            xvfb.terminate()
            xvfb.wait()
