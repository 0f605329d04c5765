#!/usr/bin/env bash
# Checks the metrics of the collector: promtool finds nothing in them, and a Prometheus that scrapes
# them in two halves answers with what a host monitor reported of a recorded machine, raises the alarms
# of programs/collector/prometheus and ends them, and has what the dashboard there asks for. Exits with
# 77 where Prometheus, curl or jq is not installed.
#   ./tests/programs/metrics.sh PROGRAMS    PROGRAMS is a directory, e.g. build/release/programs
set -euo pipefail
PATH=$(realpath "$1"):$PATH
cd "$(dirname "$0")/../.."
. scripts/functions.sh
cd "$work"
need prometheus promtool curl jq mosquitto_pub

# Runs the command again and again until it succeeds: SECONDS COMMAND... Fails when time runs out.
await() {
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    [ $SECONDS -lt $end ] || { echo "in vain: $*" >&2; return 1; }
    sleep 0.2
  done
}

start_broker
report_machine station-7 1
port=$(free_port)
! collector --broker "$broker" --http "$port" --metric-property 'a b' --metric-property a_b 2>refusal.log
grep -Fq "'a b' and 'a_b' become one label, property_a_b" refusal.log
collector --broker "$broker" --http "$port" --metric-property type \
  --metric-state state=up,down --metric-state access >events.log 2>collector.log &

# The shipped alarms, which do not wait here.
shipped=$sources/programs/collector/prometheus
sed 's/for: .*/for: 0s/' "$shipped/alerts.yml" >alerts.yml
cat >prometheus.yml <<END
global: {evaluation_interval: 1s}
rule_files: [alerts.yml]
scrape_configs:
  - job_name: fleet
    scrape_interval: 1s
    static_configs:
      - {targets: ['127.0.0.1:$port'], labels: {__param_partitions: 0-511, partitions: 0-511}}
      - {targets: ['127.0.0.1:$port'], labels: {__param_partitions: 512-1023, partitions: 512-1023}}
END
prometheus=127.0.0.1:$(free_port)
prometheus --config.file=prometheus.yml --storage.tsdb.path=data \
  --web.listen-address="$prometheus" 2>prometheus.log &

