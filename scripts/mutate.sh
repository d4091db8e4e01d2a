#!/usr/bin/env bash
# Plants faults in the code one at a time and tells which of them the tests miss.
#
#   scripts/mutate.sh [--tree DIR] [--build DIR] [--tests REGEX] [--kills FILE] MUTANTS
#
# MUTANTS holds one fault per line: a path relative to the tree, a tab, a Perl substitution
# applied to the whole file at once (s/old/new/ changes the first match in the file), and
# optionally a tab and a ctest -R regex of the tests to run for that fault (else --tests); lines
# starting with # and blank lines are skipped. Each fault is planted in the copy of the
# source in --tree (default: a copy of this working tree made in ../gpc-mutate, refreshed on each
# run, so the working tree itself is never touched), built in --build (default <tree>/build-mutate),
# and the tests matching the line's regex (else --tests; else the unit and integration labels)
# run against it; only the test programs a regex selects are rebuilt. First the unchanged tree
# must build and pass those tests. One line per fault: "caught", "MISSED", "not applied" (the
# substitution matched nothing), "no build" (the fault does not compile), "no file", "no tests"
# (the regex selects no test) or "bad substitution". Exit status: missed faults (at most 100).
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
tree="" build="" tests="" kills=""
while [ $# -gt 1 ]; do
  case "$1" in
    --tree) tree=$2; shift 2 ;;
    --build) build=$2; shift 2 ;;
    --tests) tests=$2; shift 2 ;;
    --kills) kills=$(realpath -m "$2"); shift 2 ;;
    *) break ;;
  esac
