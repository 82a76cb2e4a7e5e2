#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests and the benchmarks
# need, when any is missing. Run as root or with sudo available.
set -euo pipefail
pkgs=(build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
      googletest libgtest-dev libgmock-dev libbenchmark-dev
      libomniorb4-dev omniidl coreutils procps util-linux)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  sudo=""
  [[ $(id -u) -eq 0 ]] || sudo="sudo"
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
