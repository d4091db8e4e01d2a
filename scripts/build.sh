#!/usr/bin/env bash
# Configures and builds build/ quietly. A build folder made earlier keeps its generator; a failed
# build prints the compiler's words and exits non-zero.
set -euo pipefail
cd "$(dirname "$0")/.."
generator=()
[ -f build/CMakeCache.txt ] || generator=(-G Ninja)
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { cmake -S . -B build "${generator[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo &&
       cmake --build build -j "$(nproc)"; } >"$log" 2>&1; then
  cat "$log" >&2
  echo "the build failed" >&2
  exit 1
fi
