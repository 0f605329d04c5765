#!/usr/bin/env bash
# Builds the Debian packages into build/package with Debian's hardening flags, and checks them.
# lintian must find no error. hardening-check looks for what the flags bring. Two of its checks are
# off, because a flag shows only where there is something to protect. Fortified functions: no library
# copies to a buffer whose size the compiler knows. Stack protector, of the message classes: they
# keep no arrays on the stack.
#
# DEBFULLNAME and DEBEMAIL name the maintainer.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/dependencies.sh build web package

export DEB_BUILD_MAINT_OPTIONS=hardening=+all
flags="$(dpkg-buildflags --get CPPFLAGS) $(dpkg-buildflags --get CXXFLAGS)"
link_flags=$(dpkg-buildflags --get LDFLAGS)
rm -rf build/package
cmake -S . -B build/package -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_SKIP_INSTALL_RPATH=ON \
  -DORV_BUILD_TESTS=OFF -DORV_BUILD_EXAMPLES=OFF \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_SHARED_LINKER_FLAGS="$link_flags" \
  -DCMAKE_EXE_LINKER_FLAGS="$link_flags"
cmake --build build/package
(cd build/package && cpack -G DEB)

lintian --fail-on error build/package/*.deb
check_hardening() { hardening-check --nopie --nocfprotection --nofortify "$@"; }
check_hardening build/package/device_tree/liborv_device_tree.so
check_hardening build/package/reporting/liborv_reporting.so
check_hardening build/package/history/liborv_history.so
hardening-check --nocfprotection build/package/programs/orv-{host-monitor,collector,history}
check_hardening --nostackprotector build/package/proto/monitoring/liborv_monitoring_proto.so
ls -l build/package/*.deb
