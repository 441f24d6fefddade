#!/usr/bin/env bash
# inspect on the golden files: the text output equals the reviewed golden
# output (OUTDIR/<input name>.txt), --json is one valid JSON document, and
# every cut of a golden file is refused with one line and exit code 2, never
# a crash. Usage: inspect_test.sh TOOL OUTDIR INPUT...
set -u
tool=$1
outdir=$2
shift 2
fail=0
check() { if ! eval "$2"; then echo "FAIL: $1"; fail=1; fi; }
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

count=0
for input in "$@"; do
    count=$((count + 1))
    want="$outdir/$(basename "$input").txt"
    "$tool" inspect "$input" > "$tmp/got.txt" 2>&1
    check "$(basename "$input") matches its golden output" 'diff -u "$want" "$tmp/got.txt"'
    "$tool" inspect --json - < "$input" > "$tmp/got.json"
    check "$(basename "$input") --json is valid JSON" 'python3 -m json.tool "$tmp/got.json" >/dev/null'
    size=$(stat -c %s "$input")
    for cut in 0 1 7 19 20 64 $((size / 2)) $((size - 29)) $((size - 1)); do
        (( cut >= 0 && cut < size )) || continue
        head -c "$cut" "$input" > "$tmp/cut.bin"
        "$tool" inspect "$tmp/cut.bin" > /dev/null 2> "$tmp/cut.err"; rc=$?
        check "$(basename "$input") cut to $cut: exit 2 (got $rc)" '[[ $rc -eq 2 ]]'
        check "$(basename "$input") cut to $cut: one line" '[[ $(wc -l < "$tmp/cut.err") -eq 1 ]]'
    done
done
check "golden files found" '[[ $count -gt 0 ]]'
exit $fail
