#!/usr/bin/env bash
# The machine's NTP client (chronyd) stops under a running chronwarden-host and starts again: the
# host keeps running, the partner text says synchronization was lost and then that it failed (18
# unsynchronized polls later), and within two checks after chronyd is synchronized again the
# partner is back and the provider checks again (a new drift record).
# Usage: chronyd_restart.sh BUILD_DIR WORK_DIR
. "$(dirname "$0")/fault-lib.sh"
FAULT_CHECK_S=2
fault_begin "$@"

partner_is() { [ "$(lab_partner)" = "$1" ]; }
synced_partner='127.0.0.1 (no name)'

lab_wait 30 "the client chronyd synchronized" lab_client_synced "$fault_work/ntp"
fault_start_host
lab_wait 30 "the partner is 127.0.0.1" partner_is "$synced_partner"

lab_client_stop
lab_wait 15 "the partner text says synchronization was lost" partner_is "Unknown - Windows Time lost synchronization"
lab_wait 45 "the partner text says synchronization failed" partner_is "Unknown - Windows Time synchronization failed"
fault_expect_host_alive "while chronyd was stopped"
fault_kr2_answers || fault_fail "KR2 does not answer while chronyd is stopped"
records=$(fault_drift_records)

lab_client_start "$fault_work/ntp"
lab_wait 30 "the client chronyd synchronized again" lab_client_synced "$fault_work/ntp"
# Two checks of the provider from here (generous for a loaded machine: each is a 1 s poll at heart).
lab_wait $((2 * FAULT_CHECK_S + 2)) "the partner came back within two checks" \
  partner_is "$synced_partner"
more_records() { [ "$(fault_drift_records)" -gt "$records" ]; }
lab_wait 10 "a drift record after chronyd returned" more_records
fault_expect_host_alive "after chronyd returned"
fault_whole_records >/dev/null
echo "PASS: chronyd stopped and started under the host"
