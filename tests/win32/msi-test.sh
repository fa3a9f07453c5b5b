#!/bin/sh
# The Windows installer under Wine, in a fresh copy of the build folder's prefix:
#   msiexec /i PACKAGE /qn  puts the module into system32 and chronwarden.exe into Program Files,
#     and the module's own install (a deferred action) registers the time provider, the Control
#     Panel category values and its uninstall entry (hidden: the package's entry is the one listed);
#   a repair (REINSTALL=ALL) runs the module's install again and keeps its settings;
#   msiexec /x {product code} /qn  (what the package's uninstall entry runs) takes all of it away,
#     the module's removal first; a second removal is refused (1605, unknown product);
#   with UPGRADE (the same package, a higher version): installed over the first, it replaces it (one
#     entry in Programs and Features); the older package's removal within an upgrade keeps the
#     provider's registration and settings;
#   an installation that fails after the module's install is rolled back.
# Wine differs from Windows in places; each check that shows a difference says so.
# Usage: msi-test.sh BUILD_PREFIX PACKAGE MODULE COMMAND WORKDIR [UPGRADE]
# MODULE and COMMAND are the built files the package holds. Runs on a virtual display of its own:
# the module's install opens its please-wait window even when quiet.
set -u
src=$1 msi=$2 cpl=$3 exe=$4 work=$5 upgrade=${6:-}
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=;winemenubuilder.exe=d"
export WINEPREFIX="$work/prefix"
rm -rf "$work" && mkdir -p "$work" && cp -a "$src" "$WINEPREFIX" || exit 1
sys32="$WINEPREFIX/drive_c/windows/system32"
progdir="$WINEPREFIX/drive_c/Program Files/Chronwarden"
uninstall='HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall'
applet_entry="$uninstall\\Chronwarden Control Panel Applet"
provider='HKLM\System\CurrentControlSet\Services\W32Time\TimeProviders\Chronwarden'
extended='HKLM\Software\Microsoft\Windows\CurrentVersion\Control Panel\Extended Properties'
category_value='%systemroot%\system32\w32tmkr.cpl'
fail=0

# expect CODE WHAT COMMAND...: the command must end with exit status CODE.
expect() {
  want=$1 what=$2; shift 2
  "$@" >"$work/out" 2>&1 </dev/null
  got=$?
  if [ "$got" -eq "$want" ]; then echo "ok: $what"; else echo "FAILED: $what (exit $got, expected $want)"; sed 's/^/  | /' "$work/out"; fail=1; fi
}
# has_value KEY NAME TYPE DATA: wine reg query prints exactly that value.
has_value() {
  wine reg query "$1" /v "$2" 2>/dev/null | tr -d '\r' | grep -qxF "    $2    $3    $4"
}
product_code() {  # the ProductCode property of a package
  msiinfo export "$1" Property | tr -d '\r' | sed -n 's/^ProductCode\t//p'
}
msi_log() { echo "Z:$work/$1.log"; }

code=$(product_code "$msi")
case $code in {*}) ;; *) echo "FAILED: no product code in $msi"; exit 1 ;; esac

