#!/usr/bin/env bash
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
  cat <<'TEXT'
usage: scripts/demo.sh [--quiet] [--keep]

The main job, from a fresh Debian 12 machine: installs what is missing (apt-get), builds the plug-in
and pkgsim, and runs pkgsim's guided tour on a temporary copy of the sample device, saying after every
step what the plug-in changed and why.

  --quiet   leave out the plug-in's log lines (the explanations stay)
  --keep    keep the tour's device afterwards (it is removed by default)
TEXT
}

for arg in "$@"; do
  case "$arg" in
    --quiet|--keep) ;;
    -h|--help) usage; exit 0 ;;
    *) echo "unknown option: $arg" >&2; usage >&2; exit 2 ;;
  esac
done

scripts/install-deps.sh

# The demo installs only what building and running needs; the tests join the build where their libraries
# are there (scripts/test.sh installs them).
tests=ON
for package in libgtest-dev libgmock-dev; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || tests=OFF
done

echo "== building the plug-in and pkgsim (build/)"
cmake -S . -B build -DCMAKE_BUILD_TYPE=Debug -DWUP_BUILD_TESTS=$tests >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target pkgsim

exec build/tools/pkgsim/pkgsim "$@" demo
