#!/usr/bin/env bash
# The campaigns, at length or as the suite runs them (through ctest): each prints its figures by class
# and fails on any finding.
#
#   tests/campaigns/run.sh                                         all three, in full
#   tests/campaigns/run.sh crash [--every N] [MODE...]             modes: kill powercut enospc (default: all)
#   tests/campaigns/run.sh corrupt [FIRST:END [TIMEOUT]]           default: seeds 0:500, 10 seconds each
#   tests/campaigns/run.sh endurance [OPERATIONS [UNDER_MEMCHECK]] default: 2000, then 200 under memcheck
#
# crash: each operation of the sequence (installs, an upgrade, a downgrade, reinstalls, uninstalls, two
# recoveries) is cut short at its write-side call k: the process killed right before it (kill), the same
# with a power cut, which loses what was not synced while renames, creations and removals stay (powercut),
# or the disk full from there on, the operation running to its end (enospc); then the same call runs again
# with the disk back. Every k by default; with --every N every N-th and the last N of each operation, where
# the result file is written. `build/tests/campaigns/campaign crash MODE 1 K` tries point K alone.
#
# corrupt: seeded, reproducible damaged (main, backup) pairs of the version database, one install each. The
# classes are the open check's first decision, `kept` (main valid, used), `restored` (main invalid, backup
# valid and copied over it), `recreated` (both invalid: a fresh database), `refused` (the backup is valid
# but a link or directory stands at the main path), `uncreatable` (both invalid, a directory with
# something in it at the main path); then what became of the write: stored, `+retried` (it failed on a
# foreign plug-in table and succeeded once the backup was copied over the main file), `+lost` (it failed
# again), `+not-stored` (no usable main file).
#
# endurance: thousands of calls in one process, then fewer under valgrind memcheck, where any error or any
# block definitely or indirectly lost fails.
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=${WUP_CAMPAIGN_BUILD:-$root/build}  # set by the suite, which has built everything
if [ -z "${WUP_CAMPAIGN_BUILD:-}" ]; then
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug >/dev/null
  cmake --build "$build" -j2 --target campaign >/dev/null || exit 2
fi
campaign=$build/tests/campaigns/campaign

# Reads the notes, "aspect<TAB>outcome<TAB>where<TAB>finding", and counts them by aspect and outcome (with
# the first point of each, in order of first appearance); other lines pass through. A finding (1) is an
# outcome that must never happen: each is listed, and any fails the tally, as does a run that noted nothing.
tally() {
  awk -F '\t' '
    NF != 4 { print; fflush(); next }
    !($1 in outcomes) { aspects[++n] = $1; outcomes[$1] = "" }
    !(($1, $2) in count) { outcomes[$1] = outcomes[$1] "\t" $2; first[$1, $2] = $3 }
    { count[$1, $2]++; total++ }
    $4 == 1 { findings[++found] = $3 ": " $1 ": " $2 }
    END {
      for (i = 1; i <= n; i++) {
        print "  " aspects[i] ":"
        k = split(substr(outcomes[aspects[i]], 2), list, "\t")
        for (j = 1; j <= k; j++)
          printf "    %s: %d  (first: %s)\n", list[j], count[aspects[i], list[j]], first[aspects[i], list[j]]
      }
      if (!total) print "  nothing noted"
      printf "  findings: %d\n", found
      for (i = 1; i <= found; i++) print "    " findings[i]
      exit (total == 0 || found > 0)
    }'
}

crash() {
  local every=1 status=0 mode modes
  if [ "${1:-}" = --every ]; then every=$2; shift 2; fi
  modes=("$@")
  ((${#modes[@]})) || modes=(kill powercut enospc)
  for mode in "${modes[@]}"; do "$campaign" crash "$mode" "$every" | tally || status=1; done
  return "$status"
}

corrupt() { "$campaign" corrupt "${1:-0:500}" "${@:2}" | tally; }

endurance() {
  "$campaign" endurance "${1:-2000}" || return 1
  echo "== under valgrind memcheck"
  WUP_MEMCHECK=1 "$root/tests/e2e/run_e2e.sh" "$campaign" endurance "${2:-200}"
}

case "${1:-all}" in
  crash | corrupt | endurance) "$@" ;;
  all)
    status=0
    for name in crash corrupt endurance; do echo "== $name" && "$name" || status=1; done
    exit "$status"
    ;;
  *) sed -n '2,8s/^# \?//p' "$0" >&2 && exit 2 ;;
esac
