#!/usr/bin/env bash
# Cross-builds the unit tests for another architecture and runs them under
# qemu-user: big-endian 32-bit MIPS or 64-bit ARM. The MD5 vectors, the
# authenticators and the layout asserts of every local record then hold on
# that byte order and word size. Installs what it needs (Debian 12, root).
#
#   bash scripts/cross-test.sh mips|aarch64
set -euo pipefail
cd "$(dirname "$0")/.."

case ${1:-} in
  mips) triple=mips-linux-gnu dir=build-mips ;;
  aarch64|arm64) triple=aarch64-linux-gnu dir=build-arm64 ;;
  *) echo "usage: scripts/cross-test.sh mips|aarch64" >&2; exit 2 ;;
esac

# googletest ships GoogleTest as source in /usr/src/googletest.
bash scripts/setup.sh "g++-$triple" qemu-user googletest

toolchain=$PWD/cmake/toolchain-$triple.cmake
gtest=$PWD/$dir/googletest
if [ ! -f "$gtest/lib/cmake/GTest/GTestConfig.cmake" ]; then
  cmake -S /usr/src/googletest -B "$dir/googletest-build" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
    -DCMAKE_BUILD_TYPE=Release -DBUILD_GMOCK=OFF -DCMAKE_INSTALL_PREFIX="$gtest" >/dev/null
  cmake --build "$dir/googletest-build" -j2
  cmake --install "$dir/googletest-build" >/dev/null
fi

cmake -S . -B "$dir" -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=Debug \
  -DMETERD_PLATFORM=sim -DMETERD_TESTS=ON -DMETERD_SANITIZE=OFF -DGTest_DIR="$gtest/lib/cmake/GTest"
cmake --build "$dir" -j2 --target meterd meterctl ovat unit_tests
ctest --test-dir "$dir" -L unit --output-on-failure -j2
