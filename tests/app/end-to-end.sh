#!/usr/bin/env bash
# The whole job through the desktop application: quelm with kext paths against a demo volume,
# the real helper, and a private session bus whose notification service records what arrives.
# Usage: end-to-end.sh QUELM QUELMCTL RECORDER
set -euo pipefail
quelm=$1 quelmctl=$2 recorder=$3
if [[ $(id -u) -ne 0 ]]; then
    echo "skipped: the helper installs kexts as root"
    exit 0
fi
work=$(mktemp -d "${TMPDIR:-/tmp}/quelm-e2e.XXXXXX")
trap 'rm -rf "$work"' EXIT
# A private runtime folder gives this quelm its own instance socket: another quelm of the same
# user running meanwhile would otherwise receive these kexts, or hand its own to this one.
mkdir -p "$work/tmp"
mkdir -m 700 "$work/runtime"
export XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config" TMPDIR="$work/tmp" \
    XDG_RUNTIME_DIR="$work/runtime" QT_QPA_PLATFORM=offscreen
"$quelmctl" make-demo-volume "$work" >/dev/null
volume="$work/Macintosh HD"
fail() {
    echo "FAIL: $*"
    cat "$work/log" 2>/dev/null || true
    exit 1
}

# quelm starts once the recorder owns its name; the recorder ends with the shell that started
# it, and the bus with dbus-run-session. The time limit only guards against a hang.
mkfifo "$work/ready"
timeout 600 dbus-run-session -- bash -c '
    "$1" "$2/notifications" "$2/ready" &
    recorder=$!
    trap "kill $recorder 2>/dev/null" EXIT
    read -r _ <"$2/ready"
    "$3" --volume "$4" --helper-root "$2/root" "$2"/kexts/*.kext' \
    _ "$recorder" "$work" "$quelm" "$volume" >"$work/log" 2>&1 || fail "quelm did not quit by itself with status 0"

for kext in "Library/Extensions/IntelMausiEthernet.kext" "Library/Extensions/FakeSMC.kext"; do
    [[ -d "$volume/$kext" ]] || fail "$kext was not installed"
    bad=$(find "$volume/$kext" \( ! -user 0 -o ! -group 0 -o \( ! -type l ! -perm 755 \) \) -print)
    [[ -z $bad ]] || fail "not root:wheel 755: $bad"
done
[[ ! -e "$volume/Library/Extensions/My Driver.kext" ]] || fail "a kext missing from the smart table was installed"
"$quelmctl" verify-permissions --volume "$volume" >/dev/null || fail "the volume was not repaired"
report=$(ls "$work"/data/Quelm/Reports/*.txt) || fail "no report was saved"
grep -q "Status: Fixed" "$report" || fail "the report holds no fixed result"
grep -q "Quelm - Finished" "$work/notifications" || fail "no notification reached the bus"
grep -q "Installed: 2 Failed: 0" "$work/notifications" || fail "wrong counts: $(cat "$work/notifications")"
grep -q "Skipped: My Driver.kext (not in the smart table)" "$work/notifications" ||
    fail "the skipped kext is not named: $(cat "$work/notifications")"
grep -q "Quelm - Finished" "$work/log" || fail "the notification was not logged"
echo "end-to-end: ok"
