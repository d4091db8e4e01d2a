#!/usr/bin/env bash
# Builds the benchmarks and runs each of them, printing their figures. Usage: bench/run.sh [name...]
set -euo pipefail
cd "$(dirname "$0")/.."
# A build folder made earlier keeps its generator; a failed build shows the compiler's words.
generator=()
[ -f build/CMakeCache.txt ] || generator=(-G Ninja)
log=$(mktemp)
if ! { cmake -S . -B build "${generator[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo &&
       cmake --build build -j "$(nproc)"; } >"$log" 2>&1; then
  cat "$log" >&2
  echo "bench: the build failed" >&2
  exit 1
fi
rm -f "$log"
names=("$@")
if [ ${#names[@]} -eq 0 ]; then
  for b in build/bench/*_bench; do names+=("$(basename "$b" _bench)"); done
fi
status=0
for n in "${names[@]}"; do
  echo "== $n"
  build/bench/"$n"_bench || status=$?
done
exit $status
