# The fault suite's common part, sourced (bash) by each tests/faults/*.sh, which ctest runs as
#   bash tests/faults/NAME.sh BUILD_DIR WORK_DIR
# fault_begin "$@" moves the script into namespaces of its own (user, network, mount: only its
# loopback, brought up; private tmpfs over /dev/shm and /run, so that no shared-memory name or
# run-time file of the run can reach the machine), makes WORK_DIR afresh with the machine root in
# it, starts chronyd -x on 127.0.0.1 as the reference and a second chronyd -x as the machine's NTP
# client (scripts/host-lab.sh), and registers the provider. Everything started is stopped by PID at
# exit, whatever the outcome; a failure shows the host's log.
set -euo pipefail

fault_source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
. "$fault_source_dir/scripts/host-lab.sh"

HOST_PID="" LOAD_PID=""

fault_begin() {
  if [ -z "${CW_FAULT_NS:-}" ]; then
    # FAULT_OTHER_USERS=1: the machine's own users (nobody) act in the test, so no user namespace
    # (it maps root alone): the script must run as root.
    if [ -n "${FAULT_OTHER_USERS:-}" ]; then
      [ "$(id -u)" = 0 ] || { echo "PASS: skipped: needs root (other users act in it)"; exit 0; }
      exec unshare -n -m env CW_FAULT_NS=1 bash "$0" "$@"
    fi
    exec unshare -r -n -m env CW_FAULT_NS=1 bash "$0" "$@"
  fi
  fault_build=$(cd "${1:?usage: $0 BUILD_DIR WORK_DIR}" && pwd)
  fault_work=${2:?usage: $0 BUILD_DIR WORK_DIR}
  ip link set lo up
  mount -t tmpfs -o size=16m,mode=1777 tmpfs /dev/shm
  mount -t tmpfs -o size=4m,mode=755 tmpfs /run
  rm -rf "$fault_work"
  mkdir -p "$fault_work/root/system32" "$fault_work/ntp"
  fault_work=$(cd "$fault_work" && pwd)
  export CHRONWARDEN_ROOT="$fault_work/root" CHRONWARDEN_SHM_NAMESPACE="cwfault$$." TZ=UTC
  lab_cw=$fault_build/cli/chronwarden
  fault_host_bin=$fault_build/host/chronwarden-host
  fault_module=$fault_build/w32tmkr.cpl
  fault_drift=$CHRONWARDEN_ROOT/system32/drift.kr
  fault_log=$fault_work/host.log
  for need in "$lab_cw" "$fault_host_bin" "$fault_module" "$LAB_CHRONYD"; do
    [ -x "$need" ] || [ -f "$need" ] || fault_fail "missing $need (build the linux preset first)"
  done
  trap fault_end EXIT
  sh "$fault_source_dir/scripts/ntp-peers.sh" start "$fault_work/ntp"
  lab_client_start "$fault_work/ntp"
  lab_register_provider "${FAULT_CHECK_S:-1}" "$fault_module" >/dev/null
}

fault_end() {
  local status=$?
  trap - EXIT
  fault_stop_load
  if [ -n "$HOST_PID" ]; then
    kill -TERM "$HOST_PID" 2>/dev/null || true
    local i=0
    while fault_alive "$HOST_PID" && [ $i -lt 100 ]; do sleep 0.1; i=$((i + 1)); done
    kill -KILL "$HOST_PID" 2>/dev/null || true
    wait "$HOST_PID" 2>/dev/null || true
  fi
  lab_client_stop
  sh "$fault_source_dir/scripts/ntp-peers.sh" stop "$fault_work/ntp" || true
  if [ $status != 0 ]; then
    echo "---- partner text: $(lab_partner)"
    echo "---- the host's log (last 60 lines)"
    tail -n 60 "$fault_log" 2>/dev/null || true
  fi
  exit $status
}

fault_fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# A process that is there and not a zombie.
fault_alive() {
  [ -r "/proc/$1/status" ] && ! grep -q '^State:[[:space:]]*Z' "/proc/$1/status" 2>/dev/null
}

# KR2 status answered within MS (default 500).
fault_kr2_answers() {
  "$lab_cw" kr2 127.0.0.1 status --timeout "${1:-500}" >/dev/null 2>&1
}

# chronwarden-host with a 1 s sample poll, its log lines (--foreground) appended to $fault_log;
# returns when KR2 answers.
fault_start_host() {
  "$fault_host_bin" --foreground --poll 1 --chrony-socket "$fault_work/ntp/client.sock" >>"$fault_log" 2>&1 &
  HOST_PID=$!
  lab_wait 30 "KR2 answers after the host started" fault_kr2_answers
}

fault_expect_host_alive() {
  fault_alive "$HOST_PID" || fault_fail "chronwarden-host ended: $*"
}

# KR2 traffic from scripts/kr2-load.py (arguments passed on), until fault_stop_load, which leaves
# its "sent N answered M" in FAULT_LOAD_SUMMARY and the answers in FAULT_LOAD_ANSWERED.
fault_start_load() {
  python3 "$fault_source_dir/scripts/kr2-load.py" "$@" >"$fault_work/load.out" 2>&1 &
  LOAD_PID=$!
}

fault_stop_load() {
  [ -n "$LOAD_PID" ] || return 0
  kill -TERM "$LOAD_PID" 2>/dev/null || true
  wait "$LOAD_PID" 2>/dev/null || true
  LOAD_PID=""
  FAULT_LOAD_SUMMARY=$(tail -n 1 "$fault_work/load.out")
  FAULT_LOAD_ANSWERED=$(echo "$FAULT_LOAD_SUMMARY" | sed -n 's/^sent [0-9]* answered \([0-9]*\)$/\1/p')
}

# The number of drift records, after checking that the file holds whole records only and that
# `chronwarden history` lists each of them.
fault_whole_records() {
  local size listed
  size=$(stat -c %s "$fault_drift")
  [ $((size % 20)) = 0 ] || fault_fail "the drift file holds a torn record ($size bytes)"
  listed=$("$lab_cw" history "$fault_drift" --csv | tail -n +2 | grep -c . || true)
  [ "$listed" = $((size / 20)) ] || fault_fail "history lists $listed records of $((size / 20))"
  echo $((size / 20))
}

fault_drift_records() { echo $(( $(stat -c %s "$fault_drift" 2>/dev/null || echo 0) / 20 )); }

# The provider's last check as KR2 reports it.
fault_last_check() {
  "$lab_cw" kr2 127.0.0.1 status --timeout 500 2>/dev/null | sed -n 's/^last check: *//p'
}

# Returns once the provider has checked N more times (each check moves its last-check time on).
fault_wait_checks() {
  local n=$1 seen now i=0
  seen=$(fault_last_check)
  while [ $i -lt "$n" ]; do
    check_moved() { now=$(fault_last_check); [ -n "$now" ] && [ "$now" != "$seen" ]; }
    lab_wait 30 "check $((i + 1)) of $n" check_moved
    seen=$now i=$((i + 1))
  done
}

# How many times the host's log has LINE (a fixed string) so far.
fault_log_count() { grep -cF -- "$1" "$fault_log" || true; }
