#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests and the benchmarks
# need, when any is missing, including the i386 libraries of the 32-bit
# build (the i386 architecture is added to dpkg for them). Run as root or
# with sudo available.
set -euo pipefail
pkgs=(build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev clang-format
      googletest libgtest-dev libgmock-dev libbenchmark-dev libssl-dev
      libomniorb4-dev omniidl coreutils procps util-linux iproute2 bc
      g++-multilib libgtest-dev:i386 libgmock-dev:i386 libssl-dev:i386)
sudo=""
[[ $(id -u) -eq 0 ]] || sudo="sudo"
update=0
if ! dpkg --print-foreign-architectures | grep -qx i386; then
  $sudo dpkg --add-architecture i386
  update=1
fi
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  update=1
fi
if ((update)); then
  $sudo apt-get update -qq
fi
if ((${#missing[@]})); then
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
