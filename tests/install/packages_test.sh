#!/usr/bin/env bash
# Makes the Debian packages and looks at what is in them.
#   packages_test.sh BUILD VERSION
set -euo pipefail
build=$1 version=$2

for tool in dpkg-deb dpkg-shlibdeps file; do
  command -v "$tool" >/dev/null || {
    printf '%s:%s: Skipped\n%s is not installed\n' "$0" "$LINENO" "$tool"
    exit 77
  }
done

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() { printf '%s\n' "$*" >&2; exit 1; }

# Packages that are not compressed are made faster.
cpack --config "$build/CPackConfig.cmake" -B "$scratch" -D CPACK_DEBIAN_COMPRESSION_TYPE=none \
  >"$scratch/log" 2>&1 || { cat "$scratch/log" >&2; fail "cpack failed"; }

# package NAME: the package that the following checks are about
package() {
  local found=("$scratch/$1_${version}_"*.deb)
  deb=${found[0]}
  [[ -f $deb ]] || fail "no package $1"
  contents=$(dpkg-deb -c "$deb" | awk '{ print $6 }')
}
# has FIELD TEXT...: the field lists each text
has() {
  local field=$1 value text; shift
  value=", $(dpkg-deb -f "$deb" "$field"),"
  for text in "$@"; do
    [[ $value == *", $text"[\ ,]* ]] || fail "$deb: $field has no $text: $value"
  done
}
holds() {
  local path
  for path in "$@"; do
    grep -qxE "\./$path" <<<"$contents" || fail "$deb: no $path in it: $contents"
  done
}

package cpd-udisk
has Depends libc6 libglib2.0-0 libjsoncpp25 libstdc++6
holds 'usr/lib/.*cpd/udisk-redir\.so' usr/share/doc/cpd-udisk/{copyright,changelog.gz}
! grep -E 'cpd-host|\.h$' <<<"$contents" || fail "$deb: files of other packages"

package cpd-host
has Depends "cpd-udisk (= $version)" fuse3 libfuse3-3 libseccomp2 libudev1
has Recommends openssh-client
holds usr/bin/cpd-host usr/lib/systemd/system/cpd-host-usb@.service \
  usr/share/cpd-host/cpd.lua usr/share/doc/cpd-host/{copyright,changelog.gz}
dpkg-deb --fsys-tarfile "$deb" | tar -xO ./usr/lib/systemd/system/cpd-host-usb@.service |
  grep -q '^ExecStart=/usr/bin/cpd-host ' || fail "$deb: wrong path in the unit"

package libcpd-udisk-dev
has Depends "cpd-udisk (= $version)"
holds usr/include/cpd/{device,driver,packet}.h 'usr/lib/.*libcpd-packet\.a' \
  'usr/lib/.*/cpd-udisk-config\.cmake' usr/share/pkgconfig/cpd-udisk.pc \
  usr/share/doc/libcpd-udisk-dev/examples/minimal-host/{CMakeLists.txt,main.cpp}
