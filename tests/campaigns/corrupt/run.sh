#!/usr/bin/env bash
# The full corruption campaign: builds the plain tree and runs 500 seeded damaged pairs (or the seeds
# given), printing every finding and the outcomes by class. CI runs the first 100 through ctest.
#   tests/campaigns/corrupt/run.sh [FIRST:END] [--timeout SECONDS]
set -euo pipefail
cd "$(dirname "$0")/../../.."
cmake -S . -B build -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build -j2 --target corrupt_campaign >/dev/null
seeds=${1:-0:500}
exec build/tests/campaigns/corrupt/corrupt_campaign --seeds "$seeds" "${@:2}"
