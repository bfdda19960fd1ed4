#!/usr/bin/env bash
# Reads from built files whether they are hardened: programs, modules, objects and archives of them.
#   hardening_test.sh PROCESSOR COMPILER FILE...
set -euo pipefail
export LC_ALL=C
processor=$1 compiler=$2; shift 2
failed=false

# want FILE WHAT TEXT PATTERN: the text has the pattern
want() { grep -qE "$4" <<<"$3" || { echo "$1: no $2" >&2; failed=true; }; }
# reject FILE WHAT TEXT PATTERN: the text does not have it
reject() { ! grep -E "$4" <<<"$3" >&2 || { echo "$1: $2" >&2; failed=true; }; }

check_linked() {
  local file=$1 head symbols producers
  head=$(readelf -W --file-header --segments --dynamic "$file")
  want "$file" "segment that is read-only once it is relocated" "$head" '^ +GNU_RELRO '
  want "$file" "binding of all symbols at the start" "$head" '\(FLAGS\) +BIND_NOW'
  want "$file" "stack without code" "$head" '^ +GNU_STACK .* RW  '
  reject "$file" "a segment may be written and run" "$head" '^ +[A-Z_]+ +0x.* RWE '
  reject "$file" "code is relocated" "$head" '\(TEXTREL\)'
  [[ $file == *.so ]] || want "$file" "random address" "$head" '\(FLAGS_1\).* PIE'

  symbols=$(readelf -W --dyn-syms "$file")
  want "$file" "stack protector" "$symbols" ' __stack_chk_fail@'
  want "$file" "checked call of the C library" "$symbols" ' __[a-z0-9_]+_chk@'
  want "$file" "assertion of the C++ library" "$symbols" 'glibcxx_assert_fail'

  producers=$(readelf --string-dump=.debug_str "$file" 2>/dev/null |
    grep -E 'GNU C(\+\+)?[0-9]+ ' || true)
  if [[ -n $producers ]]; then
    check_producers "$file" "$producers"
  else
    echo "$file: whether all of it has a stack protector, and protection against stack clashes," \
      "is not known: it does not say how it was compiled"
  fi
  [[ $processor != x86_64 ]] || check_note "$file"
}

check_producers() {
  local flag without
  for flag in -fstack-protector-strong -fstack-clash-protection; do
    without=$(grep -v -e " $flag" <<<"$2" || true)
    [[ -z $without ]] && continue
    printf '%s: compiled without %s: %s\n' "$1" "$flag" "$without" >&2
    failed=true
  done
}

# All objects of a file must have this note, or the linker leaves it out.
flow_note='x86 feature: IBT, SHSTK'
has_flow_note() { grep -q "$flow_note" <<<"$(readelf -W --notes "$1")"; }
check_note() {
  ! has_flow_note "$1" || return 0
  local object without=()
  for object in crt1.o crti.o crtbeginS.o crtendS.o crtn.o; do
    has_flow_note "$("$compiler" -print-file-name=$object)" || without+=("$object")
  done
  if [[ ${#without[@]} -gt 0 ]]; then
    echo "$1: control-flow protection is not noted, since the tool chain's own objects lack the" \
      "note: ${without[*]}"
  else
    echo "$1: control-flow protection is not noted" >&2
    failed=true
  fi
}

# Every object asks for a stack without code. On x86, each also says that its jumps and returns can
# be checked.
check_objects() {
  local file=$1 objects=1
  [[ $file != *.a ]] || objects=$(ar t "$file" | wc -l)
  [[ $objects -gt 0 ]] || { echo "$file: empty" >&2; failed=true; }
  count "$file" "section that asks for a stack without code" "$objects" \
    "$(readelf -W --section-headers "$file")" '\.note\.GNU-stack +PROGBITS +0+ [0-9a-f]+ 0+ 00 +0 '
  [[ $processor != x86_64 ]] || count "$file" "control-flow protection" "$objects" \
    "$(readelf -W --notes "$file")" "$flow_note"
}
# count FILE WHAT NUMBER TEXT PATTERN: the pattern is in so many lines
count() {
  local found
  found=$(grep -cE "$5" <<<"$4" || true)
  [[ $found -eq $3 ]] || { echo "$1: $2: in $found of $3 objects" >&2; failed=true; }
}

for file in "$@"; do
  case $file in
    *.a | *.o) check_objects "$file" ;;
    *) check_linked "$file" ;;
  esac
done
! $failed
