#!/bin/sh
# Installs the build into a scratch prefix, then builds and runs a small C
# program against the installed headers and library through pkg-config.
set -eu
build=$1
src=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
libdir=$(ls -d "$tmp"/prefix/lib*/pkgconfig | head -n 1)
export PKG_CONFIG_PATH="$libdir"
# The .pc file names the configured prefix; point it at the scratch one.
${CC:-cc} -std=c11 -Wall -Werror -o "$tmp/consumer" "$src" \
  $(pkg-config --define-variable=prefix="$tmp/prefix" --cflags --libs fanout)
LD_LIBRARY_PATH=$(dirname "$libdir") "$tmp/consumer"
