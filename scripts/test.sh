#!/usr/bin/env bash
set -euo pipefail
cd "$(dirname "$0")/.."

# Every stage is a function stage_NAME; CI runs them in this order.
all_stages=(plain hardened device rpmbuild sanitize fuzz memcheck)

usage() {
  cat <<'TEXT'
usage: scripts/test.sh [--quick | STAGE...]

The whole test suite, from a fresh Debian 12 machine: installs what is missing (apt-get), builds and
runs every test.

  (no option)  every stage, as CI runs them
  --quick      the plain stage only
  STAGE...     the stages named, in the order given

The stages:
  plain      the plain build (build/) and all its tests
  hardened   the hardened build (build-hardened/, -DWUP_HARDENED=ON) and all its tests, the bounded
             campaigns judging it by its own goals
  device     the device build (-DTIZEN=ON against the stand-ins), installed and checked
  rpmbuild   the .spec through rpmbuild on an archive of the committed HEAD: %prep, %build, %install,
             %check (the unit tests) and %files, the package holding the plug-in and its registration
  sanitize   the plain build's tests again under AddressSanitizer and UndefinedBehaviorSanitizer
  fuzz       a bounded run of every fuzz target (libFuzzer, ASan+UBSan)
  memcheck   the end-to-end suite under valgrind memcheck
TEXT
}

jobs=$(nproc 2>/dev/null || echo 2)

# Configures (once) and builds a tree, incrementally.
build_tree() {
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Debug "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
}

# Every ctest run fails when its selection holds no test: a stage that runs nothing has proved nothing.
run_tests() {
  local dir=$1; shift
  ctest --test-dir "$dir" --output-on-failure --no-tests=error "$@"
}

# The plain build; scripts/demo.sh may have configured it without the tests.
build_plain() {
  build_tree build -DWUP_BUILD_TESTS=ON
}

stage_plain() {
  build_plain
  run_tests build -j "$jobs"
}

stage_hardened() {
  build_tree build-hardened -DWUP_HARDENED=ON -DWUP_BUILD_TESTS=ON
  run_tests build-hardened -j "$jobs"
}

stage_device() {
  build_plain >/dev/null
  packaging/check-device-build.sh build build-device
}

stage_rpmbuild() {
  build_plain >/dev/null
  packaging/rpmbuild-check.sh build
}

stage_sanitize() (
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:halt_on_error=1
  export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
  build_tree build-sanitize -DWUP_SANITIZE=ON
  run_tests build-sanitize -j "$jobs"
)

stage_fuzz() {
  rm -rf build-fuzz/ci
  fuzz/run.sh --seconds 12 --jobs 2 --work build-fuzz/ci
}

stage_memcheck() {
  build_plain >/dev/null
  WUP_MEMCHECK=1 run_tests build -L e2e
}

# The device build and the .spec's builds compile the plain build's sources again, in other directories
# and, under rpmbuild, with LANG=C: with ccache, paths relative to the checkout, and neither the directory
# nor the locale in the hash, they reuse its objects.
if command -v ccache >/dev/null; then
  export CMAKE_C_COMPILER_LAUNCHER=${CMAKE_C_COMPILER_LAUNCHER:-ccache}
  export CMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER:-ccache}
  export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD} CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-true}
  export CCACHE_SLOPPINESS=${CCACHE_SLOPPINESS:+$CCACHE_SLOPPINESS,}locale
fi

stages=()
for arg in "$@"; do
  case "$arg" in
    --quick) stages+=(plain) ;;
    -h|--help) usage; exit 0 ;;
    *)
      if ! declare -F "stage_$arg" >/dev/null; then
        echo "unknown option or stage: $arg" >&2; usage >&2; exit 2
      fi
      stages+=("$arg") ;;
  esac
done
((${#stages[@]})) || stages=("${all_stages[@]}")

scripts/install-deps.sh --tests

stage=""
trap 'status=$?; if ((status)); then echo "== ${stage:-setting up}: failed (exit status $status)" >&2; fi' EXIT
for stage in "${stages[@]}"; do
  echo "== $stage"
  start=$SECONDS
  "stage_$stage"
  echo "== $stage: passed in $((SECONDS - start)) s"
done
