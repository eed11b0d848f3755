#!/usr/bin/env bash
# The corruption campaign: seeded damaged (main, backup) pairs, one install each. Prints every finding and
# the expected outcomes by class; exits 1 on any finding.
#
#   tests/campaigns/corrupt/run.sh [FIRST:END [TIMEOUT]]    (default: seeds 0:500, 10 seconds each)
#
# The classes: the open check's first decision, `kept` (main valid, used), `restored` (main invalid, backup
# valid and copied over it), `recreated` (both invalid: a fresh database), `refused` (the backup is valid
# but a link or directory stands at the main path), `uncreatable` (both invalid, a directory with something
# in it at the main path); then what became of the write: stored, `+retried` (it failed on a foreign
# plug-in table and succeeded once the backup was copied over the main file), `+lost` (it failed again),
# `+not-stored` (no usable main file).
set -uo pipefail
source "$(dirname "$0")/../common/campaign.sh" corrupt_campaign
"$build/tests/campaigns/corrupt_campaign" "${1:-0:500}" "${@:2}" | tally
