# Sourced by each campaign's run.sh with the programs it needs: sets $build, the build tree (CMake's
# WUP_CAMPAIGN_BUILD when the suite runs it, else build/, configured and built here), and defines tally.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../.." && pwd)
build=${WUP_CAMPAIGN_BUILD:-$root/build}
if [ -z "${WUP_CAMPAIGN_BUILD:-}" ]; then
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug >/dev/null
  cmake --build "$build" -j2 --target "$@" >/dev/null || exit 2
fi

# Reads a campaign's standard output: the notes, "aspect<TAB>outcome<TAB>where<TAB>finding", are counted
# by aspect and outcome (with the first point of each, in order of first appearance); other lines pass
# through. A finding (1) is an outcome that must never happen: each is listed, and any fails the tally,
# as does a run that noted nothing.
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
