#!/usr/bin/env bash
# A local user (nobody, through setpriv) against the family's shared objects in /dev/shm (the test's
# own names in its own /dev/shm): a status block made beforehand with mode 0600 is refused and
# logged by name, and the host's responder starts under objects of its own; the host's own objects
# cannot be written by the intruder (owner word, notify word, the activity map cut short), so KR2
# keeps answering; and a stopped host leaves no object behind.
# Usage: shared_intruder.sh BUILD_DIR WORK_DIR
. "$(dirname "$0")/fault-lib.sh"
FAULT_CHECK_S=60 FAULT_OTHER_USERS=1
fault_begin "$@"

shm=/dev/shm/$CHRONWARDEN_SHM_NAMESPACE
block=${shm}Global.kairtim-sync-status-shared-memory
notify=${shm}Global.kairtim-sync-status-notify-event
map=${shm}Global.kairtim-activity
as_nobody() { setpriv --reuid=nobody --regid=nogroup --clear-groups "$@"; }
family_objects() { ls -1 /dev/shm | grep -c "^$CHRONWARDEN_SHM_NAMESPACE" || true; }

stop_host() {
  kill -TERM "$HOST_PID"
  wait "$HOST_PID" 2>/dev/null || true
  HOST_PID=""
}

# 1. The block squatted before the host starts: once the responder stayed silent for good, with
# nothing in the log.
as_nobody /usr/bin/python3 -c "import os; fd = os.open('$block', os.O_CREAT | os.O_EXCL | os.O_RDWR, 0o600); os.ftruncate(fd, 32)"
fault_start_host
grep -qF "The shared object /${CHRONWARDEN_SHM_NAMESPACE}Global.kairtim-sync-status-shared-memory is not this product's" \
  "$fault_log" || fault_fail "the squatted block was not logged"
stop_host
rm -f "$block"
[ "$(family_objects)" = 0 ] || fault_fail "objects left after the host stopped: $(ls /dev/shm)"

# 2. The host's own objects: the intruder tries what once silenced the responder (owner word and a
# pulse), pinned the host on a core (the notify word left set) and killed it (the map cut short).
fault_start_host
attack=$(as_nobody /usr/bin/python3 - "$block" "$notify" "$map" <<'PY' 2>&1 || true
import os, struct, sys
block, notify, event_map = sys.argv[1:4]
done = []
for path, how in ((block, "owner word"), (notify, "notify word"), (event_map, "map cut")):
    try:
        fd = os.open(path, os.O_RDWR)
        if how == "owner word":
            os.pwrite(fd, struct.pack("<I", 1), 4)
        elif how == "notify word":
            os.pwrite(fd, struct.pack("<I", 3), 0)
        else:
            os.ftruncate(fd, 0)
        done.append(how)
    except OSError as e:
        print("refused:", how, e.strerror)
print("done:", ",".join(done))
PY
)
echo "$attack"
echo "$attack" | grep -q "^done: $" || fault_fail "the intruder changed the host's objects: $attack"
sleep 2
fault_expect_host_alive "after the intruder's attempts"
lab_wait 10 "KR2 answers after the intruder's attempts" fault_kr2_answers
"$lab_cw" kr2 127.0.0.1 status >/dev/null || fault_fail "chronwarden kr2 127.0.0.1 status: exit $?"
stop_host
[ "$(family_objects)" = 0 ] || fault_fail "objects left after the host stopped: $(ls /dev/shm)"
echo "PASS: the intruder could not squat or change the family's shared objects"
