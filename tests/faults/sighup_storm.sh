#!/usr/bin/env bash
# SIGHUP storms (the host's "reload the settings") during a KR2 flood, and the agent's settings
# changed (chronwarden agent set, then SIGHUP as the service manager's reload sends it) while its
# checks run: the host stays up, answers KR2, takes the last settings and goes on checking.
# Usage: sighup_storm.sh BUILD_DIR WORK_DIR
. "$(dirname "$0")/fault-lib.sh"
FAULT_CHECK_S=1
fault_begin "$@"
reload='settings changed: the providers reload them'

lab_wait 30 "the client chronyd synchronized" lab_client_synced "$fault_work/ntp"
fault_start_host
fault_start_load --window 32
for burst in $(seq 20); do
  for i in $(seq 25); do kill -HUP "$HOST_PID"; done
  sleep 0.05
done
fault_expect_host_alive "after 500 SIGHUPs under a KR2 flood"
lab_wait 15 "KR2 answers after the storm" fault_kr2_answers
[ "$(fault_log_count "$reload")" -ge 1 ] || fault_fail "no reload logged"
records=$(fault_drift_records)
grown() { [ "$(fault_drift_records)" -gt "$records" ]; }
lab_wait 30 "a check after the storm" grown

# The silent peer as the reference: each check first waits for its reply in vain, then asks
# 127.0.0.1 (the last time source), so the changes below land in the middle of checks.
"$lab_cw" reg set "$LAB_PROVIDER_KEY" "Reference Clock" --data 127.0.0.2 >/dev/null
kill -HUP "$HOST_PID"
for i in $(seq 20); do
  "$lab_cw" agent set warn=$((i % 2)) threshold=$((10 + i)) --no-apply >/dev/null ||
    fault_fail "chronwarden agent set: exit $?"
  # The page keeps the check interval in whole minutes: put the test's 1 s back.
  "$lab_cw" reg set "$LAB_PROVIDER_KEY" SpecialPollInterval --type dword --data 1 >/dev/null
  kill -HUP "$HOST_PID"
  for j in 1 2 3 4 5; do kill -HUP "$HOST_PID"; done
  sleep 0.1
done
fault_expect_host_alive "after settings changes during checks"
fault_stop_load
[ "${FAULT_LOAD_ANSWERED:-0}" -gt 0 ] || fault_fail "the flood got no answers: $FAULT_LOAD_SUMMARY"
# Each check now waits 2 s for the silent peer on the agent's thread: a request waits that long.
lab_wait 20 "KR2 answers after the settings changes (within 5 s)" fault_kr2_answers 5000
shown=$("$lab_cw" agent show)
echo "$shown" | grep -q '^threshold=30\b' || fault_fail "the last threshold is not kept: $shown"
echo "$shown" | grep -q '^warn=0\b' || fault_fail "the last warning choice is not kept: $shown"
echo "$shown" | grep -q '^reference=127.0.0.2\b' || fault_fail "the reference is not kept: $shown"
records=$(fault_drift_records)
lab_wait 30 "a check after the settings changes (past the silent reference)" grown
fault_whole_records >/dev/null
echo "flood: $FAULT_LOAD_SUMMARY; reloads logged: $(fault_log_count "$reload")"
echo "PASS: SIGHUP storms and settings changes under load"
