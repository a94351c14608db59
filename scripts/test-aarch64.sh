#!/usr/bin/env bash
# Cross-builds the library and the test suite for AArch64 (Debian's cross compiler and the arm64
# -dev packages, multiarch) and runs the suite under qemu-user.
#   scripts/test-aarch64.sh               the whole suite
#   scripts/test-aarch64.sh -R REGEX      only the CTest entries matching REGEX
# Extra arguments go to ctest. Builds in build-aarch64/.
set -euo pipefail
cd "$(dirname "$0")/.."

cross_pkgs=(g++-aarch64-linux-gnu qemu-user pkg-config cmake make
            libselinux1-dev:arm64 libsafec-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64
            libstdc++6:arm64)  # the programs run on the arm64 multiarch run time
sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  echo "adding the arm64 architecture to dpkg"
  $sudo_cmd dpkg --add-architecture arm64
fi
scripts/setup.sh "${cross_pkgs[@]}"

build=build-aarch64
cmake -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/aarch64-linux-gnu.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSABLE_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)" "$@"