installed_checks() {  # installed_checks VERSION CODE
  expect 0 "module in system32" cmp "$cpl" "$sys32/w32tmkr.cpl"
  expect 0 "chronwarden.exe in Program Files\\Chronwarden" cmp "$exe" "$progdir/chronwarden.exe"
  expect 0 "provider registered" has_value "$provider" "Current Version" REG_SZ 4.2.b.20081210R
  expect 0 "provider module name" has_value "$provider" DllName REG_SZ w32tmkr.cpl
  expect 0 "Control Panel category (property key)" \
    has_value "$extended\\{305CA226-D286-468e-B848-2B2E8E697B74} 2" "$category_value" REG_DWORD 0x6
  expect 0 "Control Panel category (System.ControlPanel.Category)" \
    has_value "$extended\\System.ControlPanel.Category" "$category_value" REG_DWORD 0x6
  expect 0 "module's uninstall entry" has_value "$applet_entry" UninstallString REG_SZ \
    'rundll32.exe C:\windows\system32\w32tmkr.cpl,RunDll -remove'
  expect 0 "module's uninstall entry hidden" has_value "$applet_entry" SystemComponent REG_DWORD 0x1
  expect 0 "package entry: name" has_value "$uninstall\\$2" DisplayName REG_SZ Chronwarden
  expect 0 "package entry: version" has_value "$uninstall\\$2" DisplayVersion REG_SZ "$1"
  expect 0 "package entry: publisher" has_value "$uninstall\\$2" Publisher REG_SZ 'Selvox, Inc.'
  expect 0 "package entry: help link" has_value "$uninstall\\$2" HelpLink REG_SZ http://www.selvox.example/support
  expect 0 "package entry: removal" has_value "$uninstall\\$2" UninstallString REG_EXPAND_SZ "MsiExec.exe /X$2"
}
removed_checks() {  # removed_checks CODE
  expect 1 "provider key removed" wine reg query "$provider"
  expect 1 "category value removed (property key)" \
    wine reg query "$extended\\{305CA226-D286-468e-B848-2B2E8E697B74} 2" /v "$category_value"
  expect 1 "category value removed (System.ControlPanel.Category)" \
    wine reg query "$extended\\System.ControlPanel.Category" /v "$category_value"
  expect 1 "module's uninstall entry removed" wine reg query "$applet_entry"
  expect 1 "package entry removed" wine reg query "$uninstall\\$1"
  expect 1 "module gone from system32" test -e "$sys32/w32tmkr.cpl"
  expect 1 "chronwarden.exe gone" test -e "$progdir/chronwarden.exe"
}

version=$(msiinfo export "$msi" Property | tr -d '\r' | sed -n 's/^ProductVersion\t//p')
expect 0 "msiexec /i $(basename "$msi") /qn" wine msiexec /i "Z:$msi" /qn /l*v "$(msi_log install)"
installed_checks "$version" "$code"
# The installed command reads the machine's registry like the system's tool.
installed_command_reads() {
  got=$(wine 'C:\Program Files\Chronwarden\chronwarden.exe' reg query \
          '\\System\CurrentControlSet\Services\W32Time\TimeProviders\Chronwarden' 'Current Version' --json) &&
    [ "$(printf '%s' "$got" | tr -d '\r')" = '[{"name": "Current Version", "type": 1, "data": "4.2.b.20081210R"}]' ]
}
expect 0 "installed chronwarden.exe reads the provider's version" installed_command_reads
# A setting of the provider's that a repair and an upgrade keep (the module's first install writes
# 1800). A repair runs the module's install again, over the installed one.
set_setting() { expect 0 "provider setting changed" wine reg add "$provider" /v SpecialPollInterval /t REG_DWORD /d 900 /f; }
set_setting
# (msiexec /f with a product code is not implemented in Wine; these properties are what it sets.)
expect 0 "msiexec /i $(basename "$msi") REINSTALL=ALL REINSTALLMODE=omus /qn (repair)" \
  wine msiexec /i "Z:$msi" REINSTALL=ALL REINSTALLMODE=omus /qn /l*v "$(msi_log repair)"
expect 0 "setting kept by the repair" has_value "$provider" SpecialPollInterval REG_DWORD 0x384
expect 0 "msiexec /x $code /qn" wine msiexec /x "$code" /qn /l*v "$(msi_log remove)"
removed_checks "$code"
# Wine hands the Unix side only the low byte of a program's exit code: 1605 (0x645) arrives as 69.
expect 69 "second removal: unknown product (1605)" wine msiexec /x "$code" /qn

