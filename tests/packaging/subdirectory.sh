#!/usr/bin/env bash
# Builds and runs a program that takes the library in. The library must add nothing to what that
# program installs; asked to, it installs itself below PREFIX, into directories that are named
# absolutely.
#
#   ./tests/packaging/subdirectory.sh WORK_DIR PREFIX CMAKE_OPTION...
set -euo pipefail

source_dir=$(cd "$(dirname "$0")/../.." && pwd)
work=$1
prefix=$2

rm -rf "$work" "$prefix"
cmake -S "$source_dir/tests/packaging/consumer" -B "$work" -G Ninja "${@:3}" \
  -DORV_SOURCE_DIR="$source_dir" -DCMAKE_INSTALL_PREFIX="$prefix" \
  -DCMAKE_INSTALL_LIBDIR="$prefix/lib" -DCMAKE_INSTALL_INCLUDEDIR="$prefix/include"
cmake --build "$work"
"$work/consumer"

cmake --install "$work"
if [ "$(find "$prefix" -type f -printf '%P\n')" != bin/consumer ]; then
  echo "More is installed than the program" >&2
  exit 1
fi
cmake "$work" -DORV_INSTALL=ON
cmake --build "$work"
cmake --install "$work"
