#!/usr/bin/env bash
# The crash campaign: the plug-in cut at the write-side calls of every operation of the sequence, killed,
# killed with a power cut, and on a disk that fills up. Prints the figures by class for each mode; exits 1
# when any mode found something that must never happen.
#
#   tests/campaigns/crash/run.sh [--every N] [MODE...]    modes: kill powercut enospc (default: all three)
#
# kill: the plug-in's process is killed right before call k. powercut: the same, and the data it had not
# synced is lost (renames, creations and removals stay). enospc: from call k on the disk is full, and the
# operation runs to its end. By default every point k is tried; with --every N, every N-th and the last N
# of each operation, where the result file is written. The program alone takes a third argument, K, to try
# point K only: build/tests/campaigns/crash_campaign MODE 1 K.
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
