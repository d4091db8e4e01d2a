#!/usr/bin/env bash
# The plug-in's main job, without a browser: builds the bundle, serves a meeting page's endpoints on
# 127.0.0.1, and runs one embedded instance through gpc-host exactly as a browser would load it. It
# prints what the plug-in asked of the browser (JSON lines), the parameter file it wrote for the local
# client, and its trace.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" >/dev/null

work=$(mktemp -d)
server_pid=""
cleanup() { [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT

python3 tests/support/recording_http_server.py --log "$work/requests.jsonl" --port-file "$work/port" &
server_pid=$!
for _ in $(seq 100); do [ -s "$work/port" ] && break; sleep 0.05; done
port=$(cat "$work/port")
site="http://127.0.0.1:$port"

export XDG_DATA_HOME="$work/data" GPC_TRACE_FILE="$work/tlvgpc.tvt"
echo "== The page embeds the plug-in; its server root is ${GPC_DEMO_URL_ROOT:-missing}"
params=(--param "GpcProductVersion=31.9.5" --param "MeetingID=1234567890" --param "SessionID=demo"
        --param "LoggingURL=$site/log/report" --param "GpcErrorPageUrl=$site/error.html"
        --param "gpclocalsetting=${GPC_DEMO_LANGUAGE:-1}")
[ -n "${GPC_DEMO_URL_ROOT:-}" ] && params+=(--param "GpcUrlRoot=$GPC_DEMO_URL_ROOT")
build/bin/gpc-host "${params[@]}" --page-url "https://meet.talvo.us/j/1234567890" \
  --run-ms "${GPC_DEMO_RUN_MS:-3000}" --exit-on-navigate "error.html" || true

echo "== Requests the loopback server received"
cat "$work/requests.jsonl"
echo "== Parameter file for the local client (records end in a carriage return)"
tr '\r' '\n' < "$work/data/Talvo Folder/31.9.5/talvoparameters.txt"
echo "== Trace"
build/bin/tlvtracer "$GPC_TRACE_FILE" | tail -n 40
