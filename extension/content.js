// Runs in every https frame. Finds the page's application/x-talvo-gpc embeds (also ones added
// later), hands their parameters to the background worker, shows each embed's progress in its box,
// and performs the navigations the module asks for in this frame.
"use strict";

(() => {
  const api = globalThis.browser ?? globalThis.chrome;
  const kMime = "application/x-talvo-gpc";
  const kSelector = "embed[type], object[type]";

  let port = null;
  let nextKey = 0;
  const embeds = new Map();  // key -> { element, box }
  const seen = new WeakSet();

  function isOurs(element) {
    return element.matches(kSelector) && element.getAttribute("type").trim().toLowerCase() === kMime;
  }

  // The attributes in document order; an <object>'s <param> children follow its attributes, as
  // NPAPI browsers handed them over.
  function readParams(element) {
    const params = [];
    for (const attribute of element.attributes) params.push([attribute.name, attribute.value]);
    if (element.localName === "object") {
      for (const child of element.children) {
        if (child.localName === "param" && child.hasAttribute("name")) {
          params.push([child.getAttribute("name"), child.getAttribute("value") ?? ""]);
        }
      }
    }
    return params;
  }

  // The status box takes the embed's place (the browser draws nothing for the type any more).
  function makeBox(element) {
    const box = document.createElement("div");
    box.setAttribute("data-talvo-gpc-status", "");
    const width = element.getAttribute("width") || "300";
    const height = element.getAttribute("height") || "150";
    const px = (value) => (/^\d+$/.test(value) ? value + "px" : value);
    box.style.cssText =
      "box-sizing:border-box;display:inline-flex;align-items:center;justify-content:center;" +
      "border:1px solid #8a94a6;border-radius:4px;background:#f4f6fa;color:#1d2433;" +
      "font:13px/1.4 sans-serif;padding:8px;text-align:center;overflow:hidden;" +
      `width:${px(width)};height:${px(height)}`;
    box.textContent = "Starting…";
    element.style.display = "none";
    element.after(box);
    return box;
  }

  function megabytes(bytes) {
    return (bytes / 1048576).toFixed(1);
  }

  function describe(message) {
    switch (message.stage) {
      case "started":
        return "Starting…";
      case "checking":
        return "Checking for updates…";
      case "downloading": {
        // The plug-in's own downloads tell no bytes; the browser's (through the host) do.
        if (!(message.done >= 0)) return "Downloading…";
        if (!(message.total > 0)) return `Downloading… ${megabytes(message.done)} MB`;
        const percent = Math.floor((100 * message.done) / message.total);
        return `Downloading… ${percent}% (${megabytes(message.done)} of ${megabytes(message.total)} MB)`;
      }
      case "verified":
        return "Verified";
      case "unpacked":
        return "Installed";
      case "running":
        return message.result ? `Running, but the extension's start failed (${message.result})` : "Running";
      case "halted":
        return "Stopped";
      default:
        return String(message.stage || "");
    }
  }

  function showStatus(key, text, isError) {
    const entry = embeds.get(key);
    if (!entry) return;
    entry.box.textContent = text;
    entry.box.style.color = isError ? "#b00020" : "#1d2433";
    entry.box.setAttribute("data-talvo-gpc-state", isError ? "error" : "ok");
  }

  // Performs a navigation in this frame's view of the window tree. Returns whether it was started.
  function navigate(url, target) {
    try {
      const name = target || "_self";
      // Setting href is what another origin's frame may do to a Location.
      if (name === "_self") window.location.href = url;
      else if (name === "_top") window.top.location.href = url;
      else if (name === "_parent") window.parent.location.href = url;
      else if (window.open(url, name) === null) return false;
      return true;
    } catch (error) {
      return false;
    }
  }

  function onBackgroundMessage(message) {
    if (message.kind === "status") {
      showStatus(message.key, describe(message), Boolean(message.result));
    } else if (message.kind === "error") {
      showStatus(message.key, message.message, true);
    } else if (message.kind === "navigate") {
      // Told first, navigated second: once this frame unloads, nothing more gets out of it. A
      // relative URL is the document's, as the browser would read it in a plug-in's request.
      let url = null;
      try {
        url = new URL(message.url, document.baseURI).href;
      } catch (error) {
        url = null;
      }
      if (url === null || !/^(https?|ftp|data|blob):/i.test(url)) {
        port.postMessage({ kind: "navigated", key: message.key, request: message.request, ok: false });
        return;
      }
      const posted = { kind: "navigated", key: message.key, request: message.request, ok: true };
      if (message.target === "_self" || message.target === "" || message.target === undefined ||
          (message.target === "_top" && window === window.top)) {
        port.postMessage(posted);
        navigate(url, message.target);
      } else {
        posted.ok = navigate(url, message.target);
        port.postMessage(posted);
      }
    }
  }

  function connect() {
    if (port) return port;
    port = api.runtime.connect({ name: "talvo-gpc-frame" });
    port.onMessage.addListener(onBackgroundMessage);
    port.onDisconnect.addListener(() => {
      port = null;
      for (const key of embeds.keys()) showStatus(key, "The helper program is not running.", true);
      embeds.clear();
    });
    return port;
  }

  function adopt(element) {
    if (seen.has(element) || !isOurs(element)) return;
    seen.add(element);
    const key = ++nextKey;
    const params = readParams(element);
    embeds.set(key, { element, box: makeBox(element) });
    connect().postMessage({ kind: "embed", key, params });
  }

  function scan(root) {
    if (root.nodeType !== Node.ELEMENT_NODE && root.nodeType !== Node.DOCUMENT_NODE) return;
    if (root.nodeType === Node.ELEMENT_NODE && root.matches(kSelector)) adopt(root);
    for (const element of root.querySelectorAll(kSelector)) adopt(element);
  }

  function forgetRemoved() {
    for (const [key, entry] of embeds) {
      if (entry.element.isConnected) continue;
      entry.box.remove();
      embeds.delete(key);
      if (port) port.postMessage({ kind: "removed", key });
    }
  }

  new MutationObserver((records) => {
    let removed = false;
    for (const record of records) {
      for (const node of record.addedNodes) scan(node);
      if (record.removedNodes.length > 0) removed = true;
    }
    if (removed) forgetRemoved();
  }).observe(document, { childList: true, subtree: true });
  scan(document);
})();
