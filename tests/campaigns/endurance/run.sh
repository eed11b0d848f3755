#!/usr/bin/env bash
# The endurance run: 2,000 operations (or OPS) in one process, then 200 (or MEMCHECK_OPS) under valgrind
# memcheck, where any error or any block definitely or indirectly lost fails.
#
#   tests/campaigns/endurance/run.sh [OPS] [MEMCHECK_OPS]
set -euo pipefail
source "$(dirname "$0")/../common/campaign.sh" endurance_campaign
"$build/tests/campaigns/endurance_campaign" "${1:-2000}"
echo "== under valgrind memcheck"
WUP_MEMCHECK=1 "$root/tests/e2e/run_e2e.sh" "$build/tests/campaigns/endurance_campaign" "${2:-200}"