ask() { curl -sS -G "http://$prometheus/api/v1/query" --data-urlencode "query=$1" 2>curl.log; }
# Whether Prometheus has the value for the query: QUERY VALUE.
answers() { ask "$1" | jq -e --arg value "$2" '[.data.result[].value[1]] == [$value]' >/dev/null; }
# Whether Prometheus has any value for the query, once it knows the root and the time.
has_value() {
  local query=${1//\$root/station-7}
  ask "${query//\$__rate_interval/1m}" | jq -e '.data.result != []' >/dev/null
}
# Whether these alarms are raised and no others, each with what it is about: "NAME SUBJECT, ...".
alarms_are() {
  local raised
  raised=$(ask 'sort(ALERTS{alertstate="firing"})' | jq -r '[.data.result[].metric |
    .alertname + " " + (.device // .reporter // .root // .instance)] | sort | join(", ")')
  [ "$raised" = "$1" ]
}
celsius='orv_status_celsius{device="station-7/hwmon0/temp1"}'
await 60 answers "$celsius" 41.5
put station-7/sys/class/hwmon/hwmon0/temp1_input 52250
await 20 answers "$celsius" 52.25
line='station-7/hwmon0/temp1: celsius (double 52.250000)'
await 10 grep -q "^[0-9]* $line\$" station-7.log
await 10 grep -Fxq "station-7 $line" events.log
await 20 answers 'orv_device_health{root="station-7",device="station-7/net/eth1",level="warning"}' 1
await 20 answers 'orv_root_devices{root="station-7",level="warning"}' 2  # the interface and the host
await 20 alarms_are 'OrvDeviceWarning station-7'
put station-7/sys/class/hwmon/hwmon0/temp1_input 95000
await 20 alarms_are 'OrvDeviceError station-7'
put station-7/sys/class/hwmon/hwmon0/temp1_input 52250
await 20 alarms_are 'OrvDeviceWarning station-7'
# What the dashboard asks for is there; the recorded machine has no filesystems to be looked at.
jq -r '.. | .expr? // empty' "$shipped/dashboard.json" | grep -v free_bytes >queries
while read -r query; do
  await 20 has_value "$query"
done <queries
ask "$(jq -r '.. | .expr? // empty' "$shipped/dashboard.json" | grep free_bytes)" | jq -e '.status == "success"' >/dev/null
# What was chosen: a property, a text of several that are known, and one that is not.
answers 'orv_device_info{device="station-7/fs/media/disc",parent="station-7",property_type="iso9660"}' 1
answers 'orv_device_state{device="station-7/net/eth1",status="state",state="up"}' 0
answers 'orv_device_state{device="station-7/net/eth1",status="state",state="down"}' 1
answers 'orv_device_state{device="station-7/fs/media/disc",status="access",state="ro"}' 1
put station-7/sys/class/net/eth1/operstate dormant
await 20 answers 'orv_device_state{device="station-7/net/eth1",state="dormant"}' 1
answers 'sum(orv_device_state{device="station-7/net/eth1"})' 1
put station-7/sys/class/net/eth1/carrier 1
await 20 answers 'orv_root_devices{root="station-7",level="warning"}' 0
await 20 alarms_are ''

curl -sS "http://127.0.0.1:$port/metrics" >metrics.txt
promtool check metrics <metrics.txt
for wrong in 0-1024 3-2 1 '' 0-1x; do
  curl -sS "http://127.0.0.1:$port/metrics?partitions=$wrong" | jq -e '.error | startswith("partitions: not A-B")' >/dev/null
done
# The device is found by its identifier in another case.
curl -sS "http://127.0.0.1:$port/api/devices?find=NET%2Feth1" |
  jq -e '.complete and [.devices[] | [.root, .id, .health]] ==
    [["station-7", "station-7/net/eth1", "OK"]]' >/dev/null
[ "$(curl -sS -o body -w '%{http_code}' "http://127.0.0.1:$port/api/devices")" = 400 ]
# What another page in the browser of somebody here could send.
for host in example.org localhost.example.org:80; do
  [ "$(curl -sS -o body -w '%{http_code}' -H "Host: $host" "http://127.0.0.1:$port/")" = 403 ]
  jq -e .error body >/dev/null
done
! collector forget station-7 --broker "$broker" 2>forget.log
grep -Fq "'station-7' is online" forget.log
kill -9 "$(<station-7.pid)"
await 20 answers 'orv_root_up{root="station-7"}' 0
answers "$celsius" 52.25  # an alarm about it does not end with the process that reported it
await 20 alarms_are 'OrvReporterGone station-7'
# What the rest of the fleet sends meanwhile holds nothing up.
(while mosquitto_pub -p "${broker##*:}" -t orv/1/event/0/other -m noise; do sleep 0.3; done) 2>pub.log &
collector forget station-7 --broker "$broker" 2>forget.log
await 20 answers 'count(orv_root_up) or vector(0)' 0
# Names that become one, texts with signs of the format, a number that is none.
protoc -I "$sources" --encode=orv.proto.monitoring.DeviceToOrvServiceEvent \
  "$sources/proto/monitoring/device_events.proto" >event 2>protoc.log <<'END'
event_type: DEVICE_ADD
[orv.proto.monitoring.DeviceAddEvent.base] {
  device {
    id: "hostile" name: "a\\b\"c\nd} 1"
    statuses { name: "fan rpm" type: UINT uint_value: 1 }
    statuses { name: "fan_rpm" type: UINT uint_value: 1000000 }
    statuses { name: "fan\xferpm" type: DOUBLE double_value: -inf }
    statuses { name: "fan\xffrpm" type: DOUBLE double_value: 4 }
    statuses { name: "" type: DOUBLE double_value: nan }
  }
}
END
partition=$(python3 -c 'h = 14695981039346656037
for b in b"hostile": h = (h ^ b) * 1099511628211 % 2**64
print(h % 1024)')
mosquitto_pub -p "${broker##*:}" -V 5 -q 1 -t "orv/1/event/$partition/hostile" -f event \
  -D publish user-property sequence 1.1 -D publish user-property reporter nobody
await 20 answers 'orv_status_fan_rpm{root="hostile",status=""}' 1000000
answers 'orv_status_fan_rpm{root="hostile",status="fan rpm"}' 1
answers 'count({__name__=~"orv_status_.*",root="hostile"})' 4  # the two that are not UTF-8 are one
answers 'orv_device_info{root="hostile",name="a\\b\"c\nd} 1"}' 1
answers 'min(up)' 1
kill "$broker_pid"
await 20 answers 'max(orv_collector_connected)' 0
await 20 answers 'ALERTS{alertname=~"OrvCollectorBlind|OrvR.*",alertstate="firing"}' 1
echo "Prometheus has the $(grep -vc '^#' metrics.txt) metrics"
