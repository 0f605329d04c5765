#!/usr/bin/env bash
# Installs what is missing and builds the reference manual: build/docs/html/index.html. A broken
# reference or a wrong name in a description is an error.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/dependencies.sh docs
rm -rf build/docs
mkdir -p build/docs
PROJECT_VERSION=$(sed -n 's/^ *VERSION \([0-9.]*\)$/\1/p' CMakeLists.txt)
export PROJECT_VERSION
doxygen docs/reference/Doxyfile
echo "The manual is build/docs/html/index.html"