done
[ $# -eq 1 ] && [ -f "$1" ] || { sed -n '2,19s/^# \{0,1\}//p' "$0" >&2; exit 2; }
mutants=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
if [ -z "$tree" ]; then
  tree=$(dirname "$root")/gpc-mutate
  mkdir -p "$tree"
  copied="$tree/build-copied-at"  # when the last copy began; kept with the build folders
  touch "$copied.new"
  if command -v rsync >/dev/null; then
    rsync -a --delete --exclude '/build*' --exclude '/.git' "$root/" "$tree/"
  else
    # Same copy without rsync: everything but build folders and .git, stale files dropped.
    find "$tree" -mindepth 1 -maxdepth 1 ! -name 'build*' -exec rm -rf {} +
    (cd "$root" && tar -cf - --exclude='./build*' --exclude='./.git' .) | (cd "$tree" && tar -xf -)
  fi
  # A file changed since the last copy keeps its own time stamp in the copy, which may be older
  # than the objects built from the last copy: it gets a new one, so that it is rebuilt.
  if [ -f "$copied" ]; then
    (cd "$root" && find . \( -path './build*' -o -path ./.git \) -prune -o -type f -newer "$copied" -print0) |
      (cd "$tree" && xargs -0 -r touch)
  fi
  mv "$copied.new" "$copied"
fi
build=${build:-$tree/build-mutate}
# A run stopped without its traps (killed) leaves the objects of its last fault newer than the
# unchanged file the copy above put back: that file is touched so that it is built again.
if [ -f "$build/mutate-planted" ]; then
  planted=$(cat "$build/mutate-planted")
  [ -f "$tree/$planted" ] && touch "$tree/$planted"
  rm -f "$build/mutate-planted"
fi
select=(-L 'unit|integration')
[ -n "$tests" ] && select=(-R "$tests")

# The mutants file on descriptor 3, so that nothing run for a fault (cmake, ctest, the tests)
# can read its lines from standard input.
exec 3<"$mutants"
# When every fault names its own tests, the unchanged tree is checked against those only.
if [ -z "$tests" ]; then
  union=$(awk -F '\t' '!/^(#|$)/ { if ($3 == "") { all = 1 } else { r = r (r == "" ? "" : "|") $3 } }
                        END { if (!all) print r }' "$mutants")
  [ -n "$union" ] && select=(-R "$union")
fi

# The test programs a ctest -R regex selects (test names are target names), for building only
# those; empty when none match.
targets_of() {
  (cd "$build" && ctest -N -R "$1" 2>/dev/null) | sed -n 's/^ *Test *#[0-9]*: //p'
}

# Builds what the tests of `$1` (a regex; empty for all) need.
build_for() {
  local targets=()
  [ -n "$1" ] && mapfile -t targets < <(targets_of "$1")
  if [ ${#targets[@]} -gt 0 ]; then
    cmake --build "$build" -j2 --target "${targets[@]}"
  else
    cmake --build "$build" -j2
  fi
}

# Runs ctest in `$1` with the remaining arguments. The code and the tests write fixed names in
# /tmp ("/tmp/gpc_tmp_N", "/tmp/talvo"), so a fault that leaves files there would change the
# verdicts of later faults, and other developers' runs would change ours: each run gets an empty
# /tmp of its own (a private mount namespace) where the machine allows one.
private_tmp=no
unshare -m --propagation private sh -c 'mount -t tmpfs -o mode=1777 tmpfs /tmp' 2>/dev/null && private_tmp=yes
run_ctest() {
  local dir=$1
  shift
  if [ "$private_tmp" = yes ]; then
    unshare -m --propagation private sh -c 'mount -t tmpfs -o mode=1777 tmpfs /tmp && cd "$0" && exec ctest "$@"' \
      "$dir" "$@"
  else
    (cd "$dir" && ctest "$@")
  fi
}

# Puts the unchanged file back. Its time stamp must be newer than the objects built from the
# fault, or the next build would keep them (make and ninja only rebuild what is older than its
# sources).
target=""
restore() {
  if [ -n "$target" ] && [ -f "$target.unmutated" ]; then
    mv "$target.unmutated" "$target"
    touch "$target"
    rm -f "$build/mutate-planted"
  fi
  target=""
}
trap 'restore; exit 130' INT TERM
trap restore EXIT

cmake -S "$tree" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DGPC_BUILD_BENCH=OFF >/dev/null ||
  { echo "configure failed" >&2; exit 2; }
cmake --build "$build" -j2 >"$build/mutate-build.log" 2>&1 || { echo "the unchanged tree does not build" >&2; exit 2; }
run_ctest "$build" -j2 "${select[@]}" >"$build/mutate-test.log" 2>&1 ||
  { echo "the tests fail on the unchanged tree: $build/mutate-test.log" >&2; exit 2; }

# The failed cases of the last run, from the reports GoogleTest writes into $build/mutate-xml.
failed_cases() {
  local program
  for program in $(sed -nE 's/^[[:space:]]*[0-9]+ - ([^ ]+) .*/\1/p' "$build/mutate-test.log"); do
    # A program that failed without a failed case in its report (none written, or a crash after
    # it was) counts as a whole.
    python3 - "$build/mutate-xml/$program.xml" "$program" <<'PY'
import os, re, sys, xml.etree.ElementTree as tree
failed = []
if os.path.exists(sys.argv[1]):
    # A failure message may quote control characters, which XML does not allow.
    text = re.sub(r"[\x00-\x08\x0b\x0c\x0e-\x1f]", "", open(sys.argv[1], errors="replace").read())
    failed = [f"{sys.argv[2]}.{case.get('classname')}.{case.get('name')}" for case in tree.fromstring(text).iter("testcase")
              if case.find("failure") is not None or case.find("error") is not None]
print("\n".join(failed or [sys.argv[2] + ".*"]))
PY
  done | tr '\n' ' '
}

[ -n "$kills" ] && : >"$kills"
missed=0 number=0
while IFS=$'\t' read -r -u 3 file substitution only || [ -n "$file" ]; do
  case "$file" in '' | '#'*) continue ;; esac
  number=$((number + 1))
  regex=${only:-}
  if [ ! -f "$tree/$file" ]; then
    verdict="no file"
  elif [ -n "$regex" ] && [ -z "$(targets_of "$regex")" ]; then
    # ctest runs nothing for a regex that matches no test, and succeeds: that is no verdict.
    verdict="no tests"
  else
    target="$tree/$file"
    cp -p "$target" "$target.unmutated"
    printf '%s\n' "$file" >"$build/mutate-planted"
    if ! perl -0777 -pi -e "$substitution" "$target" 2>"$build/mutate-perl.log"; then
      verdict="bad substitution"
    elif cmp -s "$target" "$target.unmutated"; then
      verdict="not applied"
    elif ! build_for "${regex:-$tests}" >"$build/mutate-build.log" 2>&1; then
      verdict="no build"
    elif rm -rf "$build/mutate-xml" && export GTEST_OUTPUT="xml:$build/mutate-xml/" &&
      if [ -n "$regex" ]; then run_ctest "$build" -j2 -R "$regex" --timeout 300; else run_ctest "$build" -j2 "${select[@]}" --timeout 300; fi \
        >"$build/mutate-test.log" 2>&1; then
      verdict="MISSED"
      missed=$((missed + 1))
    else
      verdict="caught ($(grep -oE '[0-9]+ tests failed' "$build/mutate-test.log" | head -n 1))"
      [ -n "$kills" ] && printf '%d\t%s\n' "$number" "$(failed_cases)" >>"$kills"
    fi
    restore
  fi
  printf '%3d %-12s %s\t%s\n' "$number" "$verdict" "$file" "$substitution"
done
exec 3<&-
cmake --build "$build" -j2 >/dev/null 2>&1
echo "$missed of $number missed"
exit $((missed > 100 ? 100 : missed))
