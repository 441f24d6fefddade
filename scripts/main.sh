#!/usr/bin/env bash
# The main job: builds the library and runs every example program, each of
# which prints what it does with a packet.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake --preset default >/dev/null
cmake --build build/default -j"$(nproc)"
for example in build/default/examples/krm_example_*; do
    echo "=== $(basename "$example") ==="
    "$example"
done
