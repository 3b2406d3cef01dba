#!/usr/bin/env bash
# Builds everything and runs every test: the suite, the threaded tests under
# ThreadSanitizer, and a short smoke run of each fuzz target.
#   XJ_TEST_QUICK=1     only the main suite
#   XJ_ASAN=1           also the whole suite under AddressSanitizer and UBSan
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"
bash scripts/setup.sh
jobs=$(nproc)

echo "== build and test"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$jobs"
ctest --test-dir build -j "$jobs" --output-on-failure --timeout 600

[ "${XJ_TEST_QUICK:-0}" = 1 ] && exit 0

echo "== threaded tests under ThreadSanitizer"
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DXJ_SANITIZE=thread \
  -DXJ_BUILD_BENCH=OFF -DXJ_BUILD_TOOLS=OFF >/dev/null
cmake --build build-tsan -j "$jobs"
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" XJ_TEST_SHORT=1 \
  ctest --test-dir build-tsan -j "$jobs" -L threads --output-on-failure --timeout 900

if [ -n "$(ls fuzz/*.cpp 2>/dev/null)" ]; then
  echo "== fuzz smoke"
  CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DXJ_BUILD_FUZZ=ON -DXJ_BUILD_TESTS=OFF -DXJ_BUILD_BENCH=OFF -DXJ_BUILD_TOOLS=OFF >/dev/null
  cmake --build build-fuzz -j "$jobs"
  for f in build-fuzz/fuzz/xj_fuzz_*; do
    name=$(basename "$f"); corpus="fuzz/corpus/${name#xj_fuzz_}"; mkdir -p "build-fuzz/corpus-$name"
    seeds=(); [ -d "$corpus" ] && seeds=("$corpus")
    "$f" -max_total_time="${XJ_FUZZ_SECONDS:-20}" -rss_limit_mb=2048 "build-fuzz/corpus-$name" "${seeds[@]}" 2>&1 | tail -n 2
  done
fi

if [ "${XJ_ASAN:-0}" = 1 ]; then
  echo "== whole suite under AddressSanitizer and UBSan"
  cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DXJ_SANITIZE=address,undefined \
    -DXJ_BUILD_BENCH=OFF >/dev/null
  cmake --build build-asan -j "$jobs"
  ASAN_OPTIONS=detect_leaks=1 LSAN_OPTIONS="suppressions=$here/scripts/lsan.supp" \
  UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    ctest --test-dir build-asan -j "$jobs" --output-on-failure --timeout 900
fi
echo "== all tests passed"
