#!/usr/bin/env bash
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
  cat <<'TEXT'
usage: scripts/test.sh [--quick]

The whole test suite, from a fresh Debian 12 machine: installs what is missing (apt-get), builds and
runs every test.

  (no option)  everything CI runs: the plain build, the device build (-DTIZEN=ON) installed and
               checked, the same suite again under AddressSanitizer and UndefinedBehaviorSanitizer,
               the end-to-end suite under valgrind memcheck, and a bounded run of every fuzz target
  --quick      the plain build and its tests only
TEXT
}

quick=0
for arg in "$@"; do
  case "$arg" in
    --quick) quick=1 ;;
    -h|--help) usage; exit 0 ;;
    *) echo "unknown option: $arg" >&2; usage >&2; exit 2 ;;
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

echo "== device build (-DTIZEN=ON against the stand-ins), installed and checked"
packaging/check-device-build.sh build build-device

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
