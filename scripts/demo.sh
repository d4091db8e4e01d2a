#!/usr/bin/env bash
# The plug-in's main job, without a browser: builds the bundle, packs the sample extension as a
# vendor would (7z archive, SHA-256 digest, a certificate chain made with openssl, the RSA signature
# over the digest), serves the package over https on 127.0.0.1, and runs a meeting page through
# gpc-host exactly as a browser loads the plug-in. The plug-in checks the page, writes the parameter
# file, finds the extension missing, downloads, verifies, unpacks and loads it; the extension then
# fetches a file through the services and navigates the page. Prints the milestones with their times
# and exits 0 only when the extension ran. KEEP=1 keeps the work folder.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

scripts/build.sh

work=$(mktemp -d)
server_pid=""
cleanup() {
  [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null
  if [ "${KEEP:-0}" = 1 ]; then echo "== kept $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT
mkdir -p "$work/site/client" "$work/site/files" "$work/pki" "$work/pack"

echo "== The vendor signs the sample extension"
bundle=build/talvo-gpc64.plugin/Contents/Frameworks/zrgpcext64.bundle
(
  cd "$work/pki"
  openssl req -x509 -newkey rsa:2048 -nodes -keyout root.key -out root.pem -days 30 \
    -subj '/CN=Demo Vendor Root' -addext basicConstraints=critical,CA:TRUE \
    -addext keyUsage=critical,keyCertSign,cRLSign
  openssl req -new -newkey rsa:2048 -nodes -keyout signer.key -out signer.csr -subj '/CN=gpc.signer.talvo.us'
  openssl x509 -req -in signer.csr -CA root.pem -CAkey root.key -CAcreateserial -days 30 -out signer.pem
  openssl req -x509 -newkey rsa:2048 -nodes -keyout tls.key -out tls.pem -days 1 -subj '/CN=127.0.0.1'
) >/dev/null 2>&1
cp -a "$bundle" "$work/pack/zrgpcext64.bundle"
sed -i '/<key>CFBundleVersion<\/key>/{n;s|<string>.*</string>|<string>2.0.0.7</string>|}' \
  "$work/pack/zrgpcext64.bundle/Contents/Info.plist"
(cd "$work/pack" && 7z a -mx=5 "$work/site/client/zrgpcext64.bundle.7z" zrgpcext64.bundle >/dev/null)
package="$work/site/client/zrgpcext64.bundle.7z"
digest=$(openssl dgst -sha256 -r "$package" | cut -d' ' -f1)
# PKCS #1 v1.5 over DigestInfo { sha1WithRSASignature, the digest's 64-character text }.
{ printf '\x30\x4d\x30\x09\x06\x05\x2b\x0e\x03\x02\x1d\x05\x00\x04\x40'; printf '%s' "$digest"; } > "$work/pki/tbs.bin"
signature=$(openssl rsautl -sign -inkey "$work/pki/signer.key" -in "$work/pki/tbs.bin" 2>/dev/null | openssl base64 -A)
chain="$(openssl x509 -in "$work/pki/root.pem" -outform DER | openssl base64 -A)|$(openssl x509 -in "$work/pki/signer.pem" -outform DER | openssl base64 -A)"
echo "package $(stat -c %s "$package") bytes, sha256 $digest"
echo "hello from the meeting service" > "$work/site/files/welcome.txt"

python3 - "$work" <<'EOF' &
import http.server, os, ssl, sys, functools
work = sys.argv[1]
class Quiet(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *args):
        pass
handler = functools.partial(Quiet, directory=os.path.join(work, "site"))
server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(os.path.join(work, "pki/tls.pem"), os.path.join(work, "pki/tls.key"))
server.socket = context.wrap_socket(server.socket, server_side=True)
with open(os.path.join(work, "port.tmp"), "w") as f:
    f.write(str(server.server_address[1]))
os.rename(os.path.join(work, "port.tmp"), os.path.join(work, "port"))
server.serve_forever()
EOF
server_pid=$!
for _ in $(seq 100); do [ -s "$work/port" ] && break; sleep 0.05; done
site="https://127.0.0.1:$(cat "$work/port")"

export XDG_DATA_HOME="$work/data" GPC_TRACE_FILE="$work/tlvgpc.tvt"
# The loopback server is no approved site: the page switches the site lock off, before its root.
echo "== The meeting page embeds the plug-in"
status=0
build/bin/gpc-host --page-url "https://meet.talvo.us/j/1234567890" --run-ms "${GPC_DEMO_RUN_MS:-20000}" \
  --exit-on-navigate "/done" \
  --param "gpcsitelock=0" --param "GpcProductVersion=31.9.5" --param "MeetingID=1234567890" \
  --param "GpcUrlRoot=$site/client/" --param "GpcCompressMethod=7zip" \
  --param "GpcUnpackVersion=1,0" --param "GpcExtVersion=2,0,0,7" \
  --param "GpcExtHash=$digest" --param "GpcHashMethod=sha256" \
  --param "GpcExtSignature=$signature" --param "GpcCertification=$chain" \
  --param "GpcErrorPageUrl=$site/error.html" \
  --param "GpcSampleFiles=$site/files/welcome.txt" --param "GpcSampleDoneUrl=$site/done" \
  >"$work/host.jsonl" || status=$?

echo "== Milestones (from the plug-in's trace)"
build/bin/tlvtracer "$GPC_TRACE_FILE" | grep -E \
  'NPP_New$|SaveParameters|NeedUpdate,.*need update|GpcGetFileNotify,(Unpack|Load)|UnpackFile,unpack file success|InitExtension,(load|Initialize GPC extension,return)|GPCSample: (GpcInitInstance|fetched|all fetches|navigating)' \
  | cut -d' ' -f2,9- || true
echo "== The page was sent to"
grep '"event":"navigate"' "$work/host.jsonl" || true
echo "== Parameter file for the local client (records end in a carriage return)"
tr '\r' '\n' < "$work/data/Talvo Folder/31.9.5/talvoparameters.txt" | head -n 8
echo "== Installed extension"
ls -l "$work/data/Talvo Folder/zrgpcext64.bundle/Contents/MacOS/" 2>/dev/null || true

if [ "$status" -ne 0 ] || ! grep -q '"url":"[^"]*/done?' "$work/host.jsonl"; then
  echo "demo: the extension did not run (gpc-host exit $status)" >&2
  exit 1
fi
echo "== The extension ran."
