#!/usr/bin/env bash
# The command line: --version prints the library's version string, every
# subcommand has --help, and a wrong argument is one line on stderr with
# exit code 2.
set -u
tool=$1
fail=0
check() { if ! eval "$2"; then echo "FAIL: $1"; fail=1; fi; }

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
exit $fail
