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
echo "${passed} passed, ${failed} failed"
(( failed != 0 )) && status=1
exit $status
