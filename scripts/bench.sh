#!/usr/bin/env bash
# Builds the benchmarks (Release), installs the peer library's package where
# it is missing, runs the peer benchmarks on one CPU with repetitions and
# prints every figure of the library as a ratio to its peer and to memcpy of
# the same bytes (wall-clock time, the fastest of the repetitions and their
# median; above 1 means the library is faster). Usage:
# scripts/bench.sh [repetitions] [cpu]
set -euo pipefail
cd "$(dirname "$0")/.."
reps=${1:-15}
cpu=${2:-1}

if ! dpkg-query -W -f='${Status}' libdpdk-dev 2>/dev/null | grep -q 'install ok installed'; then
    sudo_cmd=()
    [[ $(id -u) -ne 0 ]] && sudo_cmd=(sudo)
    "${sudo_cmd[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq libdpdk-dev pkg-config >/dev/null
fi

cmake --preset bench >/dev/null
cmake --build build/bench -j2 --target krm_bench krm_peer_bench >/dev/null

pin=()
command -v taskset >/dev/null && pin=(taskset -c "$cpu")
out=build/bench/offload_peers.csv
"${pin[@]}" build/bench/bench/peers/krm_peer_bench --benchmark_repetitions="$reps" --benchmark_min_time=0.1 \
    --benchmark_report_aggregates_only=true --benchmark_format=csv 2>/dev/null >"$out"

# name,iterations,real_time,...: one table per statistic.
for stat in min median; do
    echo "== $stat of $reps repetitions"
    awk -F, -v stat="$stat" '
    $1 ~ ("_" stat "\"?$") {
        name = $1; gsub(/"/, "", name); sub("_" stat "$", "", name);
        t[name] = $3;
    }
    END {
        printf "%-28s %12s %12s %12s %10s %12s\n", "figure", "ours", "peer", "memcpy", "peer/ours", "memcpy/ours";
        n = split("1500 9000 65536", sizes, " ");
        for (i = 1; i <= n; ++i) {
            o = t["Checksum/ours/" sizes[i]]; p = t["Checksum/peer/" sizes[i]]; m = t["Checksum/memcpy/" sizes[i]];
            printf "%-28s %10.1fns %10.1fns %10.1fns %10.2f %12.2f\n", "chain checksum " sizes[i] " B", o, p, m, p / o, m / o;
        }
        o = t["Tso64K/ours"] - t["Tso64K/ours_build"]; p = t["Tso64K/peer"];
        printf "%-28s %10.1fus %10.1fus %12s %10.2f %12s\n", "cut 64 KiB with sums", o / 1000, p / 1000, "-", p / o, "-";
    }' "$out"
done
