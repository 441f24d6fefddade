#!/usr/bin/env bash
# The main job: builds the library, runs every example program, each of
# which prints what it does with a packet, then sends packets to a peer
# process and back with krm-mbuf road and prints its summary.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake --preset default >/dev/null
cmake --build build/default -j"$(nproc)"
for example in build/default/examples/krm_example_*; do
    echo "=== $(basename "$example") ==="
    "$example"
done
echo "=== krm-mbuf road ==="
build/default/tools/krm-mbuf/krm-mbuf road
