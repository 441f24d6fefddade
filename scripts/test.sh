#!/usr/bin/env bash
# The test command: native suite, AddressSanitizer + UBSan suite, the
# ThreadSanitizer suite (tests whose names say Thread), and the
# 32-bit big-endian PowerPC suite under qemu-user. Ends with one summary line.
set -uo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh || exit 1

passed=0
failed=0
status=0
for preset in default asan tsan ppc; do
    echo "=== ${preset} ==="
    log=$(mktemp)
    cmake --workflow --preset "$preset" 2>&1 | tee "$log"
    rc=${PIPESTATUS[0]}
    summary=$(grep -E '[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1)
    rm -f "$log"
    if [[ -z "$summary" ]]; then
        echo "${preset}: no test summary (build failed?)"
        status=1
        continue
    fi
    total=$(sed -E 's/.* out of ([0-9]+).*/\1/' <<<"$summary")
    bad=$(sed -E 's/.*passed, ([0-9]+) tests? failed.*/\1/' <<<"$summary")
    passed=$((passed + total - bad))
    failed=$((failed + bad))
    (( rc != 0 )) && status=1
done
# Across byte orders: the native peer and the big-endian peer under qemu-user
# talk through one socket, each way, by pipe and by message. Every packet
# must arrive equal; each run counts as one test.
native=(build/default/tools/pipe-peer/krm_pipe_peer)
bigend=(qemu-ppc -L /usr/powerpc-linux-gnu build/ppc/tools/pipe-peer/krm_pipe_peer)
echo "=== cross byte order ==="
for mode in pipe msg; do
    for dir in native-to-ppc ppc-to-native; do
        if [[ "$dir" == native-to-ppc ]]; then
            sender=("${native[@]}"); receiver=("${bigend[@]}")
        else
            sender=("${bigend[@]}"); receiver=("${native[@]}")
        fi
        sock=$(mktemp -u /tmp/krm-peer.XXXXXX)
        timeout 300 "${receiver[@]}" recv "$mode" "$sock" 300 &
        rpid=$!
        timeout 300 "${sender[@]}" send "$mode" "$sock" 300
        src=$?
        wait "$rpid"
        rrc=$?
        rm -f "$sock"
        if (( src == 0 && rrc == 0 )); then
            echo "cross ${mode} ${dir}: passed"
            passed=$((passed + 1))
        else
            echo "cross ${mode} ${dir}: FAILED (sender ${src}, receiver ${rrc})"
            failed=$((failed + 1))
        fi
    done
done
# Fuzzing: every harness for ten seconds from its seeds, two at a time (the
# fuzz preset builds first); each harness counts as one test.
echo "=== fuzz ==="
harnesses=$(ls fuzz/harness/*.cpp | wc -l)
fuzz_log=$(mktemp)
scripts/fuzz.sh 10 2>&1 | tee "$fuzz_log"
fuzz_passed=$(grep -cE '^fuzz [a-z]+: passed$' "$fuzz_log")
rm -f "$fuzz_log"
passed=$((passed + fuzz_passed))
failed=$((failed + harnesses - fuzz_passed))
echo "${passed} passed, ${failed} failed"
(( failed != 0 )) && status=1
exit $status
