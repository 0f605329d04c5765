#!/usr/bin/env bash
# Kills a collector that records, so many TIMES at random moments, while 100 roots change, and looks
# at what its history holds after each time.
#   ./tests/history/kills.sh BUILD_DIR [TIMES]     e.g. build/release 100
set -euo pipefail
build=$(realpath "$1")
cd "$(dirname "$0")/../.."
PATH=$PATH:/usr/sbin
. scripts/functions.sh
start_broker
"$build/tests/history/orv_history_kills" "$broker" "$build/programs/collector" "$work/history" \
  "${2:-10}"
