#!/usr/bin/env bash
# Sets everything up and runs the whole suite: the device backend must still
# compile and link, clang must build the daemon and pass the unit tests, the
# static musl binaries must pass every system test, and the GCC sanitizer
# build must pass every unit and system test (last, so that its summary closes
# the output).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

# The device backend cannot link here: its vendor libraries exist only on the
# access point. Link it with their symbols left open, and check that the
# daemon asks for exactly the vendor's names.
cmake -S . -B build-device -DCMAKE_BUILD_TYPE=Release -DMETERD_PLATFORM=device \
  -DMETERD_DEVICE_LINK_CHECK=ON -DMETERD_TESTS=OFF
cmake --build build-device -j2
wanted=$(nm -u build-device/libmeterd_core.a)
for sym in merra_wlan_get_hybridmode rrm_get_common_mac parser_open parser_close \
    uam_create_handle uam_set_mode uam_read_event wpa3_get_owetm_info; do
  grep -qw "$sym" <<<"$wanted" || { echo "device build does not call $sym" >&2; exit 1; }
done
# What goes into a device image needs the C library alone (a C++ runtime call
# would stand unresolved here), and the stripped daemon fits in 64 KiB.
for bin in meterd meterctl; do
  needed=$(readelf -d "build-device/$bin" | grep NEEDED)
  [ "$needed" = "$(grep 'libc\.so' <<<"$needed")" ] || { echo "$bin needs more than libc:" >&2; echo "$needed" >&2; exit 1; }
  cxx=$(nm -u "build-device/$bin" | grep -v '@GLIBC' | grep -E ' (_Z|__cxa_|__gxx_)' || true)
  [ -z "$cxx" ] || { echo "$bin calls into the C++ runtime:" >&2; echo "$cxx" >&2; exit 1; }
done
strip -o build-device/meterd.stripped build-device/meterd
size=$(stat -c %s build-device/meterd.stripped)
[ "$size" -le 65536 ] || { echo "stripped meterd is $size bytes, more than 64 KiB" >&2; exit 1; }

# The clang build carries RADIUS over TLS: the same build passes the unit tests and every system
# test over UDP, and is proven against FreeRADIUS's TLS listener. It carries the test clock, as
# clang's sanitizer runtimes and libfaketime hang together.
cmake -S . -B build-clang -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ -DMETERD_TLS=ON -DMETERD_TEST_CLOCK=ON
cmake --build build-clang -j2
ctest --test-dir build-clang -L unit --output-on-failure -j2
ctest --test-dir build-clang -L system --output-on-failure -j2

# Short runs of every fuzz target, and of the daemon under ThreadSanitizer
# with all its threads busy, so that a regression shows at once. The long
# runs are local (README, Hardening).
cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ -DMETERD_FUZZ=ON -DMETERD_TESTS=OFF
cmake --build build-fuzz -j2
fuzz/run 10
# The same build runs the unit tests and, in extended mode (every thread, the look-up workers
# among them), the system tests; a race stops the daemon, which fails its test. It carries the
# test clock, as ThreadSanitizer's runtime and libfaketime hang together.
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ -DMETERD_TSAN=ON -DMETERD_TEST_CLOCK=ON -DMETERD_TESTS=ON
cmake --build build-tsan -j2
METERD_BUILD_DIR=build-tsan METERD_LOAD_SECONDS=30 /usr/bin/python3 tests/system/tsan_load.py
TSAN_OPTIONS='halt_on_error=1 exitcode=66' ctest --test-dir build-tsan -L unit --output-on-failure -j2
TSAN_OPTIONS='halt_on_error=1 exitcode=66' METERD_MODE=extended ctest --test-dir build-tsan -L system \
  --output-on-failure -j2

# Big-endian 32-bit MIPS and 64-bit ARM: the unit tests under qemu-user.
bash scripts/cross-test.sh mips
bash scripts/cross-test.sh aarch64

# musl, the C library of OpenWrt: static binaries, run by every system test
# (the unit tests need a C++ runtime, and musl has none here). The test clock
# stands in for libfaketime, which a static binary cannot preload.
cmake -S . -B build-musl -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-x86_64-linux-musl.cmake \
  -DCMAKE_BUILD_TYPE=Release -DMETERD_TEST_CLOCK=ON
cmake --build build-musl -j2
for bin in meterd meterctl ovat devsim; do
  if readelf -lW "build-musl/$bin" | grep -q 'INTERP' || readelf -dW "build-musl/$bin" | grep -q 'NEEDED'; then
    echo "build-musl/$bin is not static" >&2; exit 1
  fi
done
ctest --test-dir build-musl -L system --output-on-failure -j2

# The OpenWrt service: procd's init scripts are sh, run by /etc/rc.common.
shellcheck -s sh packaging/openwrt/files/meterd.init

# The extended mode (meterd -x) runs every system test too; the default last.
cmake -S . -B build -DCMAKE_BUILD_TYPE=Debug
cmake --build build -j2
METERD_MODE=extended ctest --test-dir build -L system --output-on-failure -j2
ctest --test-dir build --output-on-failure -j2
