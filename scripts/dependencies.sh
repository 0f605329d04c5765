#!/usr/bin/env bash
# Installs the Debian packages that are missing for the purposes named, and says which.
#
#   ./scripts/dependencies.sh PURPOSE...     purposes: build test broker web web-test check
#                                              bench docs package package-test fuzz
set -euo pipefail

packages_for() {
  case $1 in
    build) echo g++ cmake ninja-build libboost-dev libprotobuf-dev protobuf-compiler \
      pkg-config libmosquitto-dev libssl-dev libsqlite3-dev zlib1g-dev libcli11-dev ;;
    test) echo libgtest-dev python3 python3-protobuf mosquitto mosquitto-clients openssl \
      faketime python3-paho-mqtt binutils locales ;;
    broker) echo mosquitto ;;
    web) echo zlib1g-dev nlohmann-json3-dev ;;
    web-test) echo prometheus curl jq python3-selenium chromium chromium-driver \
      python3-jsonschema python3-yaml fonts-dejavu-core ;;
    check) echo clang clang-format clang-tidy cppcheck node-js-beautify ;;
    bench) echo libbenchmark-dev nlohmann-json3-dev python3 python3-matplotlib ;;
    docs) echo doxygen ;;
    package) echo dpkg-dev file lintian devscripts help2man ;;
    package-test) echo debootstrap systemd-container ;;
    fuzz) echo clang libclang-rt-14-dev llvm ;;
    *)
      echo "dependencies.sh: unknown purpose '$1'" >&2
      exit 2
      ;;
  esac
}

missing=()
for purpose in "$@"; do
  for package in $(packages_for "$purpose"); do
    if ! dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed'; then
      missing+=("$package")
    fi
  done
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  as_root=(sudo)
fi
echo "Installing Debian packages: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
