#!/usr/bin/env bash
# Measures, and draws the plots of docs/performance.md.
#
#   bench/plots.sh [PLOT...]          by default all of them
#   bench/plots.sh --draw [PLOT...]   draws again what was measured last
#
# Plots: pace ratios near far entries files disks. The measured data go to build/plots/PLOT.tsv, the
# plot to docs/plots/PLOT.svg. "ratios" shows what bench/run.sh has written into the document. Needs
# gnuplot; without sshfs or bindfs, "near" and "far" lack their points.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/usage.sh"
cd "$(dirname "${BASH_SOURCE[0]}")/.."
export LC_ALL=C.UTF-8 # so that equal data make equal files everywhere

# PLOT|style|x axis|y axis|further settings of gnuplot
table="pace|steps|time, s|Mbit/s|set yrange [0:100]
ratios|dots|rate / rate of the bare calls||set xtics 0.2
near|dots|rate / rate of cpd-host||set logscale x
far|lines|round trip, ms||set logscale y
entries|lines|entries of the directory|µs per entry|set logscale x; set yrange [0:]
files|lines|files in the directory|µs per file|set logscale x; set yrange [0:]
disks|lines|disks, each with 1 request outstanding|µs per request|set logscale x 2; set yrange [0:]"

bin=build/release/bin

# ---- Measuring ----
# measure_PLOT prints PANEL, SERIES, X and Y, with tabs between them. For dots, PANEL is the name of
# a row of the plot, Y is its number, and the lowest and the highest X follow.

# The cells of Markdown tables, with tabs between them.
cells() { sed -n '/^|--/d; s/^| *\(.*[^ ]\) *|$/\1/; T; s/ *| */\t/g; s/\*\*//g; p'; }

measure_pace() {
  local legacy panels=('token bucket' 'legacy, by periods')
  for legacy in 1 0; do
    TESSEL_CPD_CLIENT_THROTTLE_LEGACY=$legacy "$bin/udisk_bench" --pace | cells |
      awk -F '\t' -v OFS='\t' -v panel="${panels[legacy]}" '
        NR > 1 { print panel, "read", $1, $3 / 1000; print panel, "announced", $1, $2 / 1000 }'
  done
}

measure_ratios() {
  sed -n '/^### Against the limit/,/^### What the acc/p' docs/performance.md | cells |
    awk -F '\t' -v OFS='\t' '/outstanding|bare walk/ {
      split($5, range, "–"); print $1, "median and range", $4, -++row, range[1], range[2]
      bound = $6; sub(/.* /, "", bound); print $1, "bound", bound, -row, bound, bound }'
}

# Reads a table of compare in mounts.sh, and prints ROW, SYSTEM, RATE, UNIT and the rate of
# cpd-host. In the table cpd-host is the last system; of each row, it is printed first.
compared() {
  cells | awk -F '\t' -v OFS='\t' '
    NR == 1 { for (n = 2; $n != "unit"; ++n) name[n] = $n == "ours" ? "cpd-host" : $n; next }
    { for (k = 1; k < n - 1; ++k) {
        i = k == 1 ? n - 1 : k
        if ($i != "-") print $1, name[i], $i, $n, $(n - 1) } }'
}
measure_near() {
  bench/mount.sh | compared | awk -F '\t' -v OFS='\t' '
    $1 != last { last = $1; ++row }
    $5 != "-" { print $1, $2, $3 / $5, -row, $3 / $5, $3 / $5 }'
}
measure_far() {
  local round_trip
  for round_trip in 0 20 50 100 200; do
    bench/far.sh -t "$round_trip" find read write edit | compared |
      awk -F '\t' -v OFS='\t' -v x="$round_trip" '{ print $1 ", " $4, $2, x, $3 }'
  done
}

