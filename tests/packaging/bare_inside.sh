#!/usr/bin/env bash
# What bare.sh does inside: from the packages in /packages to a machine that is seen, and back.
set -euo pipefail
trap 'journalctl --no-pager --boot --lines 40 --output cat; echo "failed in line $LINENO" >&2' ERR

step() { echo "== $1"; }

# Runs the command again and again until it succeeds, for two minutes at most.
await() {
  local end=$((SECONDS + 120))
  until "$@"; do
    [ $SECONDS -lt $end ] || { echo "in vain: $*" >&2; return 1; }
    sleep 0.2
  done
}

# What is installed and kept, but for what the package tools and others keep to themselves.
files() {
  find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp \
    -o -path /packages -o -path /var/tmp -o -path /var/log -o -path /var/cache -o -path /var/lib/apt \
    -o -path /var/lib/dpkg -o -path '*mosquitto*' -o -path '*prometheus*' -o -path /var/lib/private \) -prune -o -print | sort
}

is() { [ "$(systemctl show --property "$2" --value "$1")" = "$3" ]; }
fleet() { curl --silent --fail http://localhost:8080/api/roots; }
shows() { fleet | grep -q "\"condition\":\"$1\""; }

units="orv-host-monitor orv-collector"
before=$(files)

step "Installed, and nothing runs"
apt-get -q -y install --no-install-recommends /packages/*.deb
for unit in $units; do
  is $unit ActiveState inactive
  is $unit UnitFileState disabled
  systemd-analyze verify --man=no $unit.service
  systemd-analyze security --no-pager --threshold=20 $unit.service | tail -n 1
done

step "Without a broker, a start says what is missing, and is not repeated"
for unit in $units; do
  if systemctl start $unit; then false; fi
  is $unit Result exit-code
  is $unit NRestarts 0
  journalctl --unit $unit | grep -E 'no broker is named|--broker is required'
  systemctl reset-failed $unit
done

step "A broker with encryption, passwords and access rules"
example=/usr/share/doc/orv-collector/examples/broker
sed 's/^#\([^ ]\)/\1/' $example/mosquitto.conf >/etc/mosquitto/conf.d/fleet.conf
cp $example/rules /etc/mosquitto/rules
cd /etc/mosquitto/certs
openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost \
  -addext subjectAltName=DNS:localhost -keyout broker.key -out ca.crt 2>/dev/null
cp ca.crt broker.crt
cd ..
mosquitto_passwd -b -c passwords collector "of all"
mosquitto_passwd -b passwords station-7 "of one"
chown mosquitto rules passwords certs/*
chmod 400 passwords certs/broker.key
systemctl restart mosquitto

step "Configured and enabled, the machine shows up"
configure() {  # SETTINGS USER PASSWORD
  sed -i "s,^#broker = .*,broker = mqtts://$2@localhost," "/etc/orv/$1.conf"
  install -m 600 /dev/stdin "/etc/orv/$1.credentials/password" <<<"$3"
  install -m 600 /etc/mosquitto/certs/ca.crt "/etc/orv/$1.credentials/ca"
}
configure host-monitor station-7 "of one"
configure collector collector "of all"
systemctl enable --now $units
await shows current
fleet
curl --silent --fail http://localhost:8080/api/roots/station-7 >tree
grep -q '{"name":"access","type":"STRING","string_value":"rw"}' tree
curl --silent --fail http://localhost:8080/metrics | grep '^orv_root_up{root="station-7"} 1'
recorded() { orv-history /var/lib/orv-collector/history changes | grep '^.* station-7'; }
await recorded

step "Prometheus raises an alarm when a device fails, and ends it when the device is well again"
machine=/srv/machine
chip=$machine/sys/class/hwmon/hwmon0
mkdir -p $chip $machine/proc/sys/kernel
echo station-7 >$machine/proc/sys/kernel/hostname
echo 95000 >$chip/temp1_crit
echo 41500 >$chip/temp1_input
printf 'root = %s\ninterval = 1\n' $machine >>/etc/orv/host-monitor.conf
systemctl restart orv-host-monitor
sed 's/for: .*/for: 0s/' /usr/share/orv-collector/prometheus/alerts.yml >/etc/prometheus/alerts.yml
cat >/etc/prometheus/prometheus.yml <<'END'
global: {scrape_interval: 1s, evaluation_interval: 1s}
rule_files: [alerts.yml]
scrape_configs:
  - job_name: fleet
    static_configs:
      - targets: ['localhost:8080']
END
systemctl restart prometheus
has() { promtool query instant http://localhost:9090 "$1" | grep -q .; }
alarm='ALERTS{alertname="OrvDeviceError",device="station-7",alertstate="firing"}'
await has 'orv_status_celsius{device="station-7/hwmon0/temp1"} == 41.5'
echo 95000 >$chip/temp1_input
await has "$alarm"
echo 41500 >$chip/temp1_input
await has "absent($alarm)"
systemctl stop prometheus
rm -r $machine
sed -i '/^root = /d; /^interval = 1$/d' /etc/orv/host-monitor.conf
systemctl restart orv-host-monitor
await shows current

step "Killed or hanging, it is restarted, later each time"
impatient() {  # UNIT
  mkdir -p "/run/systemd/system/$1.service.d"
  printf '[Service]\nWatchdogSec=6s\nRestartSec=1s\n' >"/run/systemd/system/$1.service.d/test.conf"
}
for unit in $units; do
  impatient $unit
done
systemctl daemon-reload
systemctl restart $units
for unit in $units; do
  sleep 7  # longer than it may be silent
  is $unit NRestarts 0
  systemctl kill --kill-who=main --signal STOP $unit
  await is $unit NRestarts 1
  await is $unit StatusText "Starts that failed: 1. Waits 5 s"
  await is $unit ActiveState active
  systemctl kill --kill-who=main --signal KILL $unit
  await is $unit StatusText "Starts that failed: 2. Waits 10 s"
  await is $unit ActiveState active
done
await shows current
systemctl stop orv-host-monitor
await shows "its reporter is gone"
systemctl start orv-host-monitor
is orv-host-monitor StatusText ""

step "Completion"
complete() {
  # shellcheck disable=SC2034
  bash -c '. /usr/share/bash-completion/bash_completion; _completion_loader "$1"
    COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$*"; COMP_POINT=${#COMP_LINE}
    _'"${1//-/_}"' "$1" "${!#}" "${COMP_WORDS[-2]}"; echo "${COMPREPLY[@]}"' bash "$@"
}
[ "$(complete orv-host-monitor --int)" = --interval ]
[ "$(complete orv-collector fo)" = forget ]
[ "$(complete orv-collector --ca /etc/hostn)" = /etc/hostname ]

step "Upgraded, it runs on; removed, its settings stay; purged, nothing does"
apt-get -q -y install --reinstall /packages/orv-*.deb
for unit in $units; do
  is $unit ActiveState active
  is $unit UnitFileState enabled
done
apt-get -q -y remove $units
for unit in $units; do
  if systemctl is-active $unit; then false; fi
done
grep -q '^broker = ' /etc/orv/collector.conf
# shellcheck disable=SC2046
apt-get -q -y purge $units $(dpkg-query --show --showformat '${Package} ' 'liborv-*')
apt-get -q -y autoremove --purge
diff <(echo "$before") <(files)
