#!/usr/bin/env bash
# The campaigns, at length or as the suite runs them (through ctest). The campaign program prints its
# figures by class and exits non-zero on any finding; this script only chooses the build and the runs.
#
#   tests/campaigns/run.sh [--build DIR]                                   all, in full (DIR: build/)
#   tests/campaigns/run.sh [--build DIR] crash [--every N] [MODE...]       modes: kill powercut enospc
#   tests/campaigns/run.sh [--build DIR] corrupt [FIRST:END [TIMEOUT]]     default: seeds 0:500, 10 s each
#   tests/campaigns/run.sh [--build DIR] busy [SECONDS...]                 default: held 5, then 12 seconds
#   tests/campaigns/run.sh [--build DIR] xwalk
#   tests/campaigns/run.sh [--build DIR] endurance [OPERATIONS [UNDER_MEMCHECK]]  default: 2000, then 200
#
# DIR is the build tree to measure, configured here if it is not yet (with -DWUP_HARDENED=ON when its name
# says hardened, as build-hardened does); the program reads from the plug-in library which build it is.
# The default build may show the hazards it keeps on purpose; the hardened build may show none of them.
#
# crash: each operation of the sequence (installs, an upgrade, a downgrade, reinstalls, uninstalls, two
# recoveries) is cut short at its write-side call k: the process killed right before it (kill), the same
# with a power cut, which loses what was not synced, file contents and directory entries alike (powercut),
# or the disk full from there on, the operation running to its end (enospc); then the same call runs again
# with the disk back. Every k by default; with --every N every N-th and the last N of each operation, where
# the result file is written. `DIR/tests/campaigns/campaign crash MODE 1 K` tries point K alone.
#
# corrupt: seeded, reproducible damaged (main, backup) pairs of the version database, one install each,
# beside another installed plug-in whose record the damaged files hold. The classes are the open check's
# first decision, `kept` (main valid, used), `restored` (main invalid, backup valid and copied over it),
# `recreated` (both invalid: a fresh database), `refused` (the backup is valid but a link or directory stands
# at the main path), `uncreatable` (both invalid, a directory with something in it at the main path); then
# what became of the write: stored, `+retried` (it failed on a foreign plug-in table and succeeded once the
# backup was copied over the main file), `+lost` (it failed again), `+not-stored` (no usable main file).
#
# busy: another process stores a record, then holds the database in an exclusive transaction for SECONDS
# while an install runs, once per hold. xwalk: an xwalk package with two extensions installed (and upgraded), uninstalled.
#
# endurance: thousands of calls in one process, then fewer under valgrind memcheck, where any error or any
# block definitely or indirectly lost fails.
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=${WUP_CAMPAIGN_BUILD:-$root/build}  # set by the suite, which has built everything
if [ "${1:-}" = --build ]; then build=$(realpath -m "$2") && shift 2; fi
if [ -z "${WUP_CAMPAIGN_BUILD:-}" ]; then
  if [ ! -f "$build/CMakeCache.txt" ]; then
    hardened=OFF
    [[ $(basename "$build") == *hardened* ]] && hardened=ON
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug -DWUP_HARDENED=$hardened >/dev/null || exit 2
  fi
  cmake --build "$build" -j2 --target campaign >/dev/null || exit 2
fi
campaign=$build/tests/campaigns/campaign

crash() {
  local every=1 status=0 mode modes
  if [ "${1:-}" = --every ]; then every=$2 && shift 2; fi
  modes=("$@")
  ((${#modes[@]})) || modes=(kill powercut enospc)
  for mode in "${modes[@]}"; do "$campaign" crash "$mode" "$every" || status=1; done
  return "$status"
}

corrupt() { "$campaign" corrupt "${1:-0:500}" "${@:2}"; }
busy() {
  (($#)) || set -- 5 12  # past the open check's own waits, then past the hardened build's bounded wait
  "$campaign" busy "$@"
}
xwalk() { "$campaign" xwalk; }

endurance() {
  "$campaign" endurance "${1:-2000}" || return 1
  echo "== under valgrind memcheck"
  WUP_MEMCHECK=1 "$root/tests/e2e/run_e2e.sh" "$campaign" endurance "${2:-200}"
}

case "${1:-all}" in
  crash | corrupt | busy | xwalk | endurance) "$@" ;;
  all)
    status=0
    for name in crash corrupt busy xwalk endurance; do echo "== $name" && "$name" || status=1; done
    exit "$status"
    ;;
  *) sed -n '2,11s/^# \?//p' "$0" >&2 && exit 2 ;;
esac
