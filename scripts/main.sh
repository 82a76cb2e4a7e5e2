#!/usr/bin/env bash
# Installs what is missing, builds the release preset and runs the main job:
# a complete distribution on this machine (scripts/distribution_demo.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake --preset release >/dev/null
cmake --build --preset release
bash scripts/distribution_demo.sh build/release
