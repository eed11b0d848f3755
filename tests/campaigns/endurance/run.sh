#!/usr/bin/env bash
# The full endurance run: builds the plain tree, runs 2,000 operations (or the number given) in one
# process, then a shorter run under valgrind memcheck, where any error or any block definitely or
# indirectly lost fails. CI runs 300 operations, and 60 under memcheck, through ctest.
#   tests/campaigns/endurance/run.sh [OPS] [MEMCHECK_OPS]
set -euo pipefail
cd "$(dirname "$0")/../../.."
cmake -S . -B build -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build -j2 --target endurance >/dev/null
build/tests/campaigns/endurance/endurance --ops "${1:-2000}"
echo "== under valgrind memcheck"
WUP_MEMCHECK=1 tests/e2e/run_e2e.sh build/tests/campaigns/endurance/endurance --ops "${2:-200}"
