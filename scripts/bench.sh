#!/usr/bin/env bash
# Builds the benchmarks (Release), installs the peer library's package where
# it is missing, runs the peer benchmarks on one CPU with repetitions and
# prints every figure of the library as a ratio to its peer and to memcpy of
# the same bytes (CPU time, the fastest of the repetitions and their median;
# a ratio is ours divided by theirs, so at most 1 means at least as fast).
# The figures are those of the shared library as it ships; the same
# program linked with the static archive runs next to it, and a last table
# shows what the shared library's calls cost. Usage:
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
cmake --build build/bench -j2 --target krm_peer_bench krm_peer_bench_static >/dev/null

pin=()
command -v taskset >/dev/null && pin=(taskset -c "$cpu")
run() {
    "${pin[@]}" "$@" --benchmark_repetitions="$reps" --benchmark_min_time=0.1 \
        --benchmark_report_aggregates_only=true --benchmark_format=csv 2>/dev/null
}
out=build/bench/peers_build.csv
offload_out=build/bench/peers_offload.csv
static_out=build/bench/peers_static.csv
# Three runs, because a CSV report wants the same counters in every row:
# building (shared library), our building figures again on the static
# archive, then checksums and segmentation.
bin=build/bench/bench/peers
run "$bin/krm_peer_bench" --benchmark_filter='^Build/' >"$out"
run "$bin/krm_peer_bench_static" --benchmark_filter='^Build/.*/ours' >"$static_out"
run "$bin/krm_peer_bench" --benchmark_filter='^(Checksum|Tso64K)/' >"$offload_out"

# name,iterations,real_time,cpu_time,...: one table per statistic.
for stat in min median; do
    echo "== $stat of $reps repetitions (CPU time; ratio = ours / theirs)"
    awk -F, -v stat="$stat" '
    FNR == 1 { file++ }
    $1 ~ ("_" stat "\"?$") {
        name = $1; gsub(/"/, "", name); sub("_" stat "$", "", name);
        if (file == 2) s[name] = $4; else t[name] = $4;
    }
    function row(label, o, p, m, unit,    f) {
        f = unit == "us" ? 1000 : 1;
        printf "%-34s %9.1f%s %9.1f%s ", label, o / f, unit, p / f, unit;
        if (m > 0) printf "%9.1f%s %10.2f %11.2f\n", m / f, unit, o / p, o / m;
        else printf "%11s %10.2f %11s\n", "-", o / p, "-";
    }
    END {
        printf "%-34s %11s %11s %11s %10s %11s\n", "figure", "ours", "peer", "memcpy", "ours/peer", "ours/memcpy";
        m = t["Build/memcpy/0"]; mu = t["Build/memcpy/1"];
        row("header node alloc + destroy", t["Build/hdr_alloc_destroy/ours"], t["Build/hdr_alloc_destroy/peer"], 0, "ns");
        row("node alloc + free", t["Build/node_alloc_free/ours"], t["Build/node_alloc_free/peer"], 0, "ns");
        row("create 1500 + prepend 54 + destroy", t["Build/create_prepend/ours"], t["Build/create_prepend/peer"], m, "ns");
        row("raw copy 1500 B, 1 node", t["Build/raw_copy/ours/1"], t["Build/raw_copy/peer/1"], m, "ns");
        row("raw copy 1500 B, 2 nodes", t["Build/raw_copy/ours/2"], t["Build/raw_copy/peer/2"], m, "ns");
        row("copy out 1500 B of 2 nodes", t["Build/copy_out/ours"], t["Build/copy_out/peer"], m, "ns");
        n = split("1500 9000 65536", sizes, " ");
        for (i = 1; i <= n; ++i) {
            row("chain checksum " sizes[i] " B", t["Checksum/ours/" sizes[i]], t["Checksum/peer/" sizes[i]], t["Checksum/memcpy/" sizes[i]], "ns");
        }
        row("cut 64 KiB with sums", t["Tso64K/ours"] - t["Tso64K/ours_build"], t["Tso64K/peer"], 0, "us");
        printf "memcpy 1500 B through the C library: aligned %.1fns, unaligned %.1fns, as the two pieces of a copy out %.1fns\n", m, mu, t["Build/memcpy_two_pieces"];
        printf "\n%-34s %11s %11s %14s\n", "ours, shared against static", "shared", "static", "shared/static";
        split("hdr_alloc_destroy node_alloc_free create_prepend raw_copy/ours/1 raw_copy/ours/2 copy_out", keys, " ");
        for (i = 1; i <= 6; ++i) {
            k = "Build/" keys[i]; if (keys[i] !~ /ours/) k = k "/ours";
            printf "%-34s %9.1fns %9.1fns %14.2f\n", keys[i], t[k], s[k], t[k] / s[k];
        }
    }' "$out" "$static_out" "$offload_out"
done
