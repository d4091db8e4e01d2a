#!/usr/bin/env bash
# Prints the non-blank lines of test code (tests/ with its support files and fixtures, fuzz/) and of
# the code (src/, include/, tools/, examples/, bench/, scripts/), and their ratio. Sources only:
# C, C++, Python, shell, JavaScript and CMake files; seed corpora and generated files are not code.
# Exit status 1 when the ratio is above the limit given as the first argument (e.g. 0.35).
set -euo pipefail
cd "$(dirname "$0")/.."
count() {
  find "$@" -type f \( -name '*.c' -o -name '*.cpp' -o -name '*.h' -o -name '*.py' -o -name '*.sh' \
    -o -name '*.js' -o -name '*.cmake' -o -name CMakeLists.txt \) -not -path '*/corpus/*' -print0 |
    xargs -0 cat | grep -cv '^[[:space:]]*$'
}
tests=$(count tests fuzz)
code=$(count src include tools examples bench scripts)
ratio=$(awk -v t="$tests" -v c="$code" 'BEGIN { printf "%.2f", t / c }')
echo "test lines $tests, code lines $code, ratio $ratio"
if [ $# -gt 0 ]; then
  awk -v r="$ratio" -v limit="$1" 'BEGIN { exit !(r <= limit) }'
fi
