#!/usr/bin/env bash
# Sums up which lines have run in the coverage build since its counters were last removed:
#   scripts/coverage.sh           each file's share, and the sums; fails if a sum is too low
#   scripts/coverage.sh --write   also writes the sums into README.md
#   scripts/coverage.sh --lines   only the lines that have not run
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/usage.sh"
cd "$(dirname "${BASH_SOURCE[0]}")/.."

write=false lists_lines=false
case ${1:-} in
  '') ;;
  --write) write=true ;;
  --lines) lists_lines=true ;;
  -h | --help) usage; exit ;;
  *) usage >&2; exit 2 ;;
esac

build=build/coverage

# FILE LINE COUNT for each line with code. A line of a header, or of a library that several programs
# contain, has run if it has run in one of them. (An inline function that a program contains and does
# not use has no counters there: llvm-cov calls that mismatched data.)
counts=$build/counts
objects=("$build/lib/udisk-redir.so")
for program in "$build"/bin/*; do objects+=(-object "$program"); done
llvm-profdata merge -sparse "$build"/counters/*.profraw -o "$build/counters.profdata"
llvm-cov export "${objects[@]}" -instr-profile "$build/counters.profdata" -format=lcov \
  -compilation-dir "$PWD" driver packet framework host 2> >(grep -v 'mismatched data' >&2) |
  awk -F '[:,]' -v root="$PWD/" '
    /^SF:/ { file = substr($2, length(root) + 1) }
    /^DA:/ { print file, $2, $3 }' >"$counts"

if $lists_lines; then
  while read -r file line count; do
    [[ $count -ne 0 ]] || echo "$file:$line:$(sed -n "${line}p" "$file")"
  done <"$counts"
  exit
fi

# Of the lines of files whose names match, how many have run: in whole per cent, rounded down.
share() {
  awk -v names="$1" '
    $1 ~ names { ++all; run += $3 > 0 }
    END { print int(100 * run / all) }' "$counts"
}

awk '
  { ++all[$1]; run[$1] += $3 > 0 }
  END { for (file in all) printf "%5.1f %% of %4d  %s\n", 100 * run[file] / all[file], all[file], file }
' "$counts" | sort -k5
of_module=$(share '^(driver|packet|framework)/')
of_host=$(share '^host/')
sentence="The tests run $of_module % of the module's lines and $of_host % of the host's"
echo "$sentence"
if $write; then
  pattern=$(sed 's/[0-9]\+/[0-9]+/g' <<<"$sentence")
  grep -qE "$pattern" README.md || { echo "README.md lacks the sentence: $sentence" >&2; exit 1; }
  sed -i -E "s/$pattern/$sentence/" README.md
fi
[[ $of_module -ge 97 && $of_host -ge 90 ]]
