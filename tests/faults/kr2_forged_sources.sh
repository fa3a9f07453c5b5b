#!/usr/bin/env bash
# Forged sources against the host's real KR2 responder, from addresses of the test's own network
# namespace (10.9.0.0/24 on its loopback device: not 127/8, which is never limited):
# - the eviction attack: the victim's address floods status requests while eight forged neighbours
#   of its /24 ask beside it; the victim is sent no more than the burst and the rate over the time
#   (its bucket is never forgotten and started again full);
# - short datagrams: 1 to 4 bytes, and a 160 of fewer than 12, after a request that filled the
#   receive buffer, get silence, never a reply built from that request.
# Usage: kr2_forged_sources.sh BUILD_DIR WORK_DIR
. "$(dirname "$0")/fault-lib.sh"
fault_begin "$@"
forge="python3 $fault_source_dir/tests/faults/kr2_forge.py"
for host in 1 10 $(seq 11 18) 30; do ip addr add "10.9.0.$host/32" dev lo; done
fault_start_host

neighbours=""
for host in $(seq 11 18); do neighbours="$neighbours --neighbour 10.9.0.$host"; done
result=$($forge evict --to 10.9.0.1 --victim 10.9.0.10 $neighbours --seconds 3)
echo "eviction attack: $result"
read -r _ got _ seconds _ answered <<<"$result"
rate=2048 burst=16384 status=355   # the defaults of "KR2 Rate Limit" and "KR2 Rate Burst"
cap=$(python3 -c "print(int($burst + $rate * $seconds + $status))")
[ "$answered" -gt 0 ] || fault_fail "the neighbours got no answer: the attack did not reach the responder"
[ "$got" -gt 0 ] || fault_fail "the victim got no answer at all"
[ "$got" -le "$cap" ] || fault_fail "the victim was sent $got bytes in $seconds s, more than the cap of $cap"

result=$($forge short --to 10.9.0.1 --source 10.9.0.30)
echo "short datagrams: $result"
expected="n=tz:504 n=1:0 n=2:0 n=3:0 n=4:0 n=160/8:0 n=160/11:0 n=128/5:355 n=160/12:20"
[ "$result" = "$expected" ] || fault_fail "short datagrams: expected $expected"
fault_expect_host_alive "after the forged sources"
echo "PASS: forged neighbours cannot reset a victim's limit; short datagrams get silence"
