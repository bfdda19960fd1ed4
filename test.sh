#!/usr/bin/env bash
# Builds and runs every test. Unless a build fails, the last line is: N passed, M failed, K skipped.
#
#   ./test.sh             the optimised build
#   ./test.sh --all       also under AddressSanitizer and UBSan, then ThreadSanitizer
#   ./test.sh -R REGEX    only tests whose name matches
#   ./test.sh --lint      only the linter, over everything that is shipped
#   ./test.sh --fuzz S    only the fuzzers, each for S seconds
#   ./test.sh --coverage  counts which lines the tests run, and writes the sums into README.md;
#                         to print those that have not run, call scripts/coverage.sh --lines next
#   ./test.sh --ci        as --all, with warnings as errors; then the linter, and the fuzzers for a
#                         minute each
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/scripts/usage.sh"
cd "$(dirname "${BASH_SOURCE[0]}")"

presets=(release)
filter=()
lints=false
strict=OFF # whether a warning ends the build
fuzz_seconds=0
while [[ $# -gt 0 ]]; do
  case $1 in
    --all) presets=(release asan tsan); shift ;;
    -R) filter=(-R "${2:?-R needs a regular expression}"); shift 2 ;;
    --lint) presets=(); lints=true; shift ;;
    --coverage) presets=(coverage); shift ;;
    --fuzz) presets=(); fuzz_seconds=${2:?--fuzz needs a number of seconds}; shift 2 ;;
    --ci) presets=(release asan tsan) lints=true strict=ON fuzz_seconds=60; shift ;;
    -h | --help) usage; exit ;;
    *) usage >&2; exit 2 ;;
  esac
done

passed=0 failed=0 skipped=0
failures=() skips=()
step() { printf '==> %02d:%02d  %s\n' $((SECONDS / 60)) $((SECONDS % 60)) "$*"; }

# Copies the output of ninja or ctest to a file, and prints each tenth that is done.
show_progress() {
  awk -v log_file="$1" '
    { print >log_file }
    /^\[[0-9]+\/[0-9]+\] / || /^ *[0-9]+\/[0-9]+ Test / {
      match($0, /[0-9]+\/[0-9]+/)
      split(substr($0, RSTART, RLENGTH), count, "/")
      tenth = int(10 * count[1] / count[2])
      if (tenth > shown) { printf "      %d of %d\n", count[1], count[2]; fflush(); shown = tenth }
    }'
}

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# check NAME COMMAND...: counts a command as one test; status 77 means skipped.
check() {
  local name=$1 status=0; shift
  "$@" || status=$?
  case $status in
    0) passed=$((passed + 1)) ;;
    77) skipped=$((skipped + 1)); skips+=("$name: not possible on this machine") ;;
    *) failed=$((failed + 1)); failures+=("$name") ;;
  esac
}

sources_are_formatted() {
  find . -path ./build -prune -o \( -name '*.h' -o -name '*.cpp' \) -print0 |
    xargs -0 clang-format --dry-run --Werror
}

# Takes five minutes on two cores. Tests, benches and fuzzers would add three times as much.
linter_is_content() {
  cmake --preset release -DBUILD_TESTING=ON >/dev/null &&
    find driver packet host examples -name '*.cpp' -print0 |
    xargs -0 -n1 -P2 clang-tidy --quiet -p build/release 2> >(grep -v ' warnings\? generated' >&2)
}

# Sums up ctest's report of a run: "passed N", "failed NAME" and "skipped NAME: REASON".
read_report() {
  awk '
    function attribute(name,  value) {
      value = $0
      if (!sub(".*[ ]" name "=\"", "", value)) return ""
      sub("\".*", "", value)
      return value
    }
    /<testcase / { test = attribute("name"); status = attribute("status"); reason = ""; lines = 0 }
    # A skipped test prints "FILE:LINE: Skipped", then the reason.
    /: Skipped$/ { lines = 1; next }
    lines == 1 { reason = $0; lines = 0 }
    /<\/testcase>/ {
      if (status == "run") ++passed
      else if (status == "fail") print "failed", test
      else print "skipped", test ": " (reason == "" ? "no reason given" : reason)
    }
    END { print "passed", passed + 0 }' "$1" |
    sed 's/&lt;/</g; s/&gt;/>/g; s/&quot;/"/g; s/&apos;/'"'"'/g; s/&amp;/\&/g'
}

