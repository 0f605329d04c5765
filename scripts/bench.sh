#!/usr/bin/env bash
# Installs what is missing, builds the benchmarks, runs them, and writes docs/performance.md and
# docs/performance.svg from the results. The last part measures a fleet over a broker of its own on
# the loopback, and a history of one.
#
#   ./scripts/bench.sh            the full form, about 20 minutes
#   ./scripts/bench.sh --fleet    the last part alone, ten minutes; replaces the last two sections
#                                 of docs/performance.md and leaves the rest as it is
#   ./scripts/bench.sh --quick    fewer sizes and rounds, under five minutes; writes the two files
#                                 to build/bench instead, which leaves the page in docs as it is.
#                                 Also together with --fleet
set -euo pipefail
cd "$(dirname "$0")/.."

options=()
pages=docs
fleet_alone=
for option in "$@"; do
  case $option in
    --quick)
      options=(--quick)
      pages=build/bench
      ;;
    --fleet) fleet_alone=yes ;;
    *)
      echo "usage: bench.sh [--fleet] [--quick]" >&2
      exit 2
      ;;
  esac
done

./scripts/dependencies.sh build bench broker web
cmake --preset bench -DORV_BUILD_REPORTING=ON -DORV_BUILD_PROGRAMS=ON
cmake --build --preset bench
if [ -z "$fleet_alone" ]; then
  build/bench/bench/orv_bench "${options[@]}" \
    --benchmark_out=build/bench/results.json --benchmark_out_format=json
  /usr/bin/python3 bench/report.py build/bench/results.json "$pages"
  echo "Wrote $pages/performance.md and $pages/performance.svg"
elif [ ! -e "$pages/performance.md" ]; then
  cp docs/performance.md "$pages/performance.md"
fi

. scripts/functions.sh
PATH=$PATH:/usr/sbin build/bench/bench/orv_fleet_bench "${options[@]}" \
  examples/broker/mosquitto.conf build/bench/programs/orv-collector >build/bench/fleet.json
/usr/bin/python3 bench/report.py build/bench/fleet.json "$pages"
start_broker
mkdir "$work/histories"
build/bench/bench/orv_history_bench "${options[@]}" "$broker" "$work/histories" \
  >build/bench/history.json
/usr/bin/python3 bench/report.py build/bench/history.json "$pages"
echo "Wrote the last sections of $pages/performance.md"
