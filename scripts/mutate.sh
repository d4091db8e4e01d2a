#!/usr/bin/env bash
# Plants faults in the code one at a time and tells which of them the tests miss.
#
#   scripts/mutate.sh [--tree DIR] [--build DIR] [--tests REGEX] MUTANTS
#
# MUTANTS holds one fault per line: a path relative to the tree, a tab, a Perl substitution
# applied to the whole file at once (s/old/new/ changes the first match in the file), and
# optionally a tab and a ctest -R regex of the tests to run for that fault (else --tests); lines
# starting with # and blank lines are skipped. Each fault is planted in the copy of the
# source in --tree (default: a copy of this working tree made in ../gpc-mutate, refreshed on each
# run, so the working tree itself is never touched), built in --build (default <tree>/build-mutate),
# and the tests matching --tests (a ctest -R regex; default: the unit and integration labels) run
# against it. One line per fault: "caught", "MISSED", "not applied" (the substitution matched
# nothing) or "no build" (the fault does not compile). Exit status: the number of missed faults
# (at most 100).
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
tree="" build="" tests=""
while [ $# -gt 1 ]; do
  case "$1" in
    --tree) tree=$2; shift 2 ;;
    --build) build=$2; shift 2 ;;
    --tests) tests=$2; shift 2 ;;
    *) break ;;
  esac
done
[ $# -eq 1 ] && [ -f "$1" ] || { sed -n '2,16s/^# \{0,1\}//p' "$0" >&2; exit 2; }
mutants=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
if [ -z "$tree" ]; then
  tree=$(dirname "$root")/gpc-mutate
  mkdir -p "$tree"
  rsync -a --delete --exclude '/build*' --exclude '/.git' "$root/" "$tree/"
fi
build=${build:-$tree/build-mutate}
select=(-L 'unit|integration')
[ -n "$tests" ] && select=(-R "$tests")

cmake -S "$tree" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DGPC_BUILD_BENCH=OFF >/dev/null ||
  { echo "configure failed" >&2; exit 2; }
cmake --build "$build" -j2 >"$build/mutate-build.log" 2>&1 || { echo "the unchanged tree does not build" >&2; exit 2; }
(cd "$build" && ctest -j2 "${select[@]}" >"$build/mutate-test.log" 2>&1) ||
  { echo "the tests fail on the unchanged tree: $build/mutate-test.log" >&2; exit 2; }

missed=0 number=0
while IFS=$'\t' read -r file substitution only; do
  case "$file" in '' | '#'*) continue ;; esac
  number=$((number + 1))
  target="$tree/$file"
  cp "$target" "$target.unmutated"
  perl -0777 -pi -e "$substitution" "$target"
  if cmp -s "$target" "$target.unmutated"; then
    verdict="not applied"
  elif ! cmake --build "$build" -j2 >"$build/mutate-build.log" 2>&1; then
    verdict="no build"
  elif (cd "$build" && if [ -n "${only:-}" ]; then ctest -j2 -R "$only" --timeout 300; else ctest -j2 "${select[@]}" --timeout 300; fi \
      >"$build/mutate-test.log" 2>&1); then
    verdict="MISSED"
    missed=$((missed + 1))
  else
    verdict="caught ($(grep -oE '[0-9]+ tests failed' "$build/mutate-test.log" | head -n 1))"
  fi
  mv "$target.unmutated" "$target"
  printf '%3d %-12s %s\t%s\n' "$number" "$verdict" "$file" "$substitution"
done <"$mutants"
cmake --build "$build" -j2 >/dev/null 2>&1
echo "$missed of $number missed"
exit $((missed > 100 ? 100 : missed))
