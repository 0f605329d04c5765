#!/usr/bin/env bash
# Installs what is missing, builds with warnings as errors, and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/dependencies.sh build test
cmake --preset release
cmake --build --preset release
ctest --preset release
