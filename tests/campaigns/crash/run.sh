#!/usr/bin/env bash
# The crash campaign in full: the plug-in cut at every write-side call of every operation of the sequence,
# killed, killed with a power cut, and on a disk that fills up. Prints the figures by class for each mode;
# exits 1 when any mode found something that must never happen.
#
#   tests/campaigns/crash/run.sh [BUILD_DIR]     (default: build, where scripts/test.sh builds)
set -uo pipefail
cd "$(dirname "$0")/../../.."
build=${1:-build}
cmake --build "$build" --target crash_campaign >/dev/null || exit 2
status=0
for mode in kill powercut enospc; do
  "$build/tests/campaigns/crash/crash_campaign" "$mode" || status=1
done
exit "$status"
