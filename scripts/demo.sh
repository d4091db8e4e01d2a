#!/usr/bin/env bash
# The plug-in's main job in a real browser engine. Installs what is missing, builds, packs the
# sample extension as a vendor would (gpc-pack: the 7z archive, its SHA-256 digest and the RSA
# signature over it, by a signer whose certificate chain openssl makes), serves the package, a meeting page and a "done"
# page over https on 127.0.0.1, and opens the meeting page in QtWebKit under Xvfb, which finds
# the plug-in through QTWEBKIT_PLUGIN_PATH. The plug-in stores the page's parameters, finds the
# extension missing, downloads, verifies, unpacks and loads it; the extension fetches a file
# through the plug-in's services and sends the page to the "done" page. The milestones are
# printed as they happen (from the plug-in's trace), a screenshot of the done page is saved, and
# the exit status is 0 only when the extension ran.
#
#   scripts/demo.sh [--host|--chromium] [--keep]
#     --host      run the page through gpc-host (the headless NPAPI host) instead of the browser
#     --chromium  open the page in headless Chromium with the bridge extension (extension/), which
#                 runs the plug-in through gpc-host --native-messaging
#     --keep      keep the work folder (page, package, trace, screenshot) and say where it is
#
# GPC_DEMO_BUILD_DIR=DIR uses an existing build folder as it is instead of building build/;
# GPC_DEMO_RUN_MS bounds the run (default 30000).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

mode=browser
keep=${KEEP:-0}
for arg in "$@"; do
  case "$arg" in
    --host) mode=host ;;
    --chromium) mode=chromium ;;
    --keep) keep=1 ;;
    -h|--help) sed -n '2,20p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "demo: unknown option $arg (try --help)" >&2; exit 2 ;;
  esac
done
run_ms=${GPC_DEMO_RUN_MS:-30000}
started=${EPOCHREALTIME/./}
say() { local us=$((${EPOCHREALTIME/./} - started)); printf '[%3d.%02d s] %s\n' $((us / 1000000)) $((us % 1000000 / 10000)) "$*"; }

say "installing what is missing and building"
scripts/install-deps.sh
if [ -n "${GPC_DEMO_BUILD_DIR:-}" ]; then
  build=$(cd "$GPC_DEMO_BUILD_DIR" && pwd)
else
  scripts/build.sh
  build=$root/build
fi
plugin_dir=$build/talvo-gpc64.plugin/Contents/MacOS

work=$(mktemp -d "${TMPDIR:-/tmp}/gpc-demo.XXXXXX")
pids=()
cleanup() {
  local pid
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  if [ "$keep" = 1 ]; then echo "kept $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT
mkdir -p "$work/site/client" "$work/site/files" "$work/pki" "$work/pack" "$work/data"

say "the vendor signs the sample extension"
bundle=$build/talvo-gpc64.plugin/Contents/Frameworks/zrgpcext64.bundle
(
  cd "$work/pki"
  openssl req -x509 -newkey rsa:2048 -nodes -keyout root.key -out root.pem -days 30 \
    -subj '/CN=Demo Vendor Root' -addext basicConstraints=critical,CA:TRUE \
    -addext keyUsage=critical,keyCertSign,cRLSign
  openssl req -new -newkey rsa:2048 -nodes -keyout signer.key -out signer.csr -subj '/CN=gpc.signer.talvo.us'
  openssl x509 -req -in signer.csr -CA root.pem -CAkey root.key -CAcreateserial -days 30 -out signer.pem
  openssl req -x509 -newkey rsa:2048 -nodes -keyout tls.key -out tls.pem -days 1 -subj '/CN=127.0.0.1' \
    -addext subjectAltName=IP:127.0.0.1
) >"$work/openssl.log" 2>&1 || { cat "$work/openssl.log" >&2; echo "demo: openssl could not make the keys" >&2; exit 1; }
cp -a "$bundle" "$work/pack/zrgpcext64.bundle"
sed -i '/<key>CFBundleVersion<\/key>/{n;s|<string>.*</string>|<string>2.0.0.7</string>|}' \
  "$work/pack/zrgpcext64.bundle/Contents/Info.plist"
# gpc-pack makes the 7z package, signs its SHA-256 digest and prints the page's parameters.
"$build/bin/gpc-pack" pack --key "$work/pki/signer.key" --cert "$work/pki/signer.pem" \
  --chain "$work/pki/root.pem" --out "$work/site/client" --format json "$work/pack/zrgpcext64.bundle" \
  >"$work/package.json" 2>"$work/pack.log" || { cat "$work/pack.log" >&2; exit 1; }
package="$work/site/client/zrgpcext64.bundle.7z"
field() { python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))[sys.argv[2]])' "$work/package.json" "$1"; }
digest=$(field GpcExtHash)
signature=$(field GpcExtSignature)
chain=$(field GpcCertification)
version=$(field GpcExtVersion)
say "package $(stat -c %s "$package") bytes, version $version, sha256 $digest"
say "gpc-pack verify, as the plug-in will check it: $("$build/bin/gpc-pack" verify --package "$package" --params "$work/package.json" 2>&1)"
echo "hello from the meeting service" > "$work/site/files/welcome.txt"

