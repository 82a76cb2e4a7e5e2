#!/bin/sh
# Installs the build into a scratch prefix, moves the installed tree somewhere
# else, and uses it from there as a user would: a C program built through
# pkg-config (shared and static) and through the CMake package (shared, and
# static from a project with only C enabled), the installed fanout-depot, and
# the installed examples. Nothing may depend on the directory the tree was
# installed to. Every step is reported; the status is 1 when any failed.
#
#   install_test.sh BUILD_DIR SOURCE_DIR
# CC names the C compiler, FANOUT_CC_FLAGS the build's own C flags (-m32 for
# the 32-bit build) and FANOUT_TOOLCHAIN its CMake toolchain file, if any.
set -eu
build=$1
src=$2
cc=${CC:-cc}
ccflags=${FANOUT_CC_FLAGS:-}
toolchain=${FANOUT_TOOLCHAIN:+-DCMAKE_TOOLCHAIN_FILE=$FANOUT_TOOLCHAIN}
tmp=$(mktemp -d /tmp/fanoutXXXXXX)
trap 'rm -rf "$tmp"' EXIT
failed=0

# step NAME COMMAND...: runs a check, keeping its output for a failure. The
# check runs in the background and is waited for, because a command tested
# by "if" would run with "set -e" switched off and not stop at a failure.
step() {
    name=$1
    shift
    ("$@") >"$tmp/step.log" 2>&1 &
    if wait $!; then
        echo "ok: $name"
    else
        cat "$tmp/step.log"
        echo "FAILED: $name"
        failed=1
    fi
}

cmake --install "$build" --prefix "$tmp/installed" >/dev/null
mv "$tmp/installed" "$tmp/prefix"
prefix=$tmp/prefix
pcdir=$(dirname "$(find "$prefix" -name fanout.pc)")
libdir=$(dirname "$pcdir")
# Only the scratch tree, never a copy installed on this host.
export PKG_CONFIG_LIBDIR="$pcdir"
unset PKG_CONFIG_PATH LD_LIBRARY_PATH 2>/dev/null || true

pkg_config_shared() {
    # shellcheck disable=SC2046
    "$cc" $ccflags -std=c11 -Wall -Werror -o "$tmp/shared" "$src/tests/install/consumer.c" \
        $(pkg-config --cflags --libs fanout)
    LD_LIBRARY_PATH=$libdir "$tmp/shared"
}

# The archive rather than the shared library of the same name, with what
# Libs.private adds; run without a library path, so nothing shared is needed.
static_libs() {
    for w in $(pkg-config --static --libs fanout); do
        if [ "$w" = -lfanout ]; then
            printf '%s ' "-Wl,-Bstatic $1 -lfanout $2 -Wl,-Bdynamic"
        else
            printf '%s ' "$w"
        fi
    done
}
pkg_config_static() {
    # shellcheck disable=SC2046
    "$cc" $ccflags -std=c11 -Wall -Werror -o "$tmp/static" "$src/tests/install/consumer.c" \
        $(pkg-config --static --cflags fanout) $(static_libs "" "")
    if ldd "$tmp/static" | grep -F libfanout; then
        echo "the statically linked program needs the shared library"
        return 1
    fi
    "$tmp/static"
}
# Every object of the archive, not only those the consumer uses, links with
# what Libs.private names.
pkg_config_static_whole_archive() {
    # shellcheck disable=SC2046
    "$cc" $ccflags -std=c11 -o "$tmp/whole" "$src/tests/install/consumer.c" \
        $(pkg-config --static --cflags fanout) \
        $(static_libs -Wl,--whole-archive -Wl,--no-whole-archive)
}

find_package() {
    cmake -S "$src/tests/install/consumer" -B "$tmp/cmake-$1" -G Ninja \
        -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" -DFANOUT_TARGET="$2" $toolchain
    cmake --build "$tmp/cmake-$1"
    "$tmp/cmake-$1/consumer"
}

depot_tool_starts() {
    tool=$prefix/bin/fanout-depot
    # The library it loads is the installed one, found through its run path.
    loaded=$(ldd "$tool" | awk '/libfanout\.so/ { print $3 }')
    if [ "$(dirname "$(readlink -f "$loaded")")" != "$(readlink -f "$libdir")" ]; then
        ldd "$tool"
        echo "fanout-depot does not load the library in $libdir"
        return 1
    fi
    (cd "$tmp" && "$tool" help) >"$tmp/help.txt"
    test -s "$tmp/help.txt"
}

docs_installed() {
    doc=$prefix/share/doc/fanout
    for f in "$src"/docs/*.md; do
        cmp "$f" "$doc/$(basename "$f")"
    done
    for f in "$src"/examples/*.c; do
        cmp "$f" "$doc/examples/$(basename "$f")"
    done
}

# Each installed example builds against the installed copy and runs (in a
# directory of its own, as an example may leave files where it runs).
examples_build_and_run() {
    for f in "$prefix"/share/doc/fanout/examples/*.c; do
        name=$(basename "$f" .c)
        mkdir "$tmp/run-$name"
        # shellcheck disable=SC2046
        "$cc" $ccflags -std=c11 -Wall -Werror -o "$tmp/run-$name/$name" "$f" \
            $(pkg-config --cflags --libs fanout)
        (cd "$tmp/run-$name" && LD_LIBRARY_PATH=$libdir "./$name") >/dev/null
    done
}

step "pkg-config, shared library" pkg_config_shared
step "pkg-config, static library" pkg_config_static
step "pkg-config, static library, every object" pkg_config_static_whole_archive
step "find_package, fanout::fanout" find_package shared fanout::fanout
step "find_package, fanout::fanout_static, C only" find_package static fanout::fanout_static
step "installed fanout-depot starts" depot_tool_starts
step "guides and examples installed to share/doc/fanout" docs_installed
step "installed examples build and run" examples_build_and_run
exit $failed
