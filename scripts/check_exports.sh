#!/usr/bin/env bash
# Compares the dynamic symbols libkrm_mbuf.so defines with the documented
# list (abi/*.txt, one C name per line). Any difference fails.
#   check_exports.sh LIB ABI_DIR
#   check_exports.sh --drop-one LIB ABI_DIR   (self-check: forget one documented
#                                              name; the check must then fail)
set -euo pipefail

drop_one=0
if [[ "${1:-}" == "--drop-one" ]]; then
    drop_one=1
    shift
fi
lib=${1:?library}
abi_dir=${2:?abi directory}
nm_tool=${NM:-nm}

expected=$(cat "$abi_dir"/*.txt | sed -e 's/#.*//' -e 's/[[:space:]]//g' | grep -v '^$' | sort -u)
if (( drop_one )); then
    expected=$(printf '%s\n' "$expected" | sed 1d)
fi
actual=$("$nm_tool" -D --defined-only "$lib" | awk 'NF == 3 { print $3 }' | sort -u)

undocumented=$(comm -13 <(printf '%s\n' "$expected") <(printf '%s\n' "$actual"))
missing=$(comm -23 <(printf '%s\n' "$expected") <(printf '%s\n' "$actual"))
if [[ -n "$undocumented" ]]; then
    printf 'exported but not documented: %s\n' $undocumented
fi
if [[ -n "$missing" ]]; then
    printf 'documented but not exported: %s\n' $missing
fi
if [[ -n "$undocumented$missing" ]]; then
    exit 1
fi
echo "exports match: $(printf '%s\n' "$actual" | grep -c .) names"
