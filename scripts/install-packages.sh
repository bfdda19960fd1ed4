#!/usr/bin/env bash
# Installs the Debian packages that are still missing:
#   scripts/install-packages.sh build|test|fuzz|package ...
# If nothing is missing, it uses neither the network nor the package lists.
set -euo pipefail

build=(
  g++ cmake ninja-build pkg-config
  libglib2.0-dev libjsoncpp-dev # the module
  libfuse3-dev fuse3 libcli11-dev libfmt-dev libseccomp-dev libudev-dev # the host
)
test=(
  libgtest-dev libbenchmark-dev libumockdev-dev librapidcheck-dev umockdev
  clang-format clang-tidy
  # programs that the tests run
  bash-completion dash dosfstools e2fsprogs fio git groff-base mount ntfs-3g openssh-client openssh-server python3-minimal rsync sqlite3 tar tshark util-linux
  strace # the benches
)
fuzz=(clang libclang-rt-dev llvm)
package=(dpkg-dev file) # to make Debian packages

wanted=()
for list in "$@"; do
  case $list in
    build) wanted+=("${build[@]}") ;;
    test) wanted+=("${test[@]}") ;;
    fuzz) wanted+=("${fuzz[@]}") ;;
    package) wanted+=("${package[@]}") ;;
    *) echo "usage: $0 build|test|fuzz|package ..." >&2; exit 2 ;;
  esac
done

if ! command -v dpkg-query >/dev/null; then
  echo "Not a Debian system: please install the equivalents of: ${wanted[*]}" >&2
  exit 0
fi

missing=()
for package in "${wanted[@]}"; do
  status=$(dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null || true)
  # A package may be installed for several architectures, with one line for each.
  [[ $'\n'$status$'\n' == *$'\ninstalled\n'* ]] || missing+=("$package")
done
[[ ${#missing[@]} -gt 0 ]] || exit 0

as_root=(env DEBIAN_FRONTEND=noninteractive)
if [[ $(id -u) -ne 0 ]]; then
  if ! command -v sudo >/dev/null; then
    echo "Packages are missing, and so is sudo. As root, run: apt-get install ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo "${as_root[@]}")
fi
echo "==> Installing missing Debian packages: ${missing[*]}"
apt=("${as_root[@]}" apt-get -q -o DPkg::Lock::Timeout=300)
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { "${apt[@]}" update && "${apt[@]}" install -y --no-install-recommends "${missing[@]}"; } \
    >"$log" 2>&1 </dev/null; then
  tail -n 20 "$log" >&2
  echo "The packages could not be installed." >&2
  exit 1
fi
