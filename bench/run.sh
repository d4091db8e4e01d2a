#!/usr/bin/env bash
# Builds the benchmarks and runs each of them, printing their figures. Usage: bench/run.sh [name...]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh
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
