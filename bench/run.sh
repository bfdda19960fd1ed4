#!/usr/bin/env bash
# Measures the driver against the machine's limit and writes the tables of docs/performance.md.
#
#   bench/run.sh            measure, and replace the text below "## Measured" there
#   bench/run.sh --print    measure, and only print
#
# Takes three to four minutes after the builds. A busy machine disturbs the rows with 32 outstanding
# requests most.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/usage.sh"
cd "$(dirname "${BASH_SOURCE[0]}")/.."

document=docs/performance.md
reads=10000

case ${1:-} in
  '' | --print) ;;
  *) usage >&2; exit 2 ;;
esac

scripts/install-packages.sh build test
cmake --preset release -DBUILD_TESTING=ON >/dev/null
cmake --build --preset release --target udisk_bench udisk_mount_bench -j2 >/dev/null
bench=build/release/bin/udisk_bench
mount_bench=build/release/bin/udisk_mount_bench

# The system calls that this many reads make, one "name count" per line.
count_calls() {
  strace -f -c -U name,calls "$bench" --reads "$1" 2>&1 >/dev/null |
    awk '$2 ~ /^[0-9]+$/ && $1 != "total" { print $1, $2 }'
}

machine() {
  printf '%s, %s cores, Linux %s, glibc %s; disk on %s.\n' \
    "$(sed -n 's/^model name.*: //p' /proc/cpuinfo | head -n 1)" "$(nproc)" "$(uname -r | cut -d- -f1)" \
    "$(getconf GNU_LIBC_VERSION | cut -d' ' -f2)" \
    "$(stat -f -c %T "${TMPDIR:-/tmp}" | sed 's/ext2\/ext3/ext4/')"
}

system_calls() {
  if ! command -v strace >/dev/null; then
    echo "Not counted: strace is not installed."
    return
  fi
  echo "| system call | per read |"
  echo "|---|--:|"
  # Leaves out the calls that the program makes at its start and end.
  awk -v reads="$reads" 'NR == FNR { idle[$1] = $2; next }
    { each = ($2 - idle[$1]) / reads; if (each >= 0.01) printf "| %s | %.2f |\n", $1, each }' \
    <(count_calls 0) <(count_calls "$reads")
}

# What hardening costs a request. A build with it and one without take turns, with priority over all
# other programs where that is allowed.
hardening() {
  local plain=build/unhardened/bin/udisk_bench turns=5 repetitions=15 program first=()
  cmake --preset release -B build/unhardened -DBUILD_TESTING=ON -DUDISK_HARDENING=OFF >/dev/null
  cmake --build build/unhardened --target udisk_bench -j2 >/dev/null
  ! chrt -f 1 true 2>/dev/null || first=(chrt -f 1)
  echo "| request, 1 outstanding, one core | without, µs | with, µs | difference, µs |"
  echo "|---|--:|--:|--:|"
  for _ in $(seq "$turns"); do
    for program in "$plain" "$bench"; do
      "${first[@]}" taskset -c 0 "$program" \
        --benchmark_filter='(attr|/4KiB|/64KiB)/outstanding:1/module' --benchmark_min_time=0.02 \
        --benchmark_repetitions="$repetitions" --benchmark_format=csv 2>/dev/null |
        awk -F, -v with="$([[ $program == "$bench" ]] && echo 1 || echo 0)" '$1 ~ /manual_time"$/ {
          gsub(/"|\/outstanding.*/, "", $1); sub("/", " of ", $1); sub(/[KM]iB/, " &", $1)
          printf "%s,%d,%.3f\n", $1, with, 1e6 / $7 }'
    done
  done | sort -t, -k1,1 -k2,2n -k3,3n | awk -F, -v middle="$(((turns * repetitions + 1) / 2))" '
    { if ($1 $2 != row) { row = $1 $2; seen = 0 }
      if (++seen != middle) next
      if ($2 == 0) without = $3
      else printf "| %s | %.2f | %.2f | **%.2f** |\n", $1, without, $3, $3 - without }'
}

measure() {
  printf '%s\n\n### Against the limit\n\n' "$(machine)"
  "$bench" --ratios || [[ $? -eq 1 ]]  # 1: a ratio is out of its bound, as its row says
  printf '\n### What the accelerators of a mount gain\n\n'
  "$mount_bench" || [[ $? -eq 1 ]]
  printf '\n### What a line without delay costs\n\n'
  "$mount_bench" --line || [[ $? -eq 1 ]]
  printf '\n### What hardening costs\n\n'
  hardening
  printf '\n### System calls of an unpaced read\n\n'
  system_calls
  printf '\n### Resident memory\n\n'
  "$bench" --memory
}

if [[ ${1:-} == --print ]]; then
  measure
  exit
fi
measured=$(mktemp)
trap 'rm -f "$measured"' EXIT
{ sed '/^## Measured$/q' "$document"; echo; measure; } | tee "$measured"
cat "$measured" >"$document"
