#!/usr/bin/env bash
# Installs the Debian packages with apt into two fresh Debian 12 systems, builds the example in one
# of them, redirects a disk from there to the other, and removes the packages again. If lintian is
# installed, it must find neither an error nor a warning.
#
#   tests/install/fresh_roots.sh [BUILD]     BUILD is build/release by default, and must be built
#
# Needs root, debootstrap and a Debian mirror. Where it cannot run, it says why and exits with 77.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
source scripts/usage.sh
[[ ${1-} != -* ]] || { usage; exit; }
build=$(realpath "${1:-build/release}")

skip() { printf 'skipped: %s\n' "$*" >&2; exit 77; }
fail() { printf 'FAILED: %s\n' "$*" >&2; exit 1; }
step() { printf '==> %s\n' "$*"; }

[[ $(id -u) -eq 0 ]] || skip "not root"
command -v debootstrap >/dev/null || skip "debootstrap is not installed"
# All mounts and processes are in namespaces of their own and end with this script.
if [[ -z ${IN_OWN_NAMESPACES-} ]]; then
  unshare --mount --pid --fork true 2>/dev/null || skip "no namespaces here"
  IN_OWN_NAMESPACES=1 exec unshare --mount --pid --fork --kill-child "$0" "$build"
fi

scratch=$(mktemp -d)
# The roots are removed only when nothing is mounted in them.
clean_up() {
  umount --recursive "$scratch/roots" 2>/dev/null || true
  rm -rf --one-file-system "$scratch"
}
trap clean_up EXIT
mkdir "$scratch/roots"
mount --bind "$scratch/roots" "$scratch/roots" # a mount, so that umount --recursive works on it
client=$scratch/roots/client server=$scratch/roots/server
# Runs a command; prints its output only if it fails.
quietly() { "$@" >"$scratch/log" 2>&1 || { tail -n 30 "$scratch/log" >&2; fail "$*"; }; }

step "Making the packages"
quietly cpack --config "$build/CPackConfig.cmake" -B "$scratch/packages"
packages=("$scratch"/packages/*.deb)
if command -v lintian >/dev/null; then
  quietly lintian --allow-root --fail-on error,warning --display-info "${packages[@]}"
  cat "$scratch/log"
fi

step "Making two fresh systems"
debootstrap --variant=minbase bookworm "$client" >"$scratch/log" 2>&1 ||
  skip "no fresh system can be made: $(tail -n 1 "$scratch/log")"
cp -a "$client" "$server"
for root in "$client" "$server"; do
  mount -t proc proc "$root/proc"
  mount --rbind /dev "$root/dev"
done
traces() { find "$client" "$server" -xdev -path '*/tmp' -prune -o -name '*cpd*' -print; }
traces >"$scratch/before"
apt() { # ROOT ARGUMENTS
  quietly chroot "$1" sh -c \
    "DEBIAN_FRONTEND=noninteractive apt-get -q -y --no-install-recommends $2"
}

step "Installing"
mkdir "$client/packages" "$server/packages"
cp "${packages[@]}" "$client/packages"
cp "$scratch"/packages/cpd-*.deb "$server/packages"
for root in "$client" "$server"; do
  apt "$root" update
  apt "$root" 'install /packages/*.deb'
done

step "Building the example"
apt "$client" 'install g++ cmake make'
mkdir "$client/DISK" "$server/stick"
head -c 3000000 /dev/urandom >"$client/DISK/file"
quietly chroot "$client" cmake -S /usr/share/doc/libcpd-udisk-dev/examples/minimal-host -B /example
quietly chroot "$client" cmake --build /example
chroot "$client" /example/minimal-host /DISK file 2>"$scratch/log" | cmp - "$client/DISK/file"

step "Redirecting a disk from one system to the other"
mkdir "$client/server"
mount --rbind "$server" "$client/server"
chroot "$client" cpd-host redirect /DISK --via 'exec chroot /server cpd-host attach /stick' \
  >"$scratch/redirect" 2>&1 &
redirection=$!
in_server() { chroot "$client/server" "$@"; } # attach mounts below this path, not below $server
for _ in $(seq 100); do
  ! in_server mountpoint -q /stick || break
  sleep 0.1
done
in_server mountpoint -q /stick || { cat "$scratch/redirect" >&2; fail "nothing is mounted"; }
in_server cat /stick/file | cmp - "$client/DISK/file"
in_server cp /stick/file /stick/copy
in_server umount /stick
wait "$redirection" || { cat "$scratch/redirect" >&2; fail "redirect ended with status $?"; }
cmp "$client/DISK/file" "$client/DISK/copy"
umount --recursive "$client/server"

step "Removing the packages"
for root in "$client" "$server"; do
  apt "$root" "purge \$(dpkg-query -W -f '\${Package} ' '*cpd*')"
  rm -r "$root/packages"
done
traces | diff "$scratch/before" - || fail "files are left"

step "Done"
