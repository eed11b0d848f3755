#!/usr/bin/env bash
# Runs one end-to-end program; with WUP_MEMCHECK=1 under valgrind memcheck, where any error or any block
# definitely or indirectly lost, in the program or in a scenario's process, fails the run.
set -euo pipefail
if [ "${WUP_MEMCHECK:-0}" = 1 ]; then
  exec valgrind --quiet --error-exitcode=99 --leak-check=full --show-leak-kinds=definite,indirect \
    --errors-for-leak-kinds=definite,indirect --track-origins=yes "$@"
fi
exec "$@"
