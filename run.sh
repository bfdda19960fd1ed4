#!/usr/bin/env bash
# Shows the disk redirection at work.
#
#   ./run.sh                               gives a short tour of a sample disk
#   ./run.sh --record FILE                 also records the tour's packets, and replays them; FILE
#                                          is new, and what `serve` records is in FILE.serve
#   ./run.sh DISK MOUNTPOINT [OPTION...]   mounts the directory DISK at MOUNTPOINT until Ctrl-C
#
# Options are those of `cpd-host mount`: build/release/bin/cpd-host mount --help
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$root/scripts/usage.sh"
host=$root/build/release/bin/cpd-host

step() { printf '\n==> %s\n' "$*"; }

set_up_and_build() {
  "$root/scripts/install-packages.sh" build
  step "Building (about a minute the first time)"
  local log
  log=$(mktemp)
  # Tests and benchmarks need more packages, so a new configuration leaves them out. An existing one
  # is not changed.
  if ! { cd "$root" &&
    { [[ -f build/release/build.ninja ]] ||
      cmake --preset release -DBUILD_TESTING=OFF; } &&
    cmake --build --preset release --target cpd-host udisk-redir; } >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    exit 1
  fi
  rm -f "$log"
}

record=
case ${1-} in
  -h | --help) usage; exit ;;
  --record)
    [[ $# -eq 2 ]] || { usage >&2; exit 2; }
    record=$2
    for file in "$record" "$record.serve"; do
      [[ ! -e $file ]] || { printf '%s exists already\n' "$file" >&2; exit 1; }
    done
    ;;
  -*) usage >&2; exit 2 ;;
  '') ;;
  *) (set_up_and_build); exec "$host" mount "$@" ;;
esac

(set_up_and_build)

place=$(mktemp -d)
disk=$place/SAMPLE
recording=(${record:+--record "$record"})
host_pid=

# Stops the host, which unmounts the disk, and waits for it.
unmount() {
  [[ -n $host_pid ]] || return 0
  kill -TERM "$host_pid" 2>/dev/null || true
  local status=0
  wait "$host_pid" || status=$?
  host_pid=
  return "$status"
}

clean_up() {
  unmount || true
  rm -rf "$place"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# mount_sample MOUNTPOINT ARGUMENT...: mounts what the arguments name. Fails if nothing can be
# mounted here.
mount_sample() {
  local mount_point=$1; shift
  mkdir -p "$mount_point"
  "$host" mount "$@" "$mount_point" --name Sample --trace "$place/trace" "${recording[@]}" \
    >"$place/host.out" 2>"$place/host.err" &
  host_pid=$!
  for _ in $(seq 100); do
    mountpoint -q "$mount_point" && return
    kill -0 "$host_pid" 2>/dev/null || break
    sleep 0.1
  done
  unmount || true
  return 1
}

# rate MEBIBYTES COMMAND...: runs a command that reads this much, and prints the rate.
rate() {
  local mib=$1 start=${EPOCHREALTIME/[.,]/} end
  shift
  "$@" >/dev/null
  end=${EPOCHREALTIME/[.,]/}
  local us=$((end - start + 1))
  printf '%s MiB in %d.%02d s: %d kbit/s\n' "$mib" $((us / 1000000)) $((us % 1000000 / 10000)) \
    $((mib * 1048576 * 8000 / us))
}

# read_direct MEBIBYTES FILE: reads past the kernel's cache, 64 KiB per request.
read_direct() {
  dd if="$2" bs=64k count=$(($1 * 16)) iflag=direct status=none
}

show_traces() {
  step "The events that the module reported to its host"
  cat "$place/trace"
}

show_replay() {
  [[ $record ]] || return 0
  step "Replaying $record: the answers are the same"
  "$host" replay "$record" "$disk" --fast
  step "Replaying it after a change of one byte: one answer differs"
  head -c 1 "$disk/clip.mp4" | LC_ALL=C tr '\000-\377' '\001-\377\000' |
    dd of="$disk/clip.mp4" conv=notrunc status=none
  "$host" replay "$record" "$disk" --fast || true
}

step "Making a sample disk: a few files, a subdirectory, a film of 20 MiB"
mkdir -p "$disk/photos"
printf 'Hello from a disk on the client machine.\n' >"$disk/hello.txt"
printf 'milk\nbread\n' >"$disk/shopping list.txt"
for i in 1 2 3; do head -c $((i * 100000)) /dev/urandom >"$disk/photos/photo $i.jpg"; done
head -c $((20 * 1048576)) /dev/urandom >"$disk/film.mp4"
head -c $((4 * 1048576)) "$disk/film.mp4" >"$disk/clip.mp4"
ls "$disk"

tour_by_packets() {
  step "ls: one packet each way lists a directory with all attributes"
  "$host" ls "$disk" --trace "$place/trace" "${recording[@]}"
  step "cat: the file's bytes come from the disk"
  "$host" cat "$disk" hello.txt "${recording[@]}"
  step "df: size and free space of the file system that holds the disk"
  "$host" df "$disk" "${recording[@]}"
  step "Reading at full speed"
  rate 20 "$host" cat "$disk" film.mp4 "${recording[@]}"
  step "Reading at an announced bandwidth of 8000 kbit/s: half a second per request of 1 MiB"
  rate 4 "$host" cat "$disk" clip.mp4 --bandwidth 8000 "${recording[@]}"
  show_traces
  show_replay
  step "Done: everything is removed"
}

step "Mounting it through the module, as a remote session would see it"
if [[ ! -r /dev/fuse || ! -w /dev/fuse ]]; then
  echo "/dev/fuse is missing or not usable, so nothing can be mounted."
  tour_by_packets
  exit
elif ! mount_sample "$place/remote" "$disk"; then
  echo "Nothing can be mounted here: $(cat "$place/host.err")"
  tour_by_packets
  exit
fi
remote=$place/remote
echo "$disk is mounted at $remote"

step "ls -l: one request lists a directory with all attributes"
ls -l "$remote" "$remote/photos"

step "cat: the file's bytes come from the disk"
cat "$remote/hello.txt"

step "df: size and free space of the file system that holds the disk"
df -h "$remote"

step "Reading at full speed"
rate 20 read_direct 20 "$remote/film.mp4"

step "Unmounting; the host prints its table of requests"
unmount
cat "$place/host.out"
show_traces

step "Mounting again with an announced bandwidth of 8000 kbit/s, and reading"
mount_sample "$remote" "$disk" --bandwidth 8000 || { cat "$place/host.err" >&2; exit 1; }
rate 4 read_direct 4 "$remote/clip.mp4"
unmount

step "Mounting over a line: another process serves the disk, as \`serve\` on another machine would"
mount_sample "$remote" --via "exec '$host' serve '$disk'${record:+ --record ${record@Q}.serve}" ||
  { cat "$place/host.err" >&2; exit 1; }
cat "$remote/hello.txt"
rate 20 read_direct 20 "$remote/film.mp4"
unmount
cat "$place/host.out"
show_replay

step "Done: everything is unmounted and removed"
