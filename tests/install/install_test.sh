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

# And through the CMake package.
mkdir -p "$tmp/cmake-consumer"
cp "$src" "$tmp/cmake-consumer/consumer.c"
cat > "$tmp/cmake-consumer/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(consumer C)
find_package(fanout REQUIRED)
add_executable(consumer consumer.c)
target_link_libraries(consumer PRIVATE fanout::fanout)
CMAKE
cmake -S "$tmp/cmake-consumer" -B "$tmp/cmake-build" -G Ninja -DCMAKE_PREFIX_PATH="$tmp/prefix" \
  -DCMAKE_C_COMPILER="${CC:-cc}" >/dev/null
cmake --build "$tmp/cmake-build" >/dev/null
LD_LIBRARY_PATH=$(dirname "$libdir") "$tmp/cmake-build/consumer"
