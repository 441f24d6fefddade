#!/usr/bin/env bash
# Command-level tests of krm-mbuf, one case per run: tool_test.sh CASE TOOL DIR.
#   cli      --version prints the library's version string, every subcommand
#            has --help, and a wrong argument is one line on stderr, exit 2.
#   road     the native road with a capture: every packet comes back the
#            same, and tshark reads the capture: the hello and each packet
#            both ways, IPv4/UDP on the raw-IP link type, direction flags,
#            records as comments.
#   capture  a tap on a pipe another process writes to: to a file, and
#            streamed to standard output straight into tshark.
#   tso      tso on a capture built from the formats: tshark finds every IP
#            and TCP checksum good, the payload cut at the MSS, the sequence
#            numbers advancing by it, and the packets that need no cut copied.
set -u
case_=$1
tool=$2
dir=$3/${case_}_test
rm -rf "$dir" && mkdir -p "$dir"
fail=0
check() { if ! eval "$2"; then echo "FAIL: $1"; fail=1; fi; }

cli() {
    out=$("$tool" --version)
    check "--version prints the version string" '[[ $out == "@(#) MBUF_Version 1.1.0 PLX:C01B051 QRD:C00B301" ]]'
    for sub in road inspect capture tso; do
        out=$("$tool" $sub --help 2>&1); rc=$?
        check "$sub --help exits 0" '[[ $rc -eq 0 ]]'
        check "$sub --help shows its usage" '[[ $out == *"Usage:"*"$sub"* ]]'
    done
    while IFS='|' read -r args want; do
        err=$("$tool" $args 2>&1 >/dev/null); rc=$?
        check "'$args' exits 2 (got $rc)" '[[ $rc -eq 2 ]]'
        check "'$args' gives one line (got: $err)" '[[ $(printf "%s\n" "$err" | wc -l) -eq 1 ]]'
        check "'$args' names the problem (got: $err)" '[[ $err == "krm-mbuf: "*"$want"* ]]'
    done <<'ROWS'
--bogus|--bogus
road --peer vax|vax
road --packets 0|0
road --via carrier-pigeon|carrier-pigeon
capture --out x.pcapng|--pipe
capture --pipe 99 --out x|99
inspect /nonexistent/file|/nonexistent/file
tso --mss 0 a b|0
tso --mss 1000 /nonexistent.pcap out.pcapng|/nonexistent.pcap
ROWS
}

road() {
    "$tool" road --packets 5 --capture "$dir/road.pcapng" > "$dir/road.out" 2>&1; rc=$?
    cat "$dir/road.out"
    check "road exits 0" '[[ $rc -eq 0 ]]'
    check "summary counts 5 same" 'grep -q "5 sent, 5 came back the same" "$dir/road.out"'
    tshark -r "$dir/road.pcapng" -T fields -e frame.number -e ip.src -e udp.dstport \
        -e frame.comment -e pkt_comment -e frame.interface_name > "$dir/fields.txt" 2> "$dir/tshark.err"; trc=$?
    check "tshark reads the capture" '[[ $trc -eq 0 ]]'
    check "11 packets: hello and 5 each way" '[[ $(wc -l < "$dir/fields.txt") -eq 11 ]]'
    check "10 IPv4 packets" '[[ $(grep -c "10.0.0.1" "$dir/fields.txt") -eq 10 ]]'
    check "UDP ports of packets 0..4 both ways" '[[ $(cut -f3 "$dir/fields.txt" | grep -c "^600[0-4]$") -eq 10 ]]'
    tshark -r "$dir/road.pcapng" -V > "$dir/verbose.txt" 2>/dev/null
    check "direction flags both ways" 'grep -q "Direction: Inbound" "$dir/verbose.txt" && grep -q "Direction: Outbound" "$dir/verbose.txt"'
    check "records as comments" 'grep -q "record 2 IP len" "$dir/verbose.txt" && grep -q "flag2 0x" "$dir/verbose.txt"'
}

capture() {
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
}

tso() {
    for mss in 1000 1460 536; do
        want=$(python3 "$(dirname "$0")/make_tcp_pcap.py" "$dir/in.pcap" $mss)
        "$tool" tso --mss $mss "$dir/in.pcap" "$dir/out.pcapng" 2> "$dir/tso.err"; rc=$?
        cat "$dir/tso.err"
        check "mss $mss: tso exits 0" '[[ $rc -eq 0 ]]'
        tshark -r "$dir/out.pcapng" -o ip.check_checksum:TRUE -o tcp.check_checksum:TRUE \
            -T fields -E separator=, -e tcp.len -e ip.checksum.status -e tcp.checksum.status \
            -e tcp.seq_raw -e udp.length > "$dir/fields.txt" 2>/dev/null; trc=$?
        check "mss $mss: tshark reads the output" '[[ $trc -eq 0 ]]'
        got=$(awk -F, '$1 != "" {printf "%s ", $1}' "$dir/fields.txt" | sed 's/ $//')
        check "mss $mss: TCP payloads $got, want $want" '[[ $got == "$want" ]]'
        check "mss $mss: every TCP checksum verified good" '[[ $(cut -d, -f3 "$dir/fields.txt" | grep -c "^1$") -eq $(echo $want | wc -w) ]]'
        check "mss $mss: no bad IPv4 checksum" '! cut -d, -f2 "$dir/fields.txt" | grep -q "^0$"'
        check "mss $mss: UDP and other frames copied" '[[ $(grep -c ",2008$" "$dir/fields.txt") -eq 1 && $(wc -l < "$dir/fields.txt") -eq $(( $(echo $want | wc -w) + 2 )) ]]'
        seqs=$(awk -F, '$1 != "" && NR <= '"$(( (5000 + mss - 1) / mss ))"' {printf "%s ", $4}' "$dir/fields.txt")
        expect_seqs=$(for ((o = 0; o < 5000; o += mss)); do printf "%d " $((1000 + o)); done)
        check "mss $mss: IPv4 sequence numbers $seqs" '[[ $seqs == "$expect_seqs" ]]'
    done
}

"$case_"
exit $fail
