#!/usr/bin/env bash
# Builds the module, the packet library and a piece of the host in two folders, and compares them.
# The whole host would take minutes.
#   reproducible_test.sh SOURCE COMPILER BUILD_TYPE
set -euo pipefail
source=$1 compiler=$2 type=$3

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
quietly() { "$@" >"$scratch/log" 2>&1 || { cat "$scratch/log" >&2; exit 1; }; }

files=(lib/udisk-redir.so libcpd-packet.a host/CMakeFiles/cpd_host_core.dir/module/module.cpp.o)
folders=("$scratch/one" "$scratch/another/folder")
for folder in "${folders[@]}"; do
  mkdir -p "$folder"
  cp -r "$source"/{CMakeLists.txt,cmake,framework,packet,driver,host} "$folder"
  quietly cmake -G Ninja -S "$folder" -B "$folder/build" -DCMAKE_BUILD_TYPE="$type" \
    -DCMAKE_CXX_COMPILER="$compiler" -DBUILD_TESTING=OFF
  quietly cmake --build "$folder/build" --target "${files[@]}"
done

status=0
for file in "${files[@]}"; do
  cmp "${folders[@]/%//build/$file}" || status=1
done
exit "$status"
