#!/usr/bin/env bash
# Installs the build and test dependencies that are missing (Debian packages).
set -euo pipefail
pkgs=(cmake g++ clang make pkg-config libselinux1-dev libsafec-dev libgtest-dev libgmock-dev
      libbenchmark-dev)
pkgs+=(libclang-rt-14-dev)  # libFuzzer's runtime, for scripts/fuzz.sh
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}"
fi
