#!/usr/bin/env bash
# The drift file's disk fills up (a 64 KiB tmpfs over the machine root's system32, in the test's
# own mount namespace): the provider's append fails with exactly one event in the host's log, the
# file keeps whole records only while the checks go on, and appends resume once there is room.
# Usage: disk_full.sh BUILD_DIR WORK_DIR
. "$(dirname "$0")/fault-lib.sh"
FAULT_CHECK_S=1
fault_begin "$@"
event='could not be recorded in the drift history'

mount -t tmpfs -o size=64k,mode=755 tmpfs "$CHRONWARDEN_ROOT/system32"
# 203 records: the file's first page has room for one more, the one after that needs a new page.
# The command writes the first; the others are copies of it a second apart (one process, not 202).
"$lab_cw" history append "$fault_drift" --variance 0 --time 1700000000 --source 127.0.0.1 >/dev/null
python3 - "$fault_drift" <<'PY'
import struct, sys
with open(sys.argv[1], "r+b") as f:
    first = bytearray(f.read(20))
    f.seek(0, 2)
    for i in range(1, 203):
        struct.pack_into("<I", first, 8, 1700000000 + i)   # the check's time, seconds since 1970
        f.write(first)
PY
[ "$(fault_drift_records)" = 203 ] || fault_fail "the history was not made: $(fault_drift_records) records"
dd if=/dev/zero of="$CHRONWARDEN_ROOT/system32/filler" bs=4k 2>/dev/null || true   # until the disk is full
[ "$(df --output=avail "$CHRONWARDEN_ROOT/system32" | tail -1 | tr -d ' ')" = 0 ] || fault_fail "the disk is not full"

lab_wait 30 "the client chronyd synchronized" lab_client_synced "$fault_work/ntp"
fault_start_host
at_204() { [ "$(fault_drift_records)" -ge 204 ]; }
lab_wait 30 "the start-up check recorded in the page's last room" at_204
logged() { [ "$(fault_log_count "$event")" -ge 1 ]; }
lab_wait 30 "an event for the failed append" logged
for round in 1 2 3; do
  fault_wait_checks 1
  sleep 0.5   # past this check's append
  [ "$(fault_whole_records)" = 204 ] || fault_fail "a record was added on the full disk"
done
fault_expect_host_alive "with the disk full"
[ "$(fault_log_count "$event")" = 1 ] || fault_fail "$(fault_log_count "$event") events for one run of failed appends"
grep -F -- "$event" "$fault_log" | grep -qF "There is not enough space on the disk." ||
  fault_fail "the event does not say the disk is full: $(grep -F -- "$event" "$fault_log")"

rm "$CHRONWARDEN_ROOT/system32/filler"
more_records() { [ "$(fault_drift_records)" -ge 206 ]; }
lab_wait 30 "appends resumed after room came back" more_records
fault_wait_checks 1
sleep 0.5
fault_whole_records >/dev/null
[ "$(fault_log_count "$event")" = 1 ] || fault_fail "$(fault_log_count "$event") events after the appends resumed"
fault_kr2_answers || fault_fail "KR2 does not answer"
echo "PASS: a full disk under the drift file"
