#!/usr/bin/env bash
# Installs the Debian packages that are missing: the build and test dependencies, or the
# packages named on the command line (as scripts/test-aarch64.sh does for its cross tools).
set -euo pipefail
if [ $# -gt 0 ]; then
  pkgs=("$@")
else
  pkgs=(cmake g++ clang make pkg-config libselinux1-dev libsafec-dev libgtest-dev libgmock-dev
        libbenchmark-dev)
  pkgs+=(libclang-rt-14-dev)  # libFuzzer's runtime, for scripts/fuzz.sh
fi
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
