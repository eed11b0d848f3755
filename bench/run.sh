#!/usr/bin/env bash
# Builds the benchmark in a release build of its own and runs it; arguments go to bench_install
# (bench/README.md explains them and the figures).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DWUP_BUILD_TESTS=OFF >/dev/null
cmake --build build-bench -j 2 --target bench_install >/dev/null
exec build-bench/bench/bench_install "$@"
