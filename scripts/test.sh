#!/usr/bin/env bash
# The whole test suite, from a fresh Debian 12 machine: installs what is missing, builds, runs every test.
#
#   scripts/test.sh            everything CI runs: the plain build, the same suite again under
#                              AddressSanitizer + UndefinedBehaviorSanitizer, and the end-to-end suite
#                              under valgrind memcheck, and a bounded run of every fuzz target
#   scripts/test.sh --quick    the plain build and its tests only
set -euo pipefail
cd "$(dirname "$0")/.."

quick=0
for arg in "$@"; do
  case "$arg" in
    --quick) quick=1 ;;
    -h|--help) sed -n '2,8p' "$0"; exit 0 ;;
    *) echo "unknown option: $arg" >&2; exit 2 ;;
  esac
done

scripts/install-deps.sh

jobs=$(nproc 2>/dev/null || echo 2)

build_and_test() {
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Debug "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  ctest --test-dir "$dir" --output-on-failure -j "$jobs"
}

echo "== plain build"
build_and_test build

if ((quick)); then exit 0; fi

echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:halt_on_error=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
build_and_test build-sanitize -DWUP_SANITIZE=ON
unset ASAN_OPTIONS UBSAN_OPTIONS

echo "== fuzz targets, bounded (libFuzzer, ASan+UBSan)"
rm -rf build-fuzz/ci
fuzz/run.sh --seconds 12 --jobs 2 --work build-fuzz/ci

if ctest --test-dir build -N -L e2e 2>/dev/null | grep -q 'Total Tests: [1-9]'; then
  echo "== end-to-end suite under valgrind memcheck"
  WUP_MEMCHECK=1 ctest --test-dir build --output-on-failure -L e2e
fi