# Runs the loads of udisk_bench whose names match, and prints NAME, the number at its end, and µs.
loads() {
  "$bin/udisk_bench" --benchmark_filter="$1" --benchmark_format=csv 2>/dev/null |
    awk -F, -v OFS='\t' 'sub(/\/manual_time"$/, "", $1) {
      n = split($1, name, /["\/:]/); print name[2], name[n], 1e6 / $7 }'
}
measure_entries() {
  loads '^(bare_walk|dir_read|check_dir)/' | awk -v OFS='\t' '{ print "", $1, $2, $3 / $2 }'
}
measure_disks() { loads '/disks:' | awk -v OFS='\t' '{ print "", $1 " of 4 KiB", $2, $3 }'; }
measure_files() {
  { "$bin/udisk_mount_bench" --files || [[ $? -eq 1 ]]; } | cells | # 1: a ratio is out of its bound
    awk -F '\t' -v OFS='\t' 'NR > 1 { print "", "one by one", $1 + 0, 1e6 / $2
                                      print "", "read ahead", $1 + 0, 1e6 / $3 }'
}

# ---- Drawing ----

# The different values of a column, in their order.
distinct() { cut -f "$2" "$1" | awk '!seen[$0]++'; }

# Prints a plot command for a file of data: all of it as dots, or one panel in another style.
#   plot_command DATA STYLE [PANEL]
plot_command() {
  local series items=() which
  while read -r series; do
    which="strcol(2) eq '$series' && ('$2' eq 'dots' || strcol(1) eq '${3:-}')"
    items+=("'$1' using ($which ? \$3 : NaN):4$(
      case $2/$series in
        dots/*) echo ':5:6:ytic(1) with xerrorbars pt 7 lw 2' ;;
        steps/announced) echo ' with steps lw 2' ;;
        steps/*) echo ' with fillsteps fillstyle solid 0.4' ;;
        *) echo ' with linespoints pt 7 lw 2' ;;
      esac) title '$series'")
  done < <(distinct "$1" 2)
  local IFS=,
  echo "plot ${items[*]}"
}

# draw PLOT STYLE X_AXIS Y_AXIS SETTINGS
draw() {
  local data=build/plots/$1.tsv panels panel columns=1 width=720 height=320
  mapfile -t panels < <(distinct "$data" 1)
  if [[ $2 == dots ]]; then
    height=$((100 + 24 * ${#panels[@]}))
    panels=('')
  elif [[ ${#panels[@]} -gt 1 ]]; then
    columns=2
    height=$((280 * ((${#panels[@]} + 1) / 2)))
  fi
  {
    cat <<SETTINGS
set terminal svg size $width,$height noenhanced font 'sans-serif,12' background 'white'
set output 'docs/plots/$1.svg'
set datafile separator "\t"
set datafile missing NaN
set colorsequence podo
set pointsize 0.6
set grid
set key tmargin right horizontal
set xlabel '$3'
set ylabel '$4'
SETTINGS
    [[ $2 != dots ]] || cat <<'SETTINGS'
set errorbars 0
set offsets 0, 0, 0.7, 0.7
set arrow from 1, graph 0 to 1, graph 1 nohead
SETTINGS
    echo "$5"
    [[ $columns == 1 ]] || echo "set multiplot layout $(((${#panels[@]} + 1) / 2)), $columns"
    for panel in "${panels[@]}"; do
      echo "set title '$panel'"
      plot_command "$data" "$2" "$panel"
    done
  } | gnuplot
  echo "docs/plots/$1.svg"
}

measures=true
case ${1:-} in
  --draw) measures=false; shift ;;
  -*) usage >&2; exit 2 ;;
esac
mapfile -t plots < <(cut -d '|' -f 1 <<<"$table")
for name in "$@"; do
  [[ " ${plots[*]} " == *" $name "* ]] || { usage >&2; exit 2; }
done
[[ $# -eq 0 ]] || plots=("$@")
if ! command -v gnuplot >/dev/null; then
  echo "gnuplot is missing. On Debian, install the package gnuplot-nox." >&2
  exit 1
fi
mkdir -p build/plots docs/plots
if $measures; then
  scripts/install-packages.sh build test
  cmake --preset release -DBUILD_TESTING=ON >/dev/null
  cmake --build --preset release -j2 --target udisk_bench udisk_mount_bench >/dev/null
fi
for name in "${plots[@]}"; do
  if $measures; then
    "measure_$name" >"build/plots/$name.new"
    mv "build/plots/$name.new" "build/plots/$name.tsv"
  fi
  if [[ ! -s build/plots/$name.tsv ]]; then
    echo "$name is not drawn: there are no data." >&2
    continue
  fi
  IFS='|' read -r name style x y settings < <(grep "^$name|" <<<"$table")
  draw "$name" "$style" "$x" "$y" "$settings"
done
