#!/usr/bin/python3
"""Opens one page in QtWebKit with the NPAPI plug-ins of --plugin-dir on an Xvfb of its own (proxy from
the environment) and reports a JSON line each: load_finished (url, ok, title), url_changed (url) and end
(reason "matched", "timeout" or "error"; url). Exit status 0 when the URL came to hold --until (or without
it), 3 when not, 1 when the browser could not be set up."""
import argparse
import ctypes
import json
import os
import signal
import subprocess
import sys


def emit(kind, **fields):
    print(json.dumps(dict(event=kind, **fields), separators=(",", ":"), ensure_ascii=False), flush=True)


def start_private_xvfb():
    """An Xvfb on a display number it picks itself, ending with this program even when that is killed."""
    read_end, write_end = os.pipe()
    subprocess.Popen(["Xvfb", "-displayfd", str(write_end), "-screen", "0", "1024x768x24"],
                     pass_fds=(write_end,), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                     preexec_fn=lambda: ctypes.CDLL(None).prctl(1, signal.SIGTERM))  # PR_SET_PDEATHSIG
    os.close(write_end)
    with os.fdopen(read_end) as pipe:
        os.environ["DISPLAY"] = ":" + pipe.readline().strip()


def run_browser(args):
    os.environ.update(QTWEBKIT_PLUGIN_PATH=os.path.abspath(args.plugin_dir), QT_QPA_PLATFORM="xcb")
    from PyQt5.QtCore import QTimer, QUrl
    from PyQt5.QtNetwork import QNetworkProxyFactory
    from PyQt5.QtWebKit import QWebSettings
    from PyQt5.QtWebKitWidgets import QWebView
    from PyQt5.QtWidgets import QApplication

    app = QApplication(["qtwebkit_page"])
    QNetworkProxyFactory.setUseSystemConfiguration(True)
    QWebSettings.globalSettings().setAttribute(QWebSettings.PluginsEnabled, True)
    view = QWebView()
    # The servers' certificates come from a test authority: the page and the plug-in's streams load anyway.
    view.page().networkAccessManager().sslErrors.connect(lambda reply, errors: reply.ignoreSslErrors())
    frame, matched = view.page().mainFrame(), []

    def url_changed(url):
        emit("url_changed", url=url.toString())
        if args.until and args.until in url.toString() and not matched:
            matched.append(url)
            QTimer.singleShot(int(args.settle * 1000), app.quit)

    frame.urlChanged.connect(url_changed)
    frame.loadFinished.connect(lambda ok: emit("load_finished", url=frame.url().toString(), ok=ok,
                                               title=frame.title()))
    QTimer.singleShot(int(args.timeout * 1000), app.quit)
    view.show()
    view.load(QUrl(args.url))
    app.exec_()
    if args.screenshot:
        view.grab().save(args.screenshot, "PNG")
    emit("end", reason="matched" if matched else "timeout", url=frame.url().toString())
    view.setPage(None)  # the page, and the plug-ins with it, go while the application still exists
    app.processEvents()
    return 0 if matched or not args.until else 3


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("url")
    for name, default in dict(plugin_dir="", until="", timeout=30.0, settle=0.5, screenshot="").items():
        parser.add_argument("--" + name.replace("_", "-"), default=default, type=type(default))
    try:
        start_private_xvfb()
        sys.exit(run_browser(parser.parse_args()))
    except Exception as error:  # reported as a line, so the caller sees why
        emit("end", reason="error", error=str(error))
        sys.exit(1)
