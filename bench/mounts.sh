# For far.sh and mount.sh to source: a disk to mount, fresh mounts of it, and a table of rates.
#
# A script defines mount_SYSTEM, which serves $disk at $mount until it is unmounted, and for each of
# its rows prepare, before, work (which alone is measured), check, unit, amount and bound.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bin=$root/build/release/bin

# Builds cpd-host and the given targets, makes $disk and $mount in the directory for temporary files
# (TMPDIR), and notes which of the packages are missing.
#   prepare_mounts "TARGET..." PACKAGE...
prepare_mounts() {
  local targets=$1
  shift
  "$root/scripts/install-packages.sh" build test
  (cd "$root" && cmake --preset release -DBUILD_TESTING=ON) >/dev/null
  cmake --build "$root/build/release" -j2 --target cpd-host udisk-redir $targets >/dev/null
  missing=()
  for package in "$@"; do
    [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] ||
      missing+=("$package")
  done
  sftp_server=$(dpkg -L openssh-sftp-server 2>/dev/null | grep '/sftp-server$' | head -n 1 || true)
  work=$(mktemp -d)
  disk=$work/disk
  mount=$work/mount
  result=$work/result
  seconds=$work/seconds # how long the work took, if it has measured that itself
  mkdir "$disk" "$mount"
  trap 'unmount; rm -rf "$work"' EXIT
}

# Makes directories in a place, each with that many files of 4 KiB: d00/f000 and so on.
#   make_tree PLACE DIRECTORIES FILES
make_tree() {
  local directory
  for directory in $(seq -f %02g 0 $(($2 - 1))); do
    mkdir -p "$1/d$directory"
    head -c $(($3 * 3024)) /dev/urandom | base64 -w 63 | split -a 3 -d -b 4096 - "$1/d$directory/f"
  done
}

server=
unmount() {
  [[ -n $server ]] || return 0
  local try
  for try in {1..50}; do
    fusermount3 -qu "$mount" && break
    mountpoint -q "$mount" || break
    sleep 0.1
  done
  wait "$server" || true
  server=
}

# Prints the rate of one row on one system, or "-" if it failed.
measure() {
  local system=$1 row=$2 begin end try
  prepare "$row"
  : >"$result"
  rm -f "$seconds"
  "mount_$system" >"$work/log" 2>&1 &
  server=$!
  for try in {1..100}; do
    if mountpoint -q "$mount"; then break; fi
    sleep 0.05
  done
  before "$row" >/dev/null
  begin=$EPOCHREALTIME
  work "$row" >"$work/output" 2>&1 || echo failed >"$result"
  end=$EPOCHREALTIME
  unmount
  if ! check "$row" >/dev/null 2>&1; then
    echo -
    return
  fi
  [[ -e $seconds ]] || awk -v begin="$begin" -v end="$end" 'BEGIN { print end - begin }' >"$seconds"
  awk -v amount="$(amount "$row")" -v unit="$(unit "$row")" \
    '{ printf "%.4g\n", unit == "s" ? $1 : amount / $1 }' "$seconds"
}

# Prints a table of the rows, with the systems in columns. The last system is the one that must
# reach the bound: "N x SYSTEM" (N times its rate), "N line" (N times $rate Mbit/s) or "N s" (N
# seconds at most).
compare() {
  local systems=() system row values bases last=${!#}
  for system in "$@"; do
    if [[ $system != "$last" && " ${missing[*]} " == *" $system "* ]]; then
      echo "Without $system: the package is not installed." >&2
    else
      systems+=("$system")
    fi
  done
  printf '| what |'; printf ' %s |' "${systems[@]}"; echo ' unit | to reach | ratio | |'
  printf '|---|'; printf -- '--:|%.0s' "${systems[@]}"; echo '---|---|--:|---|'
  for row in "${rows[@]}"; do
    values=()
    for system in "${systems[@]}"; do
      measure "$system" "$row" >"$work/value"
      values+=("$(<"$work/value")")
    done
    bases=$(paste -d= <(printf '%s\n' "${systems[@]}") <(printf '%s\n' "${values[@]}"))
    printf '| %s |' "$row"; printf ' %s |' "${values[@]}"
    awk -v unit="$(unit "$row")" -v bound="$(bound "$row")" -v rate="${rate:-0}" \
      -v ours="${values[-1]}" -v bases="$bases" 'BEGIN {
        n = split(bases, pairs, "\n")
        for (i = 1; i <= n; ++i) { split(pairs[i], p, "="); value[p[1]] = p[2] }
        split(bound, want, " ")
        # "best" is the faster of the other systems.
        for (i = 1; i < n; ++i) { split(pairs[i], p, "="); if (p[2] + 0 > value["best"]) value["best"] = p[2] }
        base = want[2] == "line" ? rate / 8 : want[2] == "s" ? 1 : value[want[3]]
        if (ours + 0 == 0 || base + 0 == 0) { printf " %s | %s | - | |\n", unit, bound; exit }
        ratio = ours / base
        holds = want[2] == "s" ? ratio <= want[1] : ratio >= want[1]
        printf " %s | %s | **%.2f** | %s |\n", unit, bound, ratio, holds ? "ok" : "missed"
      }'
  done
}
