#!/usr/bin/env bash
# Installs what is missing, builds the release preset and runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake --preset release >/dev/null
cmake --build --preset release
if [[ -x build/release/tools/fanout-depot/fanout-depot ]]; then
  bash scripts/demo.sh build/release/tools/fanout-depot/fanout-depot
else
  build/release/examples/fanout_example
fi
