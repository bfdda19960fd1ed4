#!/usr/bin/env bash
# Installs a build to an empty place, and builds and runs the example there.
#   install_test.sh BUILD SOURCE COMPILER
set -euo pipefail
build=$1 source=$2 compiler=$3

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

fail() { printf '%s\n' "$*" >&2; exit 1; }
# Runs a command; prints its output only if it fails.
quietly() { "$@" >"$scratch/log" 2>&1 || { cat "$scratch/log" >&2; fail "failed: $*"; }; }

# An installed tree may be moved.
quietly cmake --install "$build" --prefix "$scratch/staged"
mv "$scratch/staged" "$scratch/prefix"
prefix=$scratch/prefix
example=$prefix/share/doc/libcpd-udisk-dev/examples/minimal-host

mkdir "$scratch/DISK"
head -c 200000 /dev/urandom >"$scratch/DISK/a file"
prints_the_file() {
  "$@" >"$scratch/printed" 2>"$scratch/errors" || { cat "$scratch/errors" >&2; fail "failed: $*"; }
  cmp "$scratch/DISK/a file" "$scratch/printed"
}

# By CMake's package
quietly cmake -G Ninja -S "$example" -B "$scratch/by-cmake" -DCMAKE_CXX_COMPILER="$compiler" \
  -DCMAKE_PREFIX_PATH="$prefix"
quietly cmake --build "$scratch/by-cmake"
prints_the_file "$scratch/by-cmake/minimal-host" "$scratch/DISK" 'a file'
ninja -C "$scratch/by-cmake" -t deps >"$scratch/deps"
grep -q "$prefix/include/cpd/packet.h" "$scratch/deps" || fail "built with other headers"
! grep -F "$source/" "$scratch/deps" || fail "built with files of the source tree"

# By pkg-config
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name cpd-udisk.pc)")
export PKG_CONFIG_PATH
read -ra flags < <(pkg-config --cflags --libs cpd-udisk)
quietly "$compiler" -std=c++20 -rdynamic \
  "-DCPD_UDISK_MODULE=\"$(pkg-config --variable=module cpd-udisk)\"" \
  "$example/main.cpp" "${flags[@]}" -o "$scratch/by-pkg-config"
prints_the_file "$scratch/by-pkg-config" "$scratch/DISK" 'a file'

# The program finds the installed module. It cannot be the build's module, which is elsewhere.
prints_the_file "$prefix/bin/cpd-host" cat "$scratch/DISK" 'a file'

unit=$prefix/lib/systemd/system/cpd-host-usb@.service
grep -q "^ExecStart=$scratch/staged/bin/cpd-host redirect " "$unit" || fail "wrong path in $unit"
for file in man/man1/cpd-host.1 bash-completion/completions/cpd-host; do
  [[ -s $prefix/share/$file ]] || fail "no $file"
done

# The installed dissector shows what the installed program records.
"$prefix/bin/cpd-host" cat "$scratch/DISK" 'a file' --record "$scratch/capture" >/dev/null
cmp "$source/tools/cpd.lua" "$prefix/share/cpd-host/cpd.lua"
if command -v tshark >/dev/null; then
  tshark -X "lua_script:$prefix/share/cpd-host/cpd.lua" -r "$scratch/capture" \
    >"$scratch/shown" 2>"$scratch/errors" || { cat "$scratch/errors" >&2; fail "tshark failed"; }
  grep -q ' file_read ' "$scratch/shown" || { cat "$scratch/shown" >&2; fail "no file_read shown"; }
fi
