#!/usr/bin/env bash
# chronwarden-host killed with SIGKILL while a KR2 flood runs and the provider appends a drift
# record every second, then started again, three times: the drift history keeps whole records, the
# family's shared memory and events (the test's own names, in its own /dev/shm) are reused or
# removed, never made anew under other names, and KR2 answers again.
# Usage: host_killed.sh BUILD_DIR WORK_DIR
. "$(dirname "$0")/fault-lib.sh"
FAULT_CHECK_S=1
fault_begin "$@"

shm_names() { ls -1 /dev/shm | sort; }
lab_wait 30 "the client chronyd synchronized" lab_client_synced "$fault_work/ntp"
fault_start_host
fault_start_load --window 32
names=$(shm_names)
[ -n "$names" ] || fault_fail "the host made no shared objects"
foreign=$(echo "$names" | grep -v "^$CHRONWARDEN_SHM_NAMESPACE" || true)
[ -z "$foreign" ] || fault_fail "shared objects outside the test's names: $foreign"

for round in 1 2 3; do
  records=$(fault_drift_records)
  grown() { [ "$(fault_drift_records)" -ge $((records + 2)) ]; }
  lab_wait 30 "round $round: two more drift records under the flood" grown
  kill -KILL "$HOST_PID"
  wait "$HOST_PID" 2>/dev/null || true
  HOST_PID=""
  fault_whole_records >/dev/null
  fault_start_host
  after=$(shm_names)
  new=$(comm -13 <(echo "$names") <(echo "$after"))
  [ -z "$new" ] || fault_fail "round $round: shared objects made anew after the restart: $new"
  fault_expect_host_alive "round $round: after the restart"
done
echo "shared objects: $(echo $names)"
records=$(fault_drift_records)
grown() { [ "$(fault_drift_records)" -gt "$records" ]; }
lab_wait 30 "a drift record after the last restart" grown
fault_stop_load
[ "${FAULT_LOAD_ANSWERED:-0}" -gt 0 ] || fault_fail "the flood got no answers: $FAULT_LOAD_SUMMARY"
fault_whole_records >/dev/null
"$lab_cw" kr2 127.0.0.1 status >/dev/null || fault_fail "chronwarden kr2 127.0.0.1 status: exit $?"
echo "flood: $FAULT_LOAD_SUMMARY"
echo "PASS: the host killed under a KR2 flood and started again"
