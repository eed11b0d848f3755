#!/usr/bin/env bash
# The corruption campaign: seeded damaged (main, backup) pairs, one install each. Prints every finding and
# the expected outcomes by class; exits 1 on any finding.
#
#   tests/campaigns/corrupt/run.sh [FIRST:END [TIMEOUT]]    (default: seeds 0:500, 10 seconds each)
set -uo pipefail
source "$(dirname "$0")/../common/campaign.sh" corrupt_campaign
"$build/tests/campaigns/corrupt_campaign" "${1:-0:500}" "${@:2}" | tally
