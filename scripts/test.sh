#!/usr/bin/env bash
# Installs what is missing, builds with warnings as errors, and runs every test. Where there is no
# Prometheus or no browser, it leaves out the tests that need them, and says so at the end.
#
#   ./scripts/test.sh [--all]     --all installs these too
set -euo pipefail
cd "$(dirname "$0")/.."

purposes=(build test)
case $* in
  '') ;;
  --all) purposes+=(web web-test) ;;
  *)
    echo "usage: test.sh [--all]" >&2
    exit 2
    ;;
esac

./scripts/dependencies.sh "${purposes[@]}"
cmake --preset release
cmake --build --preset release
ctest --preset release --output-log build/release/tests.log
left_out=$(sed -nE 's/^.* - (.*) \((Skipped|Disabled)\)$/\1/p' build/release/tests.log | xargs)
if [ -n "$left_out" ]; then
  echo "Left out, as not everything that they need is installed: $left_out"
  [ $# -eq 0 ]
  echo "./scripts/test.sh --all installs it and runs them too."
fi
