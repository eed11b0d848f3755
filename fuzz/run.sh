#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan+UBSan) and runs them on their checked-in seeds, one after the
# other, each bounded by time or by executions; prints one summary line per target and fails on any
# finding (crash, leak, timeout, out-of-memory) or run that did not end cleanly.
#
#   fuzz/run.sh [--seconds N | --runs N] [--jobs N] [--work DIR] [--build DIR] [TARGET...]
#
#   TARGET     description_file, result_document, entry_points, manifest (default: all four)
#   --seconds  time per target (default 60); --runs: executions per job instead
#   --jobs     parallel fuzzing processes per target (libFuzzer -jobs/-workers; default 1)
#   --work     where corpora, logs and findings are kept (default build-fuzz/work: grows across runs and
#              stays out of git); each target's findings land in WORK/TARGET/findings/
#   --build    build directory (default build-fuzz)
# Extra libFuzzer flags can be passed in FUZZ_FLAGS. The runs are niced: others share the machine.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

bound=(-max_total_time=60)
jobs=1
build=$root/build-fuzz
work=
targets=()
while (($#)); do
  case "$1" in
    --seconds) bound=(-max_total_time="$2"); shift ;;
    --runs) bound=(-runs="$2"); shift ;;
    --jobs) jobs=$2; shift ;;
    --work) work=$2; shift ;;
    --build) build=$2; shift ;;
    -h|--help) sed -n '2,16p' "$0"; exit 0 ;;
    -*) echo "unknown option: $1" >&2; exit 2 ;;
    *) targets+=("$1") ;;
  esac
  shift
done
((${#targets[@]})) || targets=(description_file result_document entry_points manifest)
work=$(mkdir -p "${work:-$build/work}" && cd "${work:-$build/work}" && pwd)

if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
    -DCMAKE_CXX_COMPILER=clang++ -DWUP_FUZZ=ON -DWUP_BUILD_TESTS=OFF >/dev/null
fi
cmake --build "$build" --target fuzz -j "$(nproc 2>/dev/null || echo 2)" >/dev/null

# Sandbox devices of crashed runs would stay behind; they all live in this directory.
sandboxes=$(mktemp -d "$( [ -w /dev/shm ] && echo /dev/shm || echo /tmp )/wup-fuzz-run-XXXXXX")
trap 'rm -rf "$sandboxes"' EXIT

failed=0
for target in "${targets[@]}"; do
  binary=$build/fuzz/${target}_fuzzer
  [ -x "$binary" ] || { echo "no fuzz target $target" >&2; exit 2; }
  dir=$work/$target
  mkdir -p "$dir/corpus" "$dir/findings"
  rm -f "$dir"/fuzz-*.log "$dir/run.log"
  dict=()
  [ -f "$root/fuzz/dict/$target.dict" ] && dict=(-dict="$root/fuzz/dict/$target.dict")
  start=$(date +%s)
  status=0
  # ASan keeps every distinct allocation stack, and its fast unwinder reads stray frames inside the system
  # libraries (built without frame pointers): resident memory grows by about 0.5 KB per execution on
  # the JSON targets without any leak, so long runs get twice libFuzzer's default memory limit.
  # shellcheck disable=SC2086
  (cd "$dir" && WUP_FUZZ_TMP=$sandboxes nice -n 10 "$binary" "${bound[@]}" "${dict[@]}" -timeout=10 -rss_limit_mb=4096 \
    -jobs="$jobs" -workers="$jobs" -print_final_stats=1 -artifact_prefix="$dir/findings/" ${FUZZ_FLAGS:-} \
    "$dir/corpus" "$root/fuzz/corpus/$target" >"$dir/run.log" 2>&1) || status=$?
  seconds=$(($(date +%s) - start))

  executions=0
  for log in "$dir"/fuzz-[0-9]*.log; do  # one per job; run.log repeats them
    count=$(grep -oE 'stat::number_of_executed_units: [0-9]+' "$log" | grep -oE '[0-9]+$' | tail -1 || true)
    [ -n "$count" ] || count=$(grep -oE '^#[0-9]+' "$log" | tr -d '#' | tail -1 || true)
    executions=$((executions + ${count:-0}))
  done
  findings=$(find "$dir/findings" -type f \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' \
    -o -name 'oom-*' \) | sort)
  found=$(grep -c . <<<"$findings" || true)
  echo "fuzz $target: $executions executions in ${seconds}s ($((executions / (seconds > 0 ? seconds : 1))) exec/s," \
    "$jobs job(s)), $found finding(s), exit status $status"
  if ((found)); then
    sed 's/^/  /' <<<"$findings"
    grep -hE '^(property broken|SUMMARY|==[0-9]+==ERROR)' "$dir"/fuzz-*.log | sort | uniq -c | sed 's/^/  /'
  fi
  if ((found || status)); then failed=1; fi
done
exit "$failed"