# The https server (the tests' loopback server): the site folder, with a log of each request.
python3 tests/support/loopback_server.py --root "$work/site" --certificate "$work/pki/tls.pem" \
  --key "$work/pki/tls.key" --log "$work/server.log" --port-file "$work/ports" 2>>"$work/server.err" &
pids+=($!)
for _ in $(seq 200); do [ -s "$work/ports" ] && break; sleep 0.05; done
[ -s "$work/ports" ] || { echo "demo: the https server did not start" >&2; exit 1; }
cut -d' ' -f2 "$work/ports" >"$work/port"
site="https://127.0.0.1:$(cat "$work/port")"

# The meeting page's parameters, in the order the page gives them. The loopback server is no
# approved site: the page switches the site lock off, before its root.
params=(
  "gpcsitelock=0" "GpcProductVersion=31.9.5" "MeetingID=1234567890"
  "GpcUrlRoot=$site/client/" "GpcCompressMethod=7zip"
  "GpcUnpackVersion=1,0" "GpcExtVersion=$version"
  "GpcExtHash=$digest" "GpcHashMethod=sha256"
  "GpcExtSignature=$signature" "GpcCertification=$chain"
  "GpcErrorPageUrl=$site/error.html"
  "GpcSampleFiles=$site/files/welcome.txt" "GpcSampleDoneUrl=$site/done.html"
)
html_escape() { local t=${1//&/&amp;}; t=${t//\"/&quot;}; t=${t//</&lt;}; printf '%s' "${t//>/&gt;}"; }
{
  echo '<!DOCTYPE html><html><head><meta charset="utf-8"><title>Meeting 1234567890</title></head>'
  echo '<body style="font-family:sans-serif;margin:40px"><h1>Meeting 1234567890</h1>'
  echo '<p>Joining the meeting: the plug-in below fetches and starts its extension.</p>'
  printf '<embed type="application/x-talvo-gpc" width="300" height="200"'
  for p in "${params[@]}"; do printf '\n  %s="%s"' "${p%%=*}" "$(html_escape "${p#*=}")"; done
  echo '>'
  echo '</body></html>'
} > "$work/site/meeting.html"
cat > "$work/site/done.html" <<'EOF'
<!DOCTYPE html><html><head><meta charset="utf-8"><title>The extension ran</title></head>
<body style="font-family:sans-serif;margin:40px;background:#eef7ee">
<h1 style="color:#1a6b1a">&#10004; The extension ran</h1>
<p>The plug-in downloaded, verified, unpacked and loaded the sample extension; the extension
fetched its files through the plug-in's services and sent this page here.</p>
<table id="counts" style="font-size:130%;border-collapse:collapse" cellpadding="6"></table>
<script>
var rows = {fetched: "files fetched", failed: "fetches failed", unpacked: "archives unpacked",
            params: "page parameters seen"};
var query = location.search.substring(1).split("&"), table = document.getElementById("counts");
for (var i = 0; i < query.length; i++) {
  var pair = query[i].split("=");
  if (!(pair[0] in rows)) continue;
  var row = table.insertRow(-1);
  row.insertCell(-1).textContent = rows[pair[0]];
  row.insertCell(-1).innerHTML = "<b>" + decodeURIComponent(pair[1] || "") + "</b>";
}
</script></body></html>
EOF
cat > "$work/site/error.html" <<'EOF'
<!DOCTYPE html><html><head><meta charset="utf-8"><title>The plug-in stopped</title></head>
<body style="font-family:sans-serif;margin:40px;background:#fbeeee">
<h1 style="color:#8b1a1a">The plug-in stopped</h1><p id="message"></p>
<script>
var match = /[?&]ErrorMsg=([^&]*)/.exec(location.search);
document.getElementById("message").textContent =
    match ? decodeURIComponent(match[1].replace(/\+/g, " ")) : "";
</script></body></html>
EOF

export XDG_DATA_HOME="$work/data" GPC_TRACE_FILE="$work/tlvgpc.tvt"
unset http_proxy https_proxy HTTP_PROXY HTTPS_PROXY all_proxy ALL_PROXY

# The milestones as they happen: the plug-in's trace records (tlvtracer starts before the
# plug-in loads, so the plug-in writes its debug records too) and the browser's events.
cat > "$work/milestones.py" <<'PY'
import json, re, sys, time
start, source = float(sys.argv[1]) / 1e6, sys.argv[2]
state = {"params": 0, "progress": False}
trace_rules = [
    (r"NPWRAP : NPP_New$", lambda m: "the browser starts the plug-in (NPP_New)"),
    (r"CGpcExtMgr::Init$", lambda m: "page parameters stored for the local client (%d values)" % state["params"]),
    (r"CGpcExtMgr::NeedUpdate,.* is not exist,need update!", lambda m: "extension checked: not installed, so it is downloaded"),
    (r"CGpcExtMgr::NeedUpdate,(.*(need|same|version).*)", lambda m: "extension checked: " + m.group(1)),
    (r"CGpcWindow::GetFileAtUrl,url=\[(.*)\]", lambda m: "download requested: " + m.group(1)),
    (r"GPCGetFileNotifyMessageType=1", lambda m: "download progress: data arriving"),
    (r"recevice url\[(.*)\] data size = (\d+)", lambda m: "downloaded %s (%s bytes)" % (m.group(1), m.group(2))),
    (r"GpcGetFileNotify,Unpack extension from \S+ to (.*)",
     lambda m: "package verified (digest, certificate chain, signer, signature); unpacking into " + m.group(1)),
    (r"UnpackFile,unpack file success", lambda m: "package unpacked"),
    (r"InitExtension,load GPC extension:(.*) success", lambda m: "extension loaded from " + m.group(1)),
    (r"InitExtension,Initialize GPC extension,return value =(.*)",
     lambda m: "extension initialised (GpcInitInstance returned %s)" % m.group(1)),
    (r"GPCSample: ((GpcInitInstance|page has|fetch queued|fetched|all fetches|navigating).*)",
     lambda m: "extension: " + m.group(1)),
    (r"CheckLocationChanging,Requesting url\[(.*)\] at frame\[(.*)\] succeeded",
     lambda m: "the plug-in has the browser open %s in frame %s" % (m.group(1), m.group(2))),
]


def say(t, words):
    print("[%3d.%02d s]   %s" % (int(t), int(t * 100) % 100, words[:200]), flush=True)


def trace_record(record):
    text = record["text"]
    if re.search(r"CGpcWindow::SetParameters,\d+ : ", text):
        state["params"] += 1
    said = None
    for pattern, words in trace_rules:
        found = re.search(pattern, text)
        if found:
            said = words(found)
            break
    if said is None and record["level"] == "error" and "LoggingURL is nil" not in text:
        said = "problem: " + text
    progress = said is not None and said.startswith("download progress")
    if said is None or (progress and state["progress"]):
        return
    state["progress"] = progress
    say(record["seconds"] + record["milliseconds"] / 1000.0 - start, said)


def browser_event(event):
    kind, now = event["event"], time.time() - start
    if kind == "plugins":
        found = ["%s (%s) for %s" % (p["name"], p["file"], p["mime"]) for p in event["plugins"]]
        say(now, "browser: plug-ins found: " + (", ".join(found) or "none"))
    elif kind == "load_finished" and event["ok"]:
        say(now, 'browser: shows "%s" (%s)' % (event["title"], event["url"]))
    elif kind == "load_finished":
        say(now, "browser: a page did not load (%s)" % (event["url"] or "stopped"))
    elif kind == "end" and event["reason"] == "error":
        say(now, "browser: " + event.get("error", "failed"))


for line in sys.stdin:
    try:
        record = json.loads(line)
    except ValueError:
        continue
    trace_record(record) if source == "trace" else browser_event(record)
PY
( echo "$BASHPID" > "$work/tracer.pid"; exec "$build/bin/tlvtracer" --json --follow "$GPC_TRACE_FILE" 2>/dev/null ) |
  tee "$work/trace.jsonl" | python3 -u "$work/milestones.py" "$started" trace &
follower_pid=$!
pids+=("$follower_pid")
for _ in $(seq 100); do [ -s "$work/tracer.pid" ] && break; sleep 0.05; done
tracer_pid=$(cat "$work/tracer.pid")
pids+=("$tracer_pid")

status=0
done_url=""
if [ "$mode" = host ]; then
  say "gpc-host opens the meeting page $site/meeting.html"
  host_args=()
  for p in "${params[@]}"; do host_args+=(--param "$p"); done
  "$build/bin/gpc-host" --plugin "$plugin_dir/libnpgpc.so" --page-url "$site/meeting.html" \
    --run-ms "$run_ms" --exit-on-navigate "/done.html?" "${host_args[@]}" >"$work/events.jsonl" || status=$?
  done_url=$(grep '"event":"navigate"' "$work/events.jsonl" | grep -o '"url":"[^"]*/done.html?[^"]*"' |
    tail -n 1 | sed 's/^"url":"//; s/"$//') || true
elif [ "$mode" = chromium ]; then
  # A fresh profile whose native-messaging host is gpc-host (the driver writes its manifest); the
  # page is followed through the server's request log.
  say "Chromium opens the meeting page $site/meeting.html (extension from $root/extension)"
  mkdir -p "$work/chromium/profile"
  HOME="$work/chromium" python3 tests/browser/chromium_page.py "$site/meeting.html" \
    --user-data-dir "$work/chromium/profile" --extension "$root/extension" --access-log "$work/server.log" \
    --until "/done.html?" --timeout "$((run_ms / 1000))" --browser-log "$work/browser.log" \
    --host "$build/bin/gpc-host" --host-pids "$work/chromium/host.pids" >"$work/events.jsonl" || status=$?
  done_url=$(grep '"event":"end"' "$work/events.jsonl" | grep -o '"url":"[^"]*/done.html?[^"]*"' |
    tail -n 1 | sed 's/^"url":"//; s/"$//') || true
  [ -n "$done_url" ] && done_url="$site$done_url"
  say "Chromium: the page went on to ${done_url:-nowhere}"
else
  say "QtWebKit opens the meeting page $site/meeting.html (plug-ins from $plugin_dir)"
  { code=0
    /usr/bin/python3 tests/browser/qtwebkit_page.py "$site/meeting.html" --plugin-dir "$plugin_dir" \
      --until "/done.html?" --timeout "$((run_ms / 1000))" --settle 1 --screenshot "$work/done.png" \
      2>"$work/browser.log" || code=$?
    echo "$code" >"$work/browser.status"; } |
    tee "$work/events.jsonl" | python3 -u "$work/milestones.py" "$started" browser
  status=$(cat "$work/browser.status")
  done_url=$(grep '"event":"url_changed"' "$work/events.jsonl" | grep -o '"url":"[^"]*/done.html?[^"]*"' |
    tail -n 1 | sed 's/^"url":"//; s/"$//') || true
fi
# The follower prints what is left, then stops with the tracer.
sleep 0.3
kill "$tracer_pid" 2>/dev/null || true
wait "$follower_pid" 2>/dev/null || true

say "the page was sent to ${done_url:-nowhere}"
parameter_file="$work/data/Talvo Folder/31.9.5/talvoparameters.txt"
if [ -f "$parameter_file" ]; then
  echo "== parameter file for the local client (first records; each ends in a carriage return)"
  tr '\r' '\n' < "$parameter_file" | head -n 6 | cut -c1-100
fi
echo "== installed extension"
ls -l "$work/data/Talvo Folder/zrgpcext64.bundle/Contents/MacOS/" 2>/dev/null || echo "(none)"
if [ "$mode" = browser ] && [ -s "$work/done.png" ]; then
  mkdir -p "$build/demo"
  cp "$work/done.png" "$build/demo/done.png"
  say "screenshot of the page: $build/demo/done.png"
fi

if [ "$status" -ne 0 ] || [ -z "$done_url" ]; then
  echo "demo: the extension did not run ($mode exit status $status)" >&2
  if [ "$mode" = browser ]; then tail -n 5 "$work/browser.log" >&2; fi
  if [ "$mode" = chromium ]; then tail -n 5 "$work/browser.log" >&2 2>/dev/null || true; fi
  exit 1
fi
say "the extension ran"
