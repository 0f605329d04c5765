#!/usr/bin/env bash
# Checks what the collector answers over HTTP against docs/openapi.yaml, and how it copes with hostile
# clients. Exits with 77 where what it needs is not installed.
#   ./tests/programs/answers.sh PROGRAMS    PROGRAMS is a directory, e.g. build/release/programs
set -euo pipefail
PATH=$(realpath "$1"):$PATH
cd "$(dirname "$0")/../.."
. scripts/functions.sh
cd "$work"
need mosquitto_pub protoc
/usr/bin/python3 -c 'import jsonschema, yaml' || exit 77

start_broker
report_machine station-7 0.5
port=$(free_port)
collector --broker "$broker" --http "$port" --history fleet.history >events.log 2>collector.log &
echo $! >collector.pid
until is_open "$port"; do sleep 0.1; done
/usr/bin/python3 -B "$sources/tests/programs/answers.py" "$sources" "$broker" "$port" "$(<collector.pid)" ||
  { cat collector.log >&2; exit 1; }
