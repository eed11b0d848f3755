#!/usr/bin/env bash
# The main job, from a fresh Debian 12 machine: installs what is missing, builds the plug-in and pkgsim,
# and runs pkgsim's guided tour on a fresh copy of the sample device.
#
#   scripts/demo.sh            the tour, with the plug-in's log lines of every step
#   scripts/demo.sh --quiet    the tour without the log lines
set -euo pipefail
cd "$(dirname "$0")/.."

for arg in "$@"; do
  case "$arg" in
    --quiet) ;;
    -h|--help) sed -n '2,7p' "$0"; exit 0 ;;
    *) echo "unknown option: $arg" >&2; exit 2 ;;
  esac
done

scripts/install-deps.sh

jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B build -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build -j "$jobs" --target pkgsim >/dev/null

exec build/tools/pkgsim/pkgsim "$@" demo
