#!/usr/bin/env bash
# Makes a bare Debian with a broker and a Prometheus, boots it in a container without a network, and has bare_inside.sh
# install the packages of the programs there, use the programs and remove them. It takes Debian from where this
# machine has it from, and needs to be root.
#   ./tests/packaging/bare.sh DIRECTORY    with the packages, e.g. build/package
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
  exec sudo "$0" "$@"
fi
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf --one-file-system "$work"' EXIT
root=$work/root

# shellcheck source=/dev/null
release=$(. /etc/os-release && echo "$VERSION_CODENAME")
mirror=$(apt-get indextargets --format '$(SITE)' 'Created-By: Packages' 'Origin: Debian' \
  "Codename: $release" | head -n 1)
debootstrap --variant=minbase --include=systemd-sysv,mosquitto,openssl,curl,bash-completion,prometheus \
  "$release" "$root" "$mirror" >"$work/log" || { cat "$work/log" >&2; exit 1; }

echo "127.0.0.1 localhost" >"$root/etc/hosts"
echo station-7 >"$root/etc/hostname"
# What the packages depend on is fetched now, as there is no network inside.
apt-config dump | grep '^Acquire::' >"$root/etc/apt/apt.conf.d/host"
mkdir "$root/packages"
find "$1" -maxdepth 1 -name '*.deb' ! -name '*-dev_*' -exec cp -t "$root/packages" {} +
chroot "$root" sh -ec 'apt-get -q update
  apt-get -q -y install --download-only --no-install-recommends /packages/*.deb' \
  >"$work/log" 2>&1 || { cat "$work/log" >&2; exit 1; }

install "$here/bare_inside.sh" "$root/packages"
cat >"$root/etc/systemd/system/bare.service" <<'END'
[Unit]
After=multi-user.target
SuccessAction=exit
FailureAction=exit
[Service]
Type=oneshot
Environment=HOME=/root DEBIAN_FRONTEND=noninteractive
ExecStart=/packages/bare_inside.sh
StandardOutput=file:/packages/log
StandardError=inherit
[Install]
WantedBy=default.target
END
systemctl --root "$root" --quiet enable bare.service
options=(--quiet --boot --directory "$root" --machine "bare-$$" --register=no
  --private-network --console=pipe)
[ -d /run/systemd/system ] || options+=(--keep-unit)  # there is nothing to make a unit of it
status=0
timeout 600 systemd-nspawn "${options[@]}" </dev/null >"$work/log" 2>&1 || status=$?
cat "$root/packages/log" || { cat "$work/log" >&2; exit 1; }
exit $status
