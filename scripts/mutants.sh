#!/usr/bin/env bash
# Breaks the driver and the packet class in one place after another, and reports the breaks that
# neither the unit, the module nor the fault tests notice. Works on a copy of the tree in
# build/mutants. Takes two minutes for the first build and then some ten seconds for each mutant.
#
#   scripts/mutants.sh                  every mutant of scripts/mutants.txt
#   scripts/mutants.sh --only PATTERN   those whose file or text the regular expression matches
#   scripts/mutants.sh --jobs N         N compilers and N test programs at a time (2)
#   scripts/mutants.sh --fresh          also those that an earlier run has killed
#   scripts/mutants.sh --check          checks only whether each mutant still applies
#
# May be interrupted: the next run continues where it stopped, and tries again the mutants that
# lived. Ends with status 1 when a mutant lives, does not apply or does not build.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/usage.sh"
cd "$(dirname "${BASH_SOURCE[0]}")/.."

only='' jobs=2 fresh=false check=false
while [[ $# -gt 0 ]]; do
  case $1 in
    --only) only=${2:?--only needs a regular expression}; shift 2 ;;
    --jobs) jobs=${2:?--jobs needs a number}; shift 2 ;;
    --fresh) fresh=true; shift ;;
    --check) check=true; shift ;;
    -h | --help) usage; exit ;;
    *) usage >&2; exit 2 ;;
  esac
done

tree=build/mutants/tree
build=build/mutants/build
results=build/mutants/results
# Each with a filter of its tests. The slow tests come last: most mutants are noticed before.
programs=('unit_tests -DriverRace.*' 'module_tests *' 'allocation_tests *' 'fault_tests *'
  'unit_tests DriverRace.*')
# Longer than any test program takes: a mutant that hangs is killed, too.
patience=180

# ---- The list ----

# A mutant is a file, a fragment that occurs in it once, and the fragment's replacement.
files=() fragments=() replacements=()

read_list() {
  local line file='' kind='' number=0
  while IFS= read -r line || [[ -n $line ]]; do
    number=$((number + 1))
    case $line in
      '' | '#'*) kind='' ;;
      '@ '*) file=${line#@ } kind='' ;;
      '- '*)
        if [[ $kind == '-' ]]; then
          fragments[-1]+=$'\n'${line#- }
        else
          files+=("$file") fragments+=("${line#- }") replacements+=('')
        fi
        kind='-' ;;
      '+ '* | '+')
        line=${line#+} line=${line# }
        [[ $kind == '+' ]] && replacements[-1]+=$'\n'$line || replacements[-1]=$line
        kind='+' ;;
      *) echo "scripts/mutants.txt:$number: neither file, fragment nor replacement: $line" >&2; exit 2 ;;
    esac
  done <scripts/mutants.txt
}

# Prints a file with the fragment replaced; fails unless the fragment occurs exactly once.
mutate() {
  FRAGMENT=$2 REPLACEMENT=$3 perl -0777 -ne '
    my $at = index($_, $ENV{FRAGMENT});
    exit 1 if $at < 0 || index($_, $ENV{FRAGMENT}, $at + 1) >= 0;
    substr($_, $at, length $ENV{FRAGMENT}) = $ENV{REPLACEMENT};
    print' "$1"
}

describe() { printf '%s: %s  ->  %s' "${files[$1]}" "${fragments[$1]//$'\n'/ / }" "${replacements[$1]//$'\n'/ / }"; }

# ---- Building and testing ----

prepare() {
  mkdir -p "$tree" "$results"
  # Copies the tree as it stands, including what is not committed. Unchanged files keep their times,
  # so they are not compiled again.
  git ls-files -z --cached --others --exclude-standard |
    rsync -rlp --checksum --from0 --files-from=- --ignore-missing-args --delete-missing-args ./ "$tree"
  local launcher=() gold=()
  command -v ld.gold >/dev/null && gold=(-fuse-ld=gold)
  command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  cmake -S "$tree" -B "$build" -G Ninja -DBUILD_TESTING=ON -DCMAKE_BUILD_TYPE= \
    -DCMAKE_EXE_LINKER_FLAGS="${gold[*]}" ${launcher[@]+"${launcher[@]}"} >"$build.log" 2>&1 &&
    ninja -C "$build" -j"$jobs" "${programs[@]% *}" cpd-host >>"$build.log" 2>&1 ||
    { tail -n 30 "$build.log"; exit 1; }
}

# Runs one of the $jobs parts into which a program's tests are divided. Prints the first that fails.
run_part() {
  local part=$1 program=$2 filter=$3 status=0
  GTEST_TOTAL_SHARDS=$jobs GTEST_SHARD_INDEX=$part timeout -k 5 "$patience" \
    "$build/bin/$program" --gtest_filter="$filter" --gtest_fail_fast --gtest_brief=1 \
    >"$results/part$part.log" 2>&1 </dev/null || status=$?
  [[ $status -eq 0 ]] && return
  grep -a -o -m 1 -P '^\[  FAILED  \] \K[^ ,]+' "$results/part$part.log" ||
    { [[ $status -eq 124 || $status -eq 137 ]] && echo "$program, which hangs" || echo "$program, which ends with $status"; }
}

# Builds one test program after another and runs it. Prints "killed by" the first test that fails,
# "did not build" or "lived".
verdict() {
  local program filter part failed
  for program in "${programs[@]}"; do
    filter=${program#* } program=${program% *}
    ninja -C "$build" -j"$jobs" "$program" >"$results/build.log" 2>&1 || { echo "did not build"; return; }
    failed=$(for ((part = 0; part < jobs; ++part)); do run_part "$part" "$program" "$filter" & done; wait)
    [[ -z $failed ]] || { echo "killed by ${failed%%$'\n'*}"; return; }
  done
  echo "lived"
}

# Prints the verdict on a mutant.
try() {
  local file=$tree/${files[$1]}
  cp -p "$file" "$results/original"
  mutate "$results/original" "${fragments[$1]}" "${replacements[$1]}" >"$file"
  verdict
  cp "$results/original" "$file"
  touch "$file"  # newer than the objects of the mutant
}

# ---- The run ----

read_list
misplaced=0
for i in "${!files[@]}"; do
  mutate "${files[i]}" "${fragments[i]}" "${replacements[i]}" >/dev/null && continue
  echo "does not apply exactly once: $(describe "$i")"
  misplaced=$((misplaced + 1))
done
if $check || [[ $misplaced -gt 0 ]]; then
  echo "${#files[@]} mutants, $misplaced do not apply"
  [[ $misplaced -eq 0 ]]; exit
fi

prepare
unbroken=$(verdict)
[[ $unbroken == lived ]] || { echo "without a mutant: $unbroken" >&2; exit 1; }

killed=0 lived=0 unbuilt=0
for i in "${!files[@]}"; do
  description=$(describe "$i")
  [[ -z $only || $description =~ $only ]] || continue
  result=$results/$(sha1sum <<<"$description" | cut -c1-12)
  if $fresh || ! grep -q '^killed' "$result" 2>/dev/null; then
    try "$i" >"$result.new"
    mv "$result.new" "$result"
    printf '%-60s %s\n' "$(<"$result")" "$description"
  fi
  case $(<"$result") in
    killed*) killed=$((killed + 1)) ;;
    lived) lived=$((lived + 1)) ;;
    *) unbuilt=$((unbuilt + 1)) ;;
  esac
done
echo "$killed killed, $lived lived, $unbuilt did not build"
[[ $((lived + unbuilt)) -eq 0 ]]
