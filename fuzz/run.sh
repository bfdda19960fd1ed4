#!/usr/bin/env bash
# Fuzzes the targets, two at a time, and reports the results.
#
#   fuzz/run.sh SECONDS             all of them, each for that many seconds
#   fuzz/run.sh SECONDS TARGET...   only these: capture check_dir driver packet parameters probing
#                                   requests stream
#
# Inputs that the fuzzer learns are stored in build/fuzz/corpus, for the next run. The input of a
# finding is stored in build/fuzz/findings. Exits with 1 when there is a finding, with 77 on a
# machine where the fuzzers cannot make their jail.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/usage.sh"
cd "$(dirname "${BASH_SOURCE[0]}")/.."

seconds=${1:-}
if [[ ! $seconds =~ ^[1-9][0-9]*$ ]]; then
  usage >&2
  exit 2
fi
shift
targets=("$@")
[[ $# -gt 0 ]] || targets=(capture check_dir driver packet parameters probing requests stream)

build=build/fuzz
findings=$build/findings
log=$(mktemp)
trap 'rm -f "$log"' EXIT
{ cmake --preset fuzz -DCMAKE_COMPILE_WARNING_AS_ERROR=ON && cmake --build --preset fuzz -j2; } >"$log" 2>&1 || { cat "$log"; exit 1; }

fuzz() {
  local target=$1
  local learnt=$build/corpus/$target found=$findings/$target options=()
  [[ ! -f fuzz/$target.dict ]] || options=(-dict="fuzz/$target.dict")
  mkdir -p "$learnt" "$found"
  # Closes standard output, on which the packet class prints what it refuses.
  ASAN_OPTIONS=quarantine_size_mb=16:malloc_context_size=8 \
    "$build/bin/fuzz_$target" -max_total_time="$seconds" -max_len=1048576 -timeout=20 \
    -close_fd_mask=1 -print_final_stats=1 -artifact_prefix="$found/" \
    ${options[@]+"${options[@]}"} "$learnt" "fuzz/corpus/$target" >"$found/log" 2>&1
}

report() {
  local target=$1 log=$findings/$1/log
  awk -v target="$target" '
    / cov: / { for (i = 1; i < NF; ++i) { if ($i == "cov:") edges = $(i + 1)
                                          if ($i == "corp:") corpus = $(i + 1) } }
    /number_of_executed_units/ { runs = $2 }
    /average_exec_per_sec/ { rate = $2 }
    END { sub("/.*", "", corpus)
          printf "%-10s %9d executions, %6d per second, %5d edges covered, %5d inputs learnt\n",
                 target, runs, rate, edges, corpus }' "$log"
}

status=0
# Waits for the oldest of the running fuzzers, and reports its result.
finish() {
  local target=${running[0]} process=${processes[0]}
  running=("${running[@]:1}") processes=("${processes[@]:1}")
  if wait "$process"; then
    report "$target"
    return
  fi
  if grep -q ': Skipped$' "$findings/$target/log"; then
    [[ $status -eq 1 ]] || status=77
    echo "$target: $(sed -n '/: Skipped$/{n;p}' "$findings/$target/log")"
    return
  fi
  status=1
  echo "FINDING in $target:"
  awk '/^FINDING:|ERROR: |runtime error:/ { found = 1 }
    (found && ++lines <= 60) || /^Base64: / || /Test unit written/' "$findings/$target/log"
}

running=() processes=()
for target in "${targets[@]}"; do
  [[ ${#running[@]} -lt 2 ]] || finish
  fuzz "$target" & processes+=($!) running+=("$target")
done
while [[ ${#running[@]} -gt 0 ]]; do finish; done
exit $status
