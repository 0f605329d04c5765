#!/usr/bin/env bash
# Installs a build and moves what was installed to PREFIX. No file that people read may name a
# directory of this machine, and a library looks for its own kind only beside itself.
#
#   ./tests/packaging/install.sh BUILD_DIR PREFIX
set -euo pipefail

build=$1
prefix=$2
source_dir=$(cd "$(dirname "$0")/../.." && pwd)

rm -rf "$prefix" "$prefix.staged"
cmake --install "$build" --prefix "$prefix.staged" >/dev/null
mv "$prefix.staged" "$prefix"

if grep -rI -F -e "$source_dir" -e "$build" "$prefix"; then
  echo "What is installed must not name these directories" >&2
  exit 1
fi
find "$prefix" -name '*.so.*' -type f | while read -r library; do
  if readelf -d "$library" | grep -E '\((RPATH|RUNPATH)\)' | grep -v -F "[\$ORIGIN]"; then
    echo "$library looks for libraries in a directory of its own" >&2
    exit 1
  fi
done
if find "$prefix" -name Walk.h -o -name Comparison.h | grep .; then
  echo "Internal headers must not be installed" >&2
  exit 1
fi
