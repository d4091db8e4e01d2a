#!/bin/sh
# Makes the binary seeds of the fuzz targets again: the certificates and signatures (openssl), the
# 7z archives (7z) and the trace files. The text seeds are written by hand and kept as they are.
# Usage: fuzz/make-seeds.sh   (needs openssl, 7z and python3; replaces fuzz/certs and those seeds)
set -eu
fuzz=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/gpc-seeds-XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"

# Certificates: a root and a signer under it whose common name is the vendor's, RSA 1024 to keep
# the seeds short.
openssl req -x509 -newkey rsa:1024 -nodes -keyout root.key -out root.pem -days 3650 \
  -subj "/O=Fuzz Root/CN=fuzz.root.example" -addext basicConstraints=critical,CA:TRUE \
  -addext keyUsage=critical,keyCertSign,cRLSign 2>/dev/null
openssl req -new -newkey rsa:1024 -nodes -keyout signer.key -out signer.csr \
  -subj "/O=Vantrel/CN=gpc.signer.talvo.us" 2>/dev/null
openssl x509 -req -in signer.csr -CA root.pem -CAkey root.key -CAcreateserial -days 3650 -out signer.pem 2>/dev/null
openssl x509 -in root.pem -outform DER -out root.der
openssl x509 -in signer.pem -outform DER -out signer.der
mkdir -p "$fuzz/certs"
cp root.pem root.der "$fuzz/certs/"

# A package and the page's signature over its digest text, as the vendor signs: PKCS #1 type 1
# padding over a DigestInfo of sha1WithRSA (1.3.14.3.2.29) holding the digest's hex text as it is.
printf 'package bytes\n' > package
sign() {  # $1: digest text (40 or 64 characters) -> base64 signature
  if [ ${#1} -eq 40 ]; then lengths='\065 \050'; else lengths='\115 \100'; fi
  set -- "$1" $lengths
  { printf "\060$2\060\011\006\005\053\016\003\002\035\005\000\004$3"; printf '%s' "$1"; } > digestinfo
  openssl rsautl -sign -inkey signer.key -in digestinfo 2>/dev/null | openssl base64 -A
}
chain="$(openssl base64 -A -in root.der)|$(openssl base64 -A -in signer.der)"
sha1=$(openssl dgst -sha1 -r package | cut -d' ' -f1)
sha256=$(openssl dgst -sha256 -r package | cut -d' ' -f1)
cert="$fuzz/corpus/cert"
rm -rf "$cert" && mkdir -p "$cert"
{ printf '\001%s\n%s\n' "$chain" "$(sign "$sha1")"; cat package; } > "$cert/page-sha1-accepted"
{ printf '\005%s\n%s\n' "$chain" "$(sign "$sha256")"; cat package; } > "$cert/page-sha256-accepted"
{ printf '\003%s\n%s\n' "$chain" "$(sign "$sha1")"; cat package; } > "$cert/page-hardened"
{ printf '\001%s\n%s\n' "$(openssl base64 -A -in signer.der)" "$(sign "$sha1")"; cat package; } > "$cert/page-no-root"
python3 - "$cert" "$(sign "$sha1" | openssl base64 -d -A | od -An -v -tx1 | tr -d ' \n')" "$sha1" <<'EOF'
import struct, sys
folder, signature, digest = sys.argv[1], bytes.fromhex(sys.argv[2]), sys.argv[3].encode()
def raw(name, der, sig, data):
    open(f"{folder}/{name}", "wb").write(b"\0" + struct.pack(">H", len(der)) + der + struct.pack(">H", len(sig)) + sig + data)
signer, root = open("signer.der", "rb").read(), open("root.der", "rb").read()
raw("raw-signer-verifies", signer, signature, digest)
raw("raw-root", root, b"", b"")
EOF

# 7z archives: a file, folders, links inside and out, the copy method, BCJ and LZMA2, encryption.
sz="$fuzz/corpus/sevenzip"
rm -rf "$sz" && mkdir -p "$sz"
mkdir -p tree/dir/sub && printf 'hello\n' > tree/dir/a.txt && printf 'x' > tree/dir/sub/b
ln -s a.txt tree/dir/link && ln -s ../../etc tree/dir/out
(cd tree && 7z a -bd -mx=1 "$sz/file.7z" dir/a.txt >/dev/null)
(cd tree && 7z a -bd -m0=Copy "$sz/copy-tree.7z" dir/a.txt dir/sub >/dev/null)
(cd tree && 7z a -bd -snl -mx=1 "$sz/link-inside.7z" dir/a.txt dir/link >/dev/null)
(cd tree && 7z a -bd -snl -m0=Copy "$sz/link-outside.7z" dir/out >/dev/null)
(cd tree && 7z a -bd -mf=BCJ -m0=LZMA2 "$sz/bcj-lzma2.7z" dir >/dev/null)
(cd tree && 7z a -bd -m0=Copy -pfuzz "$sz/encrypted.7z" dir/a.txt >/dev/null)

# Trace files: the header and records as the plug-in writes them.
tlv="$fuzz/corpus/tlv"
rm -rf "$tlv" && mkdir -p "$tlv"
python3 - "$tlv" <<'EOF'
import struct, sys
folder = sys.argv[1]
header = bytes([0x54,0x4C,0x56,0x54,0xFF,0xFE,3,2,0x30,0,1,0] + [0]*16 + [48,0,0,0,48,0,0,0] + [0]*12)
def record(level, module, function, text, seconds=1700000000, ms=123):
    strings = module + b"\0" + function + b"\0" + text + b"\0"
    length = 48 + len(strings)
    length += (-length) % 4
    head = bytearray(48)
    struct.pack_into("<HBBBBBB", head, 0, length, 3, 0, 0, 0, 4, 0)
    struct.pack_into("<IIII", head, 8, level, 4242, 0x1a2b3c4d, 0)
    struct.pack_into("<IH", head, 24, seconds, ms)
    struct.pack_into("<HHH", head, 30, 48, 48 + len(module) + 1, 48 + len(module) + 1 + len(function) + 1)
    return bytes(head) + strings + b"\0" * (length - 48 - len(strings))
open(f"{folder}/records", "wb").write(header + record(2, b"GPCPlugin", b"", b"NPWRAP : NPP_New")
    + record(8, b"GPCPlugin", b"OnTimer", b"line\nbreak\ttab \x01 \xc3\xa9 \xff\xfe bad"))
open(f"{folder}/truncated", "wb").write(header + record(4, b"Ext", b"f", b"warning text")[:60])
open(f"{folder}/header-only", "wb").write(header)
EOF
echo "seeds written under $fuzz/corpus and $fuzz/certs"
