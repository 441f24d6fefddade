#!/usr/bin/env bash
# Builds the fuzz preset and runs libFuzzer harnesses, two at a time.
#   scripts/fuzz.sh [seconds] [harness...]    (default: 10 s each, all of them)
# Each harness starts from its seeds (fuzz/corpus/<name>, read only) and a
# working corpus under build/fuzz/corpus/<name> that grows from run to run,
# with fuzz/dict/<name>.dict where there is one. Prints per harness the
# executions, coverage (cov, ft) and findings (crash/leak/timeout files under
# build/fuzz/findings/<name>), then "fuzz <name>: passed" or "FAILED".
# Exits non-zero on any finding. FUZZ_RUNS=n also stops each harness after n
# executions; FUZZ_NO_BUILD=1 skips the build (for runs started side by side).
# Runs take seed 1, so that a red run is the code's and can be repeated;
# FUZZ_SEED=0 asks for a random seed (the long runs use it).
set -uo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-10}
shift || true
all=(tlv image message pipe frame vector tag trace inspect)
harnesses=("$@")
(( ${#harnesses[@]} )) || harnesses=("${all[@]}")

# Longest input worth trying, per form.
declare -A max_len=([tlv]=8192 [image]=8192 [message]=8192 [pipe]=16384 [frame]=16384
                    [vector]=16384 [tag]=4096 [trace]=16384 [inspect]=16384)

# A compiler cache, where the machine has one, keeps repeated runs quick.
if command -v ccache >/dev/null; then
    export CMAKE_C_COMPILER_LAUNCHER=${CMAKE_C_COMPILER_LAUNCHER:-ccache}
    export CMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER:-ccache}
fi
targets=()
for h in "${harnesses[@]}"; do targets+=("krm_fuzz_$h"); done
if [[ -z "${FUZZ_NO_BUILD:-}" ]]; then
    { cmake --preset fuzz >/dev/null && cmake --build build/fuzz -j2 --target "${targets[@]}"; } ||
        { echo "fuzz: build failed"; exit 1; }
fi

run_one() {
    local h=$1 work=build/fuzz/corpus/$1 out=build/fuzz/findings/$1 log=build/fuzz/logs/$1.log
    mkdir -p "$work" "$out" "$(dirname "$log")"
    rm -f "$out"/*
    local dict=()
    [[ -f fuzz/dict/$h.dict ]] && dict=(-dict="fuzz/dict/$h.dict")
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
        build/fuzz/fuzz/krm_fuzz_"$h" -max_total_time="$seconds" -max_len="${max_len[$h]:-8192}" \
        -seed="${FUZZ_SEED:-1}" ${FUZZ_RUNS:+-runs=$FUZZ_RUNS} -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$out/" "${dict[@]}" \
        "$work" "fuzz/corpus/$h" >"$log" 2>&1
}

report() {
    local h=$1 rc=$2 log=build/fuzz/logs/$1.log
    local runs cov ft findings
    runs=$(grep -oE 'stat::number_of_executed_units: *[0-9]+' "$log" | tail -n 1 | grep -oE '[0-9]+$')
    cov=$(grep -oE 'cov: [0-9]+' "$log" | tail -n 1 | grep -oE '[0-9]+')
    ft=$(grep -oE 'ft: [0-9]+' "$log" | tail -n 1 | grep -oE '[0-9]+')
    findings=$(find "build/fuzz/findings/$h" -type f | wc -l)
    printf 'fuzz %-8s %10s runs  cov %5s  ft %6s  findings %s\n' "$h" "${runs:-?}" "${cov:-?}" \
        "${ft:-?}" "$findings"
    if (( rc != 0 || findings != 0 )); then
        find "build/fuzz/findings/$h" -type f -printf '    %p\n'
        grep -m 3 -E 'ERROR|fuzz: ' "$log" | sed 's/^/    /'
        echo "fuzz $h: FAILED (log $log)"
        return 1
    fi
    echo "fuzz $h: passed"
}

status=0
for (( i = 0; i < ${#harnesses[@]}; i += 2 )); do
    pair=("${harnesses[@]:i:2}")
    pids=()
    for h in "${pair[@]}"; do
        run_one "$h" >/dev/null 2>&1 &
        pids+=($!)
    done
    for j in "${!pair[@]}"; do
        wait "${pids[$j]}"
        report "${pair[$j]}" $? || status=1
    done
done
exit $status
