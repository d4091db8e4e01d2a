// The bridge between the content scripts and gpc-host. One native port per tab; each embed gets an
// id ("e1", "e2", ...) unique on that port. The page URL given to the module is the URL the browser
// reports for the frame the embed lives in, never anything the page says.
"use strict";

const api = globalThis.browser ?? globalThis.chrome;
const kHostName = "com.vantrel.talvo.gpc";

// tabId -> { native: Port, nextId: number, embeds: Map(id -> { frame: Port, key: number }) }
const tabs = new Map();

function tabFor(tabId) {
  let tab = tabs.get(tabId);
  if (tab) return tab;
  tab = { native: null, nextId: 0, embeds: new Map() };
  tabs.set(tabId, tab);
  return tab;
}

function tellFrame(embed, message) {
  try {
    embed.frame.postMessage({ ...message, key: embed.key });
  } catch (error) {
    // The frame is gone; its disconnect handler cleans up.
  }
}

function closeTab(tabId) {
  const tab = tabs.get(tabId);
  if (!tab) return;
  tabs.delete(tabId);
  if (tab.native) tab.native.disconnect();
}

function onNativeMessage(tabId, message) {
  const tab = tabs.get(tabId);
  const embed = tab && tab.embeds.get(message.id);
  if (!embed) return;
  if (message.type === "status") {
    tellFrame(embed, { kind: "status", stage: message.stage, done: message.done, total: message.total,
                       result: message.result });
  } else if (message.type === "error") {
    tellFrame(embed, { kind: "error", message: String(message.message || "") });
  } else if (message.type === "navigate") {
    navigate(tabId, tab, message);
  }
}

// Whether a frame is of the top page's own origin (a sandboxed frame's origin is "null").
function sameOriginAsTab(sender) {
  try {
    const origin = typeof sender.origin === "string" ? sender.origin : new URL(sender.url).origin;
    return origin !== "null" && origin === new URL(sender.tab.url).origin;
  } catch (error) {
    return false;
  }
}

// A new tab, and the whole tab from inside a frame (browsers refuse a frame's script that), are the
// browser's business; every other target is a frame of this page, navigated by its content script.
// Only a frame of the top page's own origin may send the whole tab elsewhere: browsers keep a
// cross-origin or sandboxed frame from doing so, and the bridge lends it no such right.
function navigate(tabId, tab, message) {
  const embed = tab.embeds.get(message.id);
  const fromSubframe = embed.frame.sender.frameId !== 0;
  if (message.target !== "_blank" && !(message.target === "_top" && fromSubframe)) {
    tellFrame(embed, { kind: "navigate", request: message.request, url: message.url, target: message.target });
    return;
  }
  const done = (ok) => {
    if (tab.native) tab.native.postMessage({ type: "navigated", id: message.id, request: message.request, ok });
  };
  const allowed = message.target === "_blank" || sameOriginAsTab(embed.frame.sender);
  if (!allowed || !/^(https?|ftp):/i.test(String(message.url))) {
    done(false);
    return;
  }
  try {
    const opened = message.target === "_blank" ? api.tabs.create({ url: message.url, openerTabId: tabId })
                                                : api.tabs.update(tabId, { url: message.url });
    Promise.resolve(opened).then(() => done(true), () => done(false));
  } catch (error) {
    done(false);
  }
}

function nativeFor(tabId, tab) {
  if (tab.native) return tab.native;
  const native = api.runtime.connectNative(kHostName);
  native.onMessage.addListener((message) => onNativeMessage(tabId, message));
  native.onDisconnect.addListener(() => {
    const lastError = (native.error && native.error.message) || (api.runtime.lastError && api.runtime.lastError.message);
    if (tab.native !== native) return;
    tab.native = null;
    for (const embed of tab.embeds.values()) {
      tellFrame(embed, { kind: "error", message: "The helper program stopped" + (lastError ? ": " + lastError : ".") });
    }
    tab.embeds.clear();
    tabs.delete(tabId);
  });
  tab.native = native;
  return native;
}

function onFrameMessage(frame, message) {
  const sender = frame.sender;
  const tab = tabFor(sender.tab.id);
  if (message.kind === "embed") {
    const id = "e" + ++tab.nextId;
    tab.embeds.set(id, { frame, key: message.key });
    nativeFor(sender.tab.id, tab).postMessage({
      type: "embed",
      id,
      pageUrl: sender.url,
      frame: sender.frameId === 0 ? "top" : "sub",
      params: message.params,
    });
    return;
  }
  const id = idOf(tab, frame, message.key);
  if (id === null || !tab.native) return;
  if (message.kind === "navigated") {
    tab.native.postMessage({ type: "navigated", id, request: message.request, ok: !!message.ok });
  } else if (message.kind === "removed") {
    tab.embeds.delete(id);
    tab.native.postMessage({ type: "destroy", id });
    if (tab.embeds.size === 0) closeTab(sender.tab.id);
  }
}

function idOf(tab, frame, key) {
  for (const [id, embed] of tab.embeds) {
    if (embed.frame === frame && embed.key === key) return id;
  }
  return null;
}

// The frame unloaded (navigated away, closed): its embeds are destroyed; a tab with none left lets
// the helper program go.
function onFrameGone(frame) {
  const tabId = frame.sender.tab.id;
  const tab = tabs.get(tabId);
  if (!tab) return;
  for (const [id, embed] of [...tab.embeds]) {
    if (embed.frame !== frame) continue;
    tab.embeds.delete(id);
    if (tab.native) tab.native.postMessage({ type: "destroy", id });
  }
  if (tab.embeds.size === 0) closeTab(tabId);
}

api.runtime.onConnect.addListener((frame) => {
  if (frame.name !== "talvo-gpc-frame" || !frame.sender || !frame.sender.tab) return;
  frame.onMessage.addListener((message) => onFrameMessage(frame, message));
  frame.onDisconnect.addListener(() => onFrameGone(frame));
});

api.tabs.onRemoved.addListener((tabId) => closeTab(tabId));
