#!/usr/bin/env bash
# Installs what is missing, builds the benchmarks, runs them, and writes docs/performance.md and
# docs/performance.svg from the results.
#
#   ./scripts/bench.sh            the full form, about 10 minutes
#   ./scripts/bench.sh --quick    fewer sizes and rounds, under two minutes; writes the two files to
#                                 build/bench instead, which leaves the page in docs as it is
set -euo pipefail
cd "$(dirname "$0")/.."

options=()
pages=docs
case "$*" in
  '') ;;
  --quick)
    options=(--quick)
    pages=build/bench
    ;;
  *)
    echo "usage: bench.sh [--quick]" >&2
    exit 2
    ;;
esac

./scripts/dependencies.sh build bench
cmake --preset bench
cmake --build --preset bench
build/bench/bench/orv_bench "${options[@]}" \
  --benchmark_out=build/bench/results.json --benchmark_out_format=json
/usr/bin/python3 bench/report.py build/bench/results.json "$pages"
echo "Wrote $pages/performance.md and $pages/performance.svg"
