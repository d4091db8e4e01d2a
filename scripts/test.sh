#!/usr/bin/env bash
# Installs what is missing, builds, runs the whole suite, then the unit and integration tests again under
# AddressSanitizer and UndefinedBehaviorSanitizer, the end-to-end runs through gpc-host under valgrind,
# and a short run of every fuzz target.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
jobs=$(nproc)
# A build folder made earlier keeps its generator.
generator() { [ -f "$1/CMakeCache.txt" ] || echo "-GNinja"; }

cmake -S . -B build $(generator build) -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j "$jobs"
(cd build && ctest --output-on-failure -j "$jobs" --timeout 600)

cmake -S . -B build-asan $(generator build-asan) -DCMAKE_BUILD_TYPE=Debug -DGPC_SANITIZE=ON -DGPC_BUILD_BENCH=OFF
cmake --build build-asan -j "$jobs"
(cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --output-on-failure -j "$jobs" -L "unit|integration" --timeout 600)

# The end-to-end runs through gpc-host once more, the host under valgrind's memcheck: any error or
# definite leak fails the run.
(cd build && GPC_HOST_WRAPPER="valgrind --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite --quiet" \
  ctest --output-on-failure -j "$jobs" -R "extension_job_test|host_plugin_test" --timeout 600)

# Every fuzz target once more over its seeds (the regression inputs among them) and for a short
# while beyond (clang, AddressSanitizer and UndefinedBehaviorSanitizer); fuzz/run.sh 600 is the long run.
fuzz/run.sh 15
