#!/usr/bin/env bash
# Compares a mount over a long line to sshfs over the same line, and prints a table.
#
#   bench/far.sh [-t ROUND_TRIP_MS] [-b MBIT_PER_S] [ROW...]
#
# Without -t and -b the line has a round trip of 20 ms and 200 Mbit/s. Every measurement has a fresh
# mount, and its result is checked. Rows:
#   find tar grep read write untar copy rsync remove edit status status-again commit
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/usage.sh"
source "$(dirname "${BASH_SOURCE[0]}")/mounts.sh"

round_trip=20
rate=200
while getopts t:b: option; do
  case $option in
    t) round_trip=$OPTARG ;;
    b) rate=$OPTARG ;;
    *) usage >&2; exit 2 ;;
  esac
done
shift $((OPTIND - 1))
rows=("$@")
[[ $# -gt 0 ]] ||
  rows=(find tar grep read write untar copy rsync remove edit status status-again commit)

prepare_mounts udisk_delayed_line git rsync sshfs openssh-sftp-server
line="$bin/udisk_delayed_line $round_trip $rate"
far_sftp="$work/far-sftp"
printf '#!/bin/sh\nexec %s %s\n' "$line" "$sftp_server" >"$far_sftp"
chmod +x "$far_sftp"

mount_sshfs() { sshfs -f -o ssh_command="$far_sftp" "localhost:$disk" "$mount"; }
mount_ours() { "$bin/cpd-host" mount --via "exec $line $bin/cpd-host serve $disk" "$mount"; }

make_tree "$disk/tree" 50 20
make_tree "$work/source" 10 20
tar -cf "$work/source.tar" -C "$work" source
head -c 64M /dev/urandom >"$disk/big"
git init -q "$work/repository"
cp -r "$disk/tree" "$work/repository/"
as_author=(-c user.name=bench -c user.email=bench@localhost)
git -C "$work/repository" add .
git -C "$work/repository" "${as_author[@]}" commit -qm tree

# Each row: what it needs before the mount, the measured work, and a check of the result.
prepare() {
  rm -rf "$disk/out" "$disk/repository"
  mkdir "$disk/out"
  case $1 in
    remove | edit) cp -r "$work/source" "$disk/out/" ;;
    status* | commit)
      cp -a "$work/repository" "$disk/repository"
      git -C "$disk/repository" status >/dev/null # so that its index fits the copies
      ;;
  esac
}
status() { git -C "$mount/repository" status --porcelain; }
before() { if [[ $1 == status-again ]]; then status; fi; }
work() {
  case $1 in
    find) find "$mount/tree" -printf '%s %T@\n' | wc -l >"$result" ;;
    tar) tar -cf - -C "$mount" tree | tar -df - -C "$disk" && echo 1000 >"$result" ;;
    grep) (grep -rc '' "$mount/tree" || true) | wc -l >"$result" ;;
    read) dd if="$mount/big" bs=1M status=none | cmp - "$disk/big" && echo 64 >"$result" ;;
    write) dd if="$disk/big" of="$mount/out/big" bs=1M conv=fsync status=none ;;
    untar) tar -xf "$work/source.tar" -C "$mount/out" ;;
    copy) cp -r "$work/source" "$mount/out/" ;;
    rsync) rsync -rt "$work/source" "$mount/out/" ;;
    remove) rm -r "$mount/out/source" ;;
    edit) for d in {00..09}; do sed -i '1s/^/new /' "$mount/out/source/d$d/f000"; done ;;
    status | status-again) status >"$result" ;;
    commit)
      echo new >"$mount/repository/new"
      git -C "$mount/repository" add new
      git -C "$mount/repository" "${as_author[@]}" commit -qm new
      ;;
  esac
}
check() {
  case $1 in
    find) [[ $(<"$result") == 1051 ]] ;;
    tar | grep) [[ $(<"$result") == 1000 ]] ;;
    read) [[ $(<"$result") == 64 ]] ;;
    write) cmp -s "$disk/big" "$disk/out/big" ;;
    untar | copy | rsync) diff -r "$work/source" "$disk/out/source" ;;
    remove) [[ ! -e $disk/out/source ]] ;;
    edit) [[ $(grep -l '^new ' "$disk"/out/source/d0?/f000 | wc -l) == 10 ]] ;;
    status*) [[ ! -s $result ]] ;;
    commit) [[ $(git -C "$disk/repository" log -1 --format=%s) == new ]] ;;
  esac
}

# What a row counts, and how many of these its work has. A row in seconds only shows its time.
unit() { case $1 in find) echo entries/s ;; read | write) echo MB/s ;; status* | commit) echo s ;; *) echo files/s ;; esac }
amount() { case $1 in find) echo 1051 ;; tar | grep) echo 1000 ;; read | write) echo 67.1 ;; edit) echo 10 ;; *) echo 200 ;; esac }
# What to reach: a factor over sshfs, a share of the line, or seconds.
bound() {
  case $1 in
    find) echo '5 x sshfs' ;; tar | grep) echo '25 x sshfs' ;; untar) echo '9 x sshfs' ;;
    read) if ((rate > 200)); then echo "0.8 line"; else echo "0.9 line"; fi ;; write) echo '0.9 line' ;;
    copy | edit) echo '4 x sshfs' ;; rsync) echo '8 x sshfs' ;; remove) echo '1.1 x sshfs' ;;
    status) echo '3 s' ;; status-again) echo '1.5 s' ;; commit) echo '4 s' ;;
  esac
}

echo "Round trip $round_trip ms, $rate Mbit/s."
echo
compare sshfs ours
