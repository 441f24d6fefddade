#!/usr/bin/env bash
# tso on a capture built from the formats: tshark reads the output, finds
# every IP and TCP checksum good, the payload cut at the MSS, the sequence
# numbers advancing by it, and the packets that need no cut unchanged.
set -u
tool=$1
dir=$2/tso_test
rm -rf "$dir" && mkdir -p "$dir"
fail=0
check() { if ! eval "$2"; then echo "FAIL: $1"; fail=1; fi; }
here=$(dirname "$0")

for mss in 1000 1460 536; do
    want=$(python3 "$here/make_tcp_pcap.py" "$dir/in.pcap" $mss)
    "$tool" tso --mss $mss "$dir/in.pcap" "$dir/out.pcapng" 2> "$dir/tso.err"; rc=$?
    cat "$dir/tso.err"
    check "mss $mss: tso exits 0" '[[ $rc -eq 0 ]]'
    tshark -r "$dir/out.pcapng" -o ip.check_checksum:TRUE -o tcp.check_checksum:TRUE \
        -T fields -E separator=, -e tcp.len -e ip.checksum.status -e tcp.checksum.status \
        -e tcp.seq_raw -e udp.length > "$dir/fields.txt" 2>/dev/null; trc=$?
    check "mss $mss: tshark reads the output" '[[ $trc -eq 0 ]]'
    got=$(awk -F, '$1 != "" {printf "%s ", $1}' "$dir/fields.txt" | sed 's/ $//')
    check "mss $mss: TCP payloads $got, want $want" '[[ $got == "$want" ]]'
    check "mss $mss: no bad TCP checksum" '! cut -d, -f3 "$dir/fields.txt" | grep -qv "^[12]\?$"'
    check "mss $mss: every TCP checksum verified good" '[[ $(cut -d, -f3 "$dir/fields.txt" | grep -c "^1$") -eq $(echo $want | wc -w) ]]'
    check "mss $mss: no bad IPv4 checksum" '! cut -d, -f2 "$dir/fields.txt" | grep -q "^0$"'
    check "mss $mss: UDP and other frames copied" '[[ $(grep -c ",2008$" "$dir/fields.txt") -eq 1 && $(wc -l < "$dir/fields.txt") -eq $(( $(echo $want | wc -w) + 2 )) ]]'
    seqs=$(awk -F, '$1 != "" && NR <= '"$(( (5000 + mss - 1) / mss ))"' {printf "%s ", $4}' "$dir/fields.txt")
    expect_seqs=$(for ((o = 0; o < 5000; o += mss)); do printf "%d " $((1000 + o)); done)
    check "mss $mss: IPv4 sequence numbers $seqs" '[[ $seqs == "$expect_seqs" ]]'
done
exit $fail
