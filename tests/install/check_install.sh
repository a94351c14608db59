#!/usr/bin/env bash
# Installs a build into a scratch prefix and builds the demo programs against it the two ways a
# user would, CMake's find_package and pkg-config; each pair then talks over real FIFOs.
#   check_install.sh BUILD_DIR
set -euo pipefail
build="$(cd "$1" && pwd)"
here="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d /tmp/sable_install_check.XXXXXX)"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

cmake --install "$build" --prefix "$prefix" >/dev/null
examples="$prefix/share/sable_comm/examples"
pcdir="$(dirname "$(find "$prefix" -name sable_comm.pc | head -n1)")"
test -x "$prefix/bin/sablectl"
"$prefix/bin/sablectl" --help >/dev/null
test -f "$(find "$prefix" -name SableCommConfigVersion.cmake | head -n1)"

# The pair runs in the foreground with bounded waits; names carry this shell's pid.
run_pair() {  # DIR TAG
  mkdir -p /dev/shm/nux/sable_comm
  timeout 60 "$1/sable_demo_service" pipe "$2_svc_$$" "$2_caller_$$" >"$work/$2.svc" &
  local svc=$!
  timeout 60 "$1/sable_demo_caller" pipe "$2_caller_$$" "$2_svc_$$" 50 >"$work/$2.caller" || {
    kill "$svc" 2>/dev/null; wait "$svc" 2>/dev/null; echo "$2: caller failed"; cat "$work/$2.caller"; return 1; }
  wait "$svc" || { echo "$2: service failed"; cat "$work/$2.svc"; return 1; }
  echo "$2: ok"
}

echo "== find_package(SableComm CONFIG)"
cmake -S "$here" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DSABLE_EXAMPLES_DIR="$examples" \
  -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/cmake" -j2 >/dev/null
run_pair "$work/cmake" cmakepkg

echo "== pkg-config sable_comm"
export PKG_CONFIG_PATH="$pcdir"
libdir="$(pkg-config --variable=libdir sable_comm)"
mkdir -p "$work/pc"
for prog in sable_demo_service sable_demo_caller; do
  # shellcheck disable=SC2046
  g++ -std=c++17 -O1 -o "$work/pc/$prog" "$examples/$prog.cpp" \
    $(pkg-config --cflags --libs sable_comm) -Wl,-rpath,"$libdir"
done
run_pair "$work/pc" pkgconfig
