// The extension's background script against a fake browser: which frames may send the whole tab
// elsewhere, and when the helper program is let go. Run by node; exits 1 on the first failure.
"use strict";
const assert = require("assert");
const fs = require("fs");
const vm = require("vm");

// Objects made inside the script's context have that context's prototypes.
const plain = (value) => JSON.parse(JSON.stringify(value));

function listener() {
  const fns = [];
  return { addListener: (fn) => fns.push(fn), fire: (...args) => fns.forEach((fn) => fn(...args)) };
}

// A browser with one tab on https://meet.example/, the background script loaded into it.
function browser() {
  const b = { updates: [], toHost: [], disconnected: 0, onConnect: listener(), host: null };
  const chrome = {
    runtime: {
      onConnect: b.onConnect,
      connectNative: () => {
        b.host = { onMessage: listener(), onDisconnect: listener(), postMessage: (m) => b.toHost.push(m),
                   disconnect: () => b.disconnected++ };
        return b.host;
      },
    },
    tabs: { update: (id, props) => { b.updates.push(props.url); return Promise.resolve(); },
            create: () => Promise.resolve(), onRemoved: listener() },
  };
  const source = fs.readFileSync(process.argv[2], "utf8");
  vm.runInNewContext(source, { chrome, URL, Promise, console });
  // A frame (its port) with the given sender details, holding one embed.
  b.frame = (frameId, url, origin) => {
    const frame = { name: "talvo-gpc-frame", sender: { tab: { id: 1, url: "https://meet.example/" }, frameId, url, origin },
                    onMessage: listener(), onDisconnect: listener(), postMessage: () => {} };
    b.onConnect.fire(frame);
    frame.onMessage.fire({ kind: "embed", key: 1, params: [] });
    return frame;
  };
  return b;
}

async function main() {
  // The module sends the whole tab to its error page from inside a frame.
  const frames = [
    ["a frame of the page's own origin", "https://meet.example/inner.html", "https://meet.example", true],
    ["a frame of the page's own origin (no origin told)", "https://meet.example/inner.html", undefined, true],
    ["a frame of another origin", "https://ads.example/ad.html", "https://ads.example", false],
    ["a sandboxed frame", "https://meet.example/ad.html", "null", false],
  ];
  for (const [name, url, origin, allowed] of frames) {
    const b = browser();
    b.frame(5, url, origin);
    const id = b.toHost[0].id;
    b.host.onMessage.fire({ type: "navigate", id, request: 7, url: "https://meet.example/error.html", target: "_top" });
    await new Promise((resolve) => setImmediate(resolve));
    assert.deepStrictEqual(b.updates, allowed ? ["https://meet.example/error.html"] : [], name);
    assert.deepStrictEqual(plain(b.toHost.at(-1)), { type: "navigated", id, request: 7, ok: allowed }, name);
  }

  // Removing embeds one by one destroys each; the last lets the helper program go.
  const b = browser();
  const frame = b.frame(0, "https://meet.example/", "https://meet.example");
  frame.onMessage.fire({ kind: "embed", key: 2, params: [] });
  frame.onMessage.fire({ kind: "removed", key: 1 });
  assert.strictEqual(b.disconnected, 0, "one embed left");
  frame.onMessage.fire({ kind: "removed", key: 2 });
  assert.deepStrictEqual(plain(b.toHost.slice(2)), [{ type: "destroy", id: "e1" }, { type: "destroy", id: "e2" }]);
  assert.strictEqual(b.disconnected, 1, "no embed left");
}

main().catch((error) => {
  console.error(error.message);
  process.exit(1);
});