run_tests() {
  local preset=$1; shift
  local report=$scratch/$preset.xml status=0
  step "Testing ($preset)"
  # Most tests wait more than they compute, so there are two for each processor.
  ctest --test-dir "build/$preset" -j$((2 * $(nproc))) --output-on-failure --no-tests=ignore \
    --output-junit "$report" "$@" ${filter[@]+"${filter[@]}"} 2>&1 |
    show_progress "$scratch/$preset.log" || status=$?
  local kind rest before=$failed
  while read -r kind rest; do
    case $kind in
      passed) passed=$((passed + rest)) ;;
      failed) failed=$((failed + 1)); failures+=("$preset: $rest") ;;
      skipped) skipped=$((skipped + 1)); skips+=("$preset: $rest") ;;
    esac
  done < <(read_report "$report")
  if [[ $status -ne 0 && $failed -eq $before ]]; then
    failed=$((failed + 1)); failures+=("$preset: ctest ended with status $status")
  fi
  # Print only what concerns failed tests.
  if [[ $failed -ne $before ]]; then
    grep -v -E '^ *(Start +[0-9]+:|[0-9]+/[0-9]+ Test .*( Passed|\*\*\*Skipped) )' \
      "$scratch/$preset.log" || true
  fi
}

fuzzers_find_nothing() { fuzz/run.sh "$fuzz_seconds"; }

if [[ ${#filter[@]} -eq 0 && ${presets[*]} == release ]]; then
  echo "Builds and runs the tests of the optimised build, which takes ten minutes on two processors."
  echo "--all adds the sanitizers; --ci adds the linter and the fuzzers, too."
fi
scripts/install-packages.sh build test package
[[ ${presets[*]} != coverage ]] || scripts/install-packages.sh fuzz  # clang and its tools

for preset in "${presets[@]}"; do
  step "Building ($preset)"
  cmake --preset "$preset" -DBUILD_TESTING=ON \
    -DCMAKE_COMPILE_WARNING_AS_ERROR="$strict" >"$scratch/configure.log" 2>&1 ||
    { cat "$scratch/configure.log"; exit 1; }
  cmake --build --preset "$preset" -j"$(nproc)" 2>&1 | show_progress "$scratch/build.log" ||
    { cat "$scratch/build.log"; exit 1; }
  case $preset in
    # Under the sanitizers, the mount's tests run with disk and mount in one process. Only those
    # that exercise the line most run over a line, too: the others would send the same packets
    # through the same code. Pacing is measured in the optimised build only; its code runs in the
    # unit tests, too.
    asan) run_tests "$preset" -LE 'line-release|pacing' ;;
    # The slow tests of a mount copy whole trees. They show no races that the other tests miss.
    tsan) run_tests "$preset" -LE 'system-slow|line-release|pacing' ;;
    # The slow tests, and those that only the optimised build runs over a line, repeat what other
    # tests do, with more data or over a line. Those of pacing measure times, and those of what is
    # installed look at built files.
    coverage)
      rm -rf build/coverage/counters
      run_tests "$preset" -LE 'slow|line-release|pacing|install'
      # A part of the tests, or tests that fail, say nothing about all.
      if [[ ${#filter[@]} -eq 0 && $failed -eq 0 ]]; then
        check "enough lines run" scripts/coverage.sh --write
      fi
      ;;
    *) run_tests "$preset" ;;
  esac
done

if [[ ${#filter[@]} -eq 0 && ${#presets[@]} -gt 0 ]]; then
  step "Checking the sources' format"
  check "the sources are formatted" sources_are_formatted
fi

if $lints; then
  step "Running the linter"
  check "the linter finds nothing" linter_is_content
fi

if [[ $fuzz_seconds -gt 0 ]]; then
  step "Fuzzing, $fuzz_seconds seconds each"
  if scripts/install-packages.sh fuzz; then
    check "the fuzzers find nothing" fuzzers_find_nothing
  else
    skipped=$((skipped + 1)); skips+=("the fuzzers: no clang")
  fi
fi

step "Done"
[[ ${#skips[@]} -eq 0 ]] || printf 'skipped: %s\n' "${skips[@]}"
[[ ${#failures[@]} -eq 0 ]] || printf 'FAILED: %s\n' "${failures[@]}"
echo "$passed passed, $failed failed, $skipped skipped"
[[ $failed -eq 0 && $((passed + skipped)) -gt 0 ]]
