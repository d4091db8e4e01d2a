#!/bin/sh
# Builds the fuzz targets in build-fuzz (clang, ASan+UBSan) and runs each for a while.
# Usage: fuzz/run.sh [seconds-per-target (default 60)] [target...]
#   targets: params sitelock stream profile version hex cert sevenzip tlv (default: all)
# An input that runs 30 s counts as a hang (a loaded machine made 10 s give false alarms).
# Each target works on a copy of its seeds (build-fuzz/fuzz-corpus/<target>/, kept between runs so
# that later runs start from what earlier ones found; FRESH=1 starts from the seeds alone).
# One line per target; crash inputs and their logs stay in build-fuzz/crashes/<target>/.
# Exit status: 0 when no target crashed, 1 when one did, 2 when the build failed.
set -u
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-fuzz"
all="params sitelock stream profile version hex cert sevenzip tlv"

seconds=60
if [ $# -gt 0 ]; then
  seconds=$1
  shift
fi
case "$seconds" in
  '' | *[!0-9]*) echo "usage: fuzz/run.sh [seconds-per-target] [target...]" >&2; exit 2 ;;
esac
targets=${*:-$all}
for target in $targets; do
  case " $all " in
    *" $target "*) ;;
    *) echo "unknown target: $target (known: $all)" >&2; exit 2 ;;
  esac
done

mkdir -p "$build"
if ! grep -qs '^GPC_FUZZ:BOOL=ON' "$build/CMakeCache.txt"; then
  CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DGPC_BUILD_BENCH=OFF -DGPC_FUZZ=ON >"$build/fuzz-configure.log" 2>&1 ||
    { cat "$build/fuzz-configure.log" >&2; echo "configure failed" >&2; exit 2; }
fi
names=""
for target in $targets; do names="$names ${target}_fuzz"; done
# shellcheck disable=SC2086 # one word per target
cmake --build "$build" --target $names -j2 >"$build/fuzz-build.log" 2>&1 ||
  { cat "$build/fuzz-build.log" >&2; echo "build failed" >&2; exit 2; }

# Undefined behaviour stops a run as a crash would; leaks count as crashes too.
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"
export ASAN_OPTIONS="detect_leaks=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}"

# The last "cov: ..." report of a log: coverage, features and corpus.
last_status() {
  grep -E '^#[0-9]+.*cov: ' "$1" | tail -n 1 | sed -E 's/.*cov: ([0-9]+) ft: ([0-9]+) corp: ([0-9]+)\/([^ ]+).*/cov \1, ft \2, corpus \3 (\4)/'
}
stat_of() { sed -n "s/^stat::$2: *//p" "$1" | tail -n 1; }

failed=0
for target in $targets; do
  work="$build/fuzz-run/$target"
  corpus="$build/fuzz-corpus/$target"
  crashes="$build/crashes/$target"
  rm -rf "$work"
  [ "${FRESH:-0}" = 1 ] && rm -rf "$corpus"
  mkdir -p "$work/tmp" "$corpus" "$crashes"
  cp "$root/fuzz/corpus/$target/"* "$corpus/"
  log="$work/fuzz.log"
  # Scratch files, the trace file opened at load and the data folder all stay in the work folder.
  TMPDIR="$work/tmp" GPC_TRACE_FILE="$work/tmp/load-trace.tvt" XDG_DATA_HOME="$work/tmp/data" \
    "$build/fuzz/${target}_fuzz" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=30 \
    -print_final_stats=1 -artifact_prefix="$crashes/" "$corpus" >"$log" 2>&1
  status=$?
  runs=$(stat_of "$log" number_of_executed_units)
  speed=$(stat_of "$log" average_exec_per_sec)
  summary="${runs:-?} runs (${speed:-?}/s), $(last_status "$log")"
  if [ $status -eq 0 ]; then
    printf '%-9s ok     %s\n' "$target" "$summary"
  else
    failed=1
    stamp=$(date +%Y%m%d-%H%M%S)
    cp "$log" "$crashes/log-$stamp.txt"
    artifact=$(sed -n 's/.*Test unit written to \(.*\)$/\1/p' "$log" | tail -n 1)
    # The first line that says what went wrong: a sanitizer's or libFuzzer's error, a failed
    # property or assertion, undefined behaviour.
    reason=$(grep -m1 -E 'ERROR:|FUZZ PROPERTY FAILED|runtime error:|Assertion .* failed' "$log" | cut -c1-200)
    printf '%-9s CRASH  %s; input %s; log %s; %s\n' "$target" "$summary" "${artifact:-none}" \
      "$crashes/log-$stamp.txt" "$reason"
  fi
  rm -rf "$work/tmp"
done
exit $failed
