#!/bin/sh
# Builds the fuzz targets in build-fuzz (clang, ASan+UBSan) and runs each for a while; one line per
# target. Usage: fuzz/run.sh [seconds-per-target (default 60)] [target...] (default: all).
# Each target starts from build-fuzz/fuzz-corpus/<target>/, kept between runs (FRESH=1: the seeds
# alone); crash inputs and logs stay in build-fuzz/crashes/<target>/. An input that runs 30 s is a
# hang. Exit status: 0 when no target crashed, 1 when one did, 2 on bad usage or a failed build.
set -u
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-fuzz"
all="params sitelock stream version hex cert sevenzip tlv"
seconds=${1:-60}
[ $# -gt 0 ] && shift
targets=${*:-$all}
case "$seconds" in '' | *[!0-9]*) echo "usage: fuzz/run.sh [seconds-per-target] [target...]" >&2; exit 2 ;; esac
for target in $targets; do
  case " $all " in *" $target "*) ;; *) echo "unknown target: $target (known: $all)" >&2; exit 2 ;; esac
done

mkdir -p "$build"
if ! grep -qs '^GPC_FUZZ:BOOL=ON' "$build/CMakeCache.txt"; then
  CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DGPC_BUILD_BENCH=OFF -DGPC_FUZZ=ON >"$build/fuzz-configure.log" 2>&1 ||
    { cat "$build/fuzz-configure.log" >&2; echo "configure failed" >&2; exit 2; }
fi
# shellcheck disable=SC2046 # one word per target
cmake --build "$build" --target $(printf '%s_fuzz ' $targets) -j2 >"$build/fuzz-build.log" 2>&1 ||
  { cat "$build/fuzz-build.log" >&2; echo "build failed" >&2; exit 2; }

# Undefined behaviour and leaks stop a run as a crash would.
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"
export ASAN_OPTIONS="detect_leaks=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
failed=0
for target in $targets; do
  work="$build/fuzz-run/$target" corpus="$build/fuzz-corpus/$target" crashes="$build/crashes/$target"
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
  summary=$(grep -E '^#[0-9]+.*cov: ' "$log" | tail -n 1 | sed -E 's/ (lim|exec\/s|rss):.*//')  # runs, coverage, corpus
  if [ $status -eq 0 ]; then
    printf '%-9s ok     %s\n' "$target" "$summary"
  else
    failed=1
    kept="$crashes/log-$(date +%Y%m%d-%H%M%S).txt"
    cp "$log" "$kept"
    artifact=$(sed -n 's/.*Test unit written to \(.*\)$/\1/p' "$log" | tail -n 1)
    # The first line that says what went wrong.
    reason=$(grep -m1 -E 'ERROR:|FUZZ PROPERTY FAILED|runtime error:|Assertion .* failed' "$log" | cut -c1-200)
    printf '%-9s CRASH  %s; input %s; log %s; %s\n' "$target" "$summary" "${artifact:-none}" "$kept" "$reason"
  fi
  rm -rf "$work/tmp"
done
exit $failed
