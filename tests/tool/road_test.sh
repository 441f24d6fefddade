#!/usr/bin/env bash
# The native road with a capture: every packet comes back the same, and
# tshark reads the capture: the hello and each packet both ways, IPv4/UDP
# on the raw-IP link type, direction flags, records as comments.
set -u
tool=$1
dir=$2/road_test
rm -rf "$dir" && mkdir -p "$dir"
fail=0
check() { if ! eval "$2"; then echo "FAIL: $1"; fail=1; fi; }

"$tool" road --packets 5 --capture "$dir/road.pcapng" > "$dir/road.out" 2>&1; rc=$?
cat "$dir/road.out"
check "road exits 0" '[[ $rc -eq 0 ]]'
check "summary counts 5 same" 'grep -q "5 sent, 5 came back the same" "$dir/road.out"'
check "summary shows round trip" 'grep -q "round trip:" "$dir/road.out"'
tshark -r "$dir/road.pcapng" -T fields -e frame.number -e ip.src -e udp.dstport \
    -e frame.comment -e pkt_comment -e frame.interface_name > "$dir/fields.txt" 2> "$dir/tshark.err"; trc=$?
check "tshark reads the capture" '[[ $trc -eq 0 ]]'
check "11 packets: hello and 5 each way" '[[ $(wc -l < "$dir/fields.txt") -eq 11 ]]'
check "10 IPv4 packets" '[[ $(grep -c "10.0.0.1" "$dir/fields.txt") -eq 10 ]]'
check "UDP ports of packets 0..4 both ways" '[[ $(cut -f3 "$dir/fields.txt" | grep -c "^600[0-4]$") -eq 10 ]]'
tshark -r "$dir/road.pcapng" -V > "$dir/verbose.txt" 2>/dev/null
check "direction flags both ways" 'grep -q "Direction: Inbound" "$dir/verbose.txt" && grep -q "Direction: Outbound" "$dir/verbose.txt"'
check "records as comments" 'grep -q "record 2 IP len" "$dir/verbose.txt" && grep -q "flag2 0x" "$dir/verbose.txt"'
exit $fail
