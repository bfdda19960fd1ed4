#!/usr/bin/env bash
# Compares a mount on one machine to sshfs and bindfs, and prints a table.
#
#   bench/mount.sh [ROW...]
#
# The disk is on the file system for temporary files: set TMPDIR to a tmpfs to leave out the speed
# of a disk. Every measurement has a fresh mount. Rows:
#   read random random-8 write random-write find list tar create unlink untar copy
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/usage.sh"
source "$(dirname "${BASH_SOURCE[0]}")/mounts.sh"

case ${1:-} in -*) usage >&2; exit 2 ;; esac
rows=("$@")
[[ $# -gt 0 ]] ||
  rows=(read random random-8 write random-write find list tar create unlink untar copy)

prepare_mounts "" fio sshfs openssh-sftp-server bindfs
near_sftp=$work/near-sftp
printf '#!/bin/sh\nexec %s\n' "$sftp_server" >"$near_sftp"
chmod +x "$near_sftp"

mount_sshfs() { sshfs -f -o ssh_command="$near_sftp" "localhost:$disk" "$mount"; }
mount_bindfs() { bindfs -f "$disk" "$mount"; }
mount_ours() { "$bin/cpd-host" mount "$disk" "$mount"; }

make_tree "$disk/tree" 100 100
make_tree "$work/source" 20 50
make_tree "$work/many" 1 1000
tar -cf "$work/source.tar" -C "$work" source
head -c 256M /dev/urandom >"$disk/big"
mkdir "$disk/flat"
(cd "$disk/flat" && seq 10000 | xargs touch)

# Runs one load, and notes how long it took without the start and the end of fio itself.
load() {
  fio --name=load --minimal --terse-version=3 --ioengine=psync --thread --group_reporting \
    --invalidate=0 --randrepeat=1 "$@" | tail -n 1 >"$result"
  # Of the two run times in milliseconds, one is 0.
  awk -F ';' '{ print ($9 + $50) / 1000 }' "$result" >"$seconds"
}

prepare() {
  rm -rf "$disk/out"
  mkdir "$disk/out"
  case $1 in
    unlink) cp "$work"/many/d00/* "$disk/out/" ;;
    random-write) head -c 256M /dev/zero >"$disk/out/big" ;;
  esac
}
before() { :; }
work() {
  case $1 in
    read) dd if="$mount/big" bs=1M of=/dev/null 2>"$result" ;;
    random) load --filename="$mount/big" --rw=randread --bs=4k --size=256M --number_ios=20000 ;;
    random-8)
      load --filename="$mount/big" --rw=randread --bs=4k --size=32M --offset_increment=32M \
        --numjobs=8 --number_ios=5000
      ;;
    write) dd if="$disk/big" of="$mount/out/big" bs=1M conv=fsync 2>/dev/null ;;
    random-write)
      load --filename="$mount/out/big" --rw=randwrite --bs=4k --size=256M --number_ios=10000 \
        --end_fsync=1
      ;;
    find) find "$mount/tree" -type f -printf '%s %T@\n' | wc -l >"$result" ;;
    list) ls -l "$mount/flat" | wc -l >"$result" ;;
    tar) tar -cf - -C "$mount" tree | wc -c >"$result" ;;
    create) cp "$work"/many/d00/* "$mount/out/" ;;
    unlink) rm "$mount"/out/* ;;
    untar) tar -xf "$work/source.tar" -C "$mount/out" ;;
    copy) cp -r "$work/source" "$mount/out/" ;;
  esac
}
check() {
  case $1 in
    read) [[ $(<"$result") == 256+0* ]] ;; # complete blocks
    random | random-8 | random-write) [[ $(<"$result") == 3\;* ]] ;;
    write) cmp -s "$disk/big" "$disk/out/big" ;;
    find) [[ $(<"$result") == 10000 ]] ;;
    list) [[ $(<"$result") == 10001 ]] ;;
    tar) [[ $(<"$result") -gt 40960000 ]] ;;
    create) diff -r "$work/many/d00" "$disk/out" ;;
    unlink) [[ -z $(ls "$disk/out") ]] ;;
    untar | copy) diff -r "$work/source" "$disk/out/source" ;;
  esac
}

unit() { case $1 in read | write) echo MB/s ;; random*) echo IOPS ;; find | list) echo entries/s ;; *) echo files/s ;; esac }
amount() { case $1 in read | write) echo 268.4 ;; random) echo 20000 ;; random-8) echo 40000 ;; random-write | find | list | tar) echo 10000 ;; *) echo 1000 ;; esac }
bound() {
  case $1 in
    random-write) echo '3 x bindfs' ;; read | random*) echo '1 x bindfs' ;; write) echo '2 x bindfs' ;; find) echo '10 x bindfs' ;;
    list) echo '10 x sshfs' ;; tar) echo '6 x bindfs' ;; unlink) echo '1.2 x best' ;;
    *) echo '1.5 x best' ;;
  esac
}

compare sshfs bindfs ours