if [ -n "$upgrade" ]; then
  new=$(product_code "$upgrade")
  new_version=$(msiinfo export "$upgrade" Property | tr -d '\r' | sed -n 's/^ProductVersion\t//p')

  # The upgrade as Wine runs it: the newer package removes the older one first.
  expect 0 "install $version again" wine msiexec /i "Z:$msi" /qn /l*v "$(msi_log install-again)"
  set_setting
  expect 0 "msiexec /i $(basename "$upgrade") /qn (upgrade to $new_version)" \
    wine msiexec /i "Z:$upgrade" /qn /l*v "$(msi_log upgrade)"
  expect 1 "old package entry replaced" wine reg query "$uninstall\\$code"
  installed_checks "$new_version" "$new"
  # Windows tells the older package's removal that it is part of an upgrade (UPGRADINGPRODUCTCODE),
  # and the module's removal is left out; Wine does not, so here the module was removed and
  # installed again, with the settings of a first install.
  expect 0 "Wine: settings of a first install after the upgrade" has_value "$provider" SpecialPollInterval REG_DWORD 0x708
  expect 0 "msiexec /x $new /qn" wine msiexec /x "$new" /qn /l*v "$(msi_log remove-upgrade)"
  removed_checks "$new"

  # The older package's removal as Windows runs it in an upgrade: its files go, the module's
  # registration and settings stay for the newer package.
  expect 0 "install $version once more" wine msiexec /i "Z:$msi" /qn /l*v "$(msi_log install-once-more)"
  set_setting
  expect 0 "msiexec /x $code UPGRADINGPRODUCTCODE=$new /qn" \
    wine msiexec /x "$code" UPGRADINGPRODUCTCODE="$new" /qn /l*v "$(msi_log remove-for-upgrade)"
  expect 1 "old package entry removed" wine reg query "$uninstall\\$code"
  expect 1 "old module file removed" test -e "$sys32/w32tmkr.cpl"
  expect 0 "registration kept" has_value "$provider" "Current Version" REG_SZ 4.2.b.20081210R
  expect 0 "setting kept" has_value "$provider" SpecialPollInterval REG_DWORD 0x384
  expect 0 "msiexec /i $(basename "$upgrade") /qn after it" wine msiexec /i "Z:$upgrade" /qn /l*v "$(msi_log upgrade-after)"
  installed_checks "$new_version" "$new"
  expect 0 "setting still kept" has_value "$provider" SpecialPollInterval REG_DWORD 0x384
  expect 0 "msiexec /x $new /qn" wine msiexec /x "$new" /qn /l*v "$(msi_log remove-last)"
  removed_checks "$new"
fi
# An installation that fails after the module installed itself: this package with one more deferred
# action after the module's install, a program that ends with status 1. The rollback takes the files
# and the package's registration back, and runs the module's removal (the rollback action, after
# the failure). Wine hands back 1627 (0x65b, function failed; Windows 1603, fatal error), and it
# deletes the files before it runs the rollback action, so that here the module cannot be loaded to
# remove itself: its registration stays (on Windows the rollback runs in reverse order, the
# module's removal first).
failing="$work/chronwarden-failing.msi"
make_failing() {
  cp "$msi" "$failing" && msibuild "$failing" \
    -q "INSERT INTO \`Property\` (\`Property\`, \`Value\`) VALUES ('CW_CMD', 'C:\\windows\\system32\\cmd.exe')" \
    -q "INSERT INTO \`CustomAction\` (\`Action\`, \`Type\`, \`Source\`, \`Target\`) VALUES ('FailAfterModuleInstall', 3122, 'CW_CMD', '/c exit 1')" \
    -q "INSERT INTO \`InstallExecuteSequence\` (\`Action\`, \`Sequence\`) VALUES ('FailAfterModuleInstall', 4003)"
}
rolled_back() {  # the module's rollback action started after the failing action
  awk '/Action start .*: FailAfterModuleInstall\./ { f = NR } /Action start .*: ModuleInstallRollback\./ { r = NR }
       END { exit !(f && r > f) }' "$work/failing.log"
}
expect 0 "failing package made" make_failing
expect 91 "msiexec /i of the failing package: 1627" wine msiexec /i "Z:$failing" /qn /l*v "$(msi_log failing)"
expect 0 "rollback action run after the failure" rolled_back
expect 1 "rollback: package entry" wine reg query "$uninstall\\$code"
expect 1 "rollback: module file" test -e "$sys32/w32tmkr.cpl"
expect 1 "rollback: chronwarden.exe" test -e "$progdir/chronwarden.exe"
expect 0 "Wine: the registration stays (module already deleted)" wine reg query "$provider"
[ "$fail" -eq 0 ] || echo "msiexec logs: $work/*.log"
wineserver -k 2>/dev/null
exit $fail
