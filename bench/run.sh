#!/usr/bin/env bash
# Builds the benchmark in a release build of its own, and the hardened plug-in in a second one
# (-DWUP_HARDENED=ON), and runs it with the hardened library beside the default one; arguments go to
# bench_install (bench/README.md explains them and the figures).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DWUP_BUILD_TESTS=OFF >/dev/null
cmake --build build-bench -j 2 --target bench_install >/dev/null
cmake -S . -B build-bench-hardened -DCMAKE_BUILD_TYPE=Release -DWUP_BUILD_TESTS=OFF -DWUP_HARDENED=ON >/dev/null
cmake --build build-bench-hardened -j 2 --target webapi-upgrade-plugin >/dev/null
exec build-bench/bench/bench_install --hardened build-bench-hardened/libwebapi-upgrade-plugin.so "$@"
