#!/usr/bin/env bash
# capture as a tap on a pipe another process writes to: to a file, and
# streamed to standard output straight into tshark.
set -u
tool=$1
dir=$2/capture_test
rm -rf "$dir" && mkdir -p "$dir"
fail=0
check() { if ! eval "$2"; then echo "FAIL: $1"; fail=1; fi; }
sock="$dir/pipe.sock"

"$tool" capture --pipe 9 --socket "$sock" --count 4 --timeout 20 --out "$dir/cap.pcapng" 2> "$dir/cap.err" &
cap=$!
sleep 0.5
"$tool" peer --pipe 9 --socket "$sock" --emit 3; prc=$?
wait $cap; crc=$?
cat "$dir/cap.err"
check "writer exits 0" '[[ $prc -eq 0 ]]'
check "capture exits 0 after 4 packets" '[[ $crc -eq 0 ]]'
n=$(tshark -r "$dir/cap.pcapng" -T fields -e frame.number 2>/dev/null | wc -l)
check "tshark reads 4 packets from the file (got $n)" '[[ $n -eq 4 ]]'
check "inbound direction" 'tshark -r "$dir/cap.pcapng" -V 2>/dev/null | grep -q "Direction: Inbound"'

("$tool" capture --pipe 9 --socket "$sock" --count 3 --timeout 20 --out - 2>/dev/null |
    tshark -r - -T fields -e udp.dstport > "$dir/stream.txt" 2>/dev/null) &
reader=$!
sleep 0.5
"$tool" peer --pipe 9 --socket "$sock" --emit 2
wait $reader
check "streamed packets reach tshark" '[[ $(grep -c "^600[01]$" "$dir/stream.txt") -eq 2 ]]'
exit $fail
