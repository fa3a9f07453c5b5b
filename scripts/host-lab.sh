# The machine that chronwarden-host runs on for real, in a machine root of its own: sourced (bash) by
# scripts/run-main.sh, the fault suite (tests/faults/) and the soak (bench/host_soak.sh).
#   lab_client_start DIR      chronyd -x as this machine's NTP client, following 127.0.0.1 (its files and
#                             command socket DIR/client.*; it never touches the clock); LAB_CLIENT_PID
#   lab_client_stop           stops it by PID and waits until it is gone
#   lab_client_synced DIR     true when that chronyd says it is synchronized (chronyc over its socket)
#   lab_register_provider CHECK_S [MODULE]
#                             the time service's settings in $CHRONWARDEN_ROOT: the Chronwarden provider
#                             (MODULE, default w32tmkr.cpl in system32) checking 127.0.0.1 every CHECK_S
#                             seconds, the NTP client on, every KR2 command allowed
#   lab_partner               the provider's "Current Inbound Time Partner" text
#   lab_wait SECONDS WHAT CMD...
#                             runs CMD every 0.2 s until it succeeds; after SECONDS says WHAT did not happen
#                             and fails
# Needs: CHRONWARDEN_ROOT set, $lab_cw the chronwarden program.

LAB_PROVIDER_KEY='\\System\CurrentControlSet\Services\W32Time\TimeProviders\Chronwarden'
LAB_NTP_CLIENT_KEY='\\System\CurrentControlSet\Services\W32Time\TimeProviders\NtpClient'
LAB_PARAMETERS_KEY='\\System\CurrentControlSet\Services\W32Time\Parameters'
LAB_CHRONYD=$(command -v chronyd || echo /usr/sbin/chronyd)
LAB_CLIENT_PID=""

lab_client_start() {
  local dir=$1
  mkdir -p "$dir"
  cat >"$dir/client.conf" <<CONF
server 127.0.0.1 iburst minpoll -2 maxpoll 0
port 0
cmdport 0
bindcmdaddress $dir/client.sock
pidfile $dir/client.pid
driftfile $dir/client.drift
CONF
  chmod 700 "$dir"   # chronyd keeps its command socket only in a folder closed to others
  "$LAB_CHRONYD" -x -d -u root -f "$dir/client.conf" >>"$dir/client.log" 2>&1 &
  LAB_CLIENT_PID=$!
}

lab_client_stop() {
  [ -n "$LAB_CLIENT_PID" ] || return 0
  kill -TERM "$LAB_CLIENT_PID" 2>/dev/null || true
  wait "$LAB_CLIENT_PID" 2>/dev/null || true
  LAB_CLIENT_PID=""
}

lab_client_synced() {
  chronyc -n -h "$1/client.sock" tracking 2>/dev/null | grep -q '^Leap status *: Normal'
}

lab_register_provider() {
  local check_s=$1 module=${2:-w32tmkr.cpl}
  "$lab_cw" reg set "$LAB_PROVIDER_KEY" Enabled --type dword --data 1
  "$lab_cw" reg set "$LAB_PROVIDER_KEY" DllName --data "$module"
  "$lab_cw" reg set "$LAB_PROVIDER_KEY" InputProvider --type dword --data 1
  "$lab_cw" reg set "$LAB_PROVIDER_KEY" SpecialPollInterval --type dword --data "$check_s"
  "$lab_cw" reg set "$LAB_PROVIDER_KEY" "Reference Clock" --data 127.0.0.1
  "$lab_cw" reg set "$LAB_PROVIDER_KEY" "DNS Lookups Enabled" --data False
  "$lab_cw" reg set "$LAB_NTP_CLIENT_KEY" Enabled --type dword --data 1
  "$lab_cw" reg set "$LAB_NTP_CLIENT_KEY" InputProvider --type dword --data 1
  "$lab_cw" reg set "$LAB_PARAMETERS_KEY" Type --data NTP
  # Every KR2 command allowed, so that the drift history can be read back over UDP.
  "$lab_cw" reg set "$LAB_PARAMETERS_KEY" "Prohibited KR2 Commands" --type binary --data "$(printf '00%.0s' $(seq 256))"
}

lab_partner() {
  "$lab_cw" reg query "$LAB_PROVIDER_KEY" "Current Inbound Time Partner" 2>/dev/null | sed -n 's/.*REG_SZ *//p'
}

lab_wait() {
  local seconds=$1 what=$2
  shift 2
  local deadline=$((SECONDS + seconds))
  until "$@"; do
    if [ "$SECONDS" -ge "$deadline" ]; then
      echo "FAIL: after ${seconds} s: $what" >&2
      return 1
    fi
    sleep 0.2
  done
}
