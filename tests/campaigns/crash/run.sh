#!/usr/bin/env bash
# The crash campaign: the plug-in cut at the write-side calls of every operation of the sequence, killed,
# killed with a power cut, and on a disk that fills up. Prints the figures by class for each mode; exits 1
# when any mode found something that must never happen.
#
#   tests/campaigns/crash/run.sh [--every N] [MODE...]    modes: kill powercut enospc (default: all three)
#
# By default every point is tried; with --every N, every N-th and the last N of each operation.
set -uo pipefail
source "$(dirname "$0")/../common/campaign.sh" crash_campaign
every=()
if [ "${1:-}" = --every ]; then every=("$2"); shift 2; fi
modes=("$@")
((${#modes[@]})) || modes=(kill powercut enospc)
status=0
for mode in "${modes[@]}"; do
  "$build/tests/campaigns/crash_campaign" "$mode" "${every[@]}" | tally || status=1
done
exit "$status"
