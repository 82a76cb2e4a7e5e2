#!/bin/sh
# Runs a program in a fresh scratch directory under /tmp and removes the
# directory afterwards, whatever the program left there. The program's exit
# status is the script's.
set -eu
dir=$(mktemp -d /tmp/fanoutXXXXXX)
trap 'rm -rf "$dir"' EXIT
cd "$dir"
status=0
"$@" || status=$?
exit $status
