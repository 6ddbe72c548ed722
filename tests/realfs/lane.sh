#!/usr/bin/env bash
# The rescue case on real Mac file systems, run as root inside the guest: Linux's hfsplus driver on
# an Apple-made HFS+ volume (/dev/vda) and linux-apfs-rw on a fresh APFS container (/dev/vdb).
# Usage: lane.sh BUILD_BIN_DIR
set -uo pipefail
bin=$1
quelmctl=$bin/quelmctl
failures=0
export QT_QPA_PLATFORM=offscreen XDG_DATA_HOME=/tmp/data XDG_CONFIG_HOME=/tmp/config
# The lane checks behaviour, not leaks: the programs are killed at power-off anyway.
export ASAN_OPTIONS=detect_leaks=0:${ASAN_OPTIONS:-}

check() {  # WHAT COMMAND...: one line per check, the lane fails at the end if one did
    local what=$1
    shift
    if "$@"; then
        echo "ok   $what"
    else
        echo "FAIL $what"
        failures=$((failures + 1))
    fi
}
# Every item of a bundle root:wheel, and 755 but for links.
root_owned_755() { [[ -d $1 && -z $(find "$1" \( ! -user 0 -o ! -group 0 -o \( ! -type l ! -perm 755 \) \) -print) ]]; }
no_leftovers() { [[ -z $(find "$1" -maxdepth 1 -name '.*quelm*' -print) ]]; }
count_named() { find "$1" -maxdepth 1 -iname "$2" | wc -l; }
status_of() { "$@" >/tmp/out 2>&1; echo $?; }
says() { grep -q -- "$1" /tmp/out || { cat /tmp/out; false; }; }

mkdir -p /mnt/hfs /mnt/apfs /tmp/data /tmp/config
mount -t hfsplus /dev/vda /mnt/hfs || { echo "FAIL cannot mount the HFS+ volume"; exit 1; }
mount -t apfs -o readwrite /dev/vdb /mnt/apfs || { echo "FAIL cannot mount the APFS volume"; exit 1; }

# The same rescue on each file system: the volume is a folder of the mounted disk.
lane() {  # FS MOUNT
    local fs=$1 disk=$2 volume="$2/Macintosh HD" kexts="$2/kexts" ext="$2/Macintosh HD/Library/Extensions"
    echo "== $fs"
    check "$fs: demo volume made on the disk" "$quelmctl" make-demo-volume "$disk" >/dev/null
    "$quelmctl" volume-info "$volume" >/tmp/info
    check "$fs: volume-info names the file system" grep -q "^fileSystem: $fs " /tmp/info
    check "$fs: volume-info says it is writable" grep -q "^writable: yes" /tmp/info
    [[ $fs != hfsplus ]] || check "$fs: volume-info reads the journal flag" grep -q "^journaled: no" /tmp/info

    local install=("$quelmctl" install --volume "$volume")
    check "$fs: a new kext is installed" [ "$(status_of "${install[@]}" --folder library "$kexts/IntelMausiEthernet.kext")" = 0 ]
    check "$fs: it belongs to root:wheel 755" root_owned_755 "$ext/IntelMausiEthernet.kext"

    echo v2 >"$kexts/IntelMausiEthernet.kext/Contents/Marker"
    check "$fs: an installed kext is replaced" [ "$(status_of "${install[@]}" --folder library --backup-to "$disk/backups" "$kexts/IntelMausiEthernet.kext")" = 0 ]
    check "$fs: the replacement holds the new contents" grep -q v2 "$ext/IntelMausiEthernet.kext/Contents/Marker"
    check "$fs: the replacement is root:wheel 755" root_owned_755 "$ext/IntelMausiEthernet.kext"
    check "$fs: no hidden leftovers" no_leftovers "$ext"
    check "$fs: the replaced kext was backed up" test -d "$(echo "$disk"/backups/*/IntelMausiEthernet.kext)"
    check "$fs: the backup lacks the new contents" test ! -e "$(echo "$disk"/backups/*/IntelMausiEthernet.kext)/Contents/Marker"

    cp -a "$kexts/FakeSMC.kext" "$kexts/Lilu.kext"
    mkdir -p "$disk/lower" && cp -a "$kexts/FakeSMC.kext" "$disk/lower/lilu.kext"
    echo lower >"$disk/lower/lilu.kext/Contents/Marker"
    "${install[@]}" --folder library "$kexts/Lilu.kext" >/dev/null
    check "$fs: lilu.kext installs over Lilu.kext" [ "$(status_of "${install[@]}" --folder library "$disk/lower/lilu.kext")" = 0 ]
    if [[ -e $ext/LILU.KEXT ]]; then
        check "$fs: case-insensitive: one bundle is left" [ "$(count_named "$ext" lilu.kext)" = 1 ]
        check "$fs: case-insensitive: it has the new name" test -n "$(find "$ext" -maxdepth 1 -name lilu.kext)"
    else
        check "$fs: case-sensitive: both bundles stay" [ "$(count_named "$ext" lilu.kext)" = 2 ]
    fi
    check "$fs: lilu.kext holds the new contents" grep -q lower "$ext/lilu.kext/Contents/Marker"
    check "$fs: no hidden leftovers after the case-only swap" no_leftovers "$ext"

    local downloads="$disk/Téléchargements #1 100%"
    mkdir -p "$downloads/sub" && cp -a "$kexts/FakeSMC.kext" "$downloads/Réseau.kext"
    check "$fs: a non-ASCII kext given as ../ installs" [ "$(cd "$downloads/sub" && status_of "${install[@]}" --folder library ../Réseau.kext)" = 0 ]
    check "$fs: it is there, root-owned" root_owned_755 "$ext/Réseau.kext"

    check "$fs: a missing Extensions folder is made" [ "$(status_of "${install[@]}" --folder extra "$kexts/FakeSMC.kext")" = 0 ]
    check "$fs: /Extra/Extensions is root:wheel 755" root_owned_755 "$volume/Extra"

    check "$fs: verify finds the damage" [ "$(status_of "$quelmctl" verify-permissions --volume "$volume")" = 1 ]
    check "$fs: repair fixes it" [ "$(status_of "$quelmctl" repair-permissions --volume "$volume")" = 0 ]
    check "$fs: verify after repair is clean" [ "$(status_of "$quelmctl" verify-permissions --volume "$volume")" = 0 ]

    # HFS+ keeps whole seconds: the reference is a day after the folders' old time, not "now".
    touch -d '2001-01-01' "$volume/System/Library/Extensions" "$ext"
    touch -d '2001-01-02' /tmp/reference
    check "$fs: rebuild-caches marks the caches stale" [ "$(status_of "$quelmctl" rebuild-caches --volume "$volume")" = 0 ]
    check "$fs: both Extensions folders are newer" test "$volume/System/Library/Extensions" -nt /tmp/reference -a "$ext" -nt /tmp/reference

    # The rescue: list, take a kext off into a backup on another disk, put it back, undo both.
    local rescue=(--volume "$volume" --backup-to "/tmp/rescue-$fs")
    "$quelmctl" kexts --volume "$volume" >/tmp/kexts
    check "$fs: kexts lists an installed kext with its CPU" grep -q "^IntelMausiEthernet.kext (.*x86_64" /tmp/kexts
    local entries
    entries=$(find "$volume" | wc -l)
    check "$fs: remove --dry-run succeeds" [ "$(status_of "$quelmctl" remove --dry-run "${rescue[@]}" IntelMausiEthernet)" = 0 ]
    check "$fs: remove --dry-run changes nothing" [ "$(find "$volume" | wc -l)" = "$entries" ]
    check "$fs: a kext is removed" [ "$(status_of "$quelmctl" remove "${rescue[@]}" IntelMausiEthernet)" = 0 ]
    check "$fs: remove warns about the old kernel cache" says "safe mode"
    check "$fs: the removed kext is gone" test ! -e "$ext/IntelMausiEthernet.kext"
    check "$fs: its backup has a manifest" test -f "$(echo /tmp/rescue-"$fs"/*/Manifest.plist)"
    check "$fs: restore puts it back" [ "$(status_of "$quelmctl" restore "${rescue[@]}" "$(echo /tmp/rescue-"$fs"/*/)")" = 0 ]
    check "$fs: the restored kext is root:wheel 755" root_owned_755 "$ext/IntelMausiEthernet.kext"
    check "$fs: undo takes the restore back" [ "$(status_of "$quelmctl" undo "${rescue[@]}")" = 0 ]
    check "$fs: the kext is gone again" test ! -e "$ext/IntelMausiEthernet.kext"
    check "$fs: undo again reverses the removal" [ "$(status_of "$quelmctl" undo "${rescue[@]}")" = 0 ]
    check "$fs: the kext is back, root:wheel 755" root_owned_755 "$ext/IntelMausiEthernet.kext"
    check "$fs: no hidden leftovers after the rescue" no_leftovers "$ext"

    # The whole job in the desktop application, through the real helper.
    rm -rf "$ext/FakeSMC.kext"
    "$bin/quelm" --volume "$volume" --helper-root /tmp/helper-root "$kexts/FakeSMC.kext" "$kexts/My Driver.kext" >/tmp/quelm.log 2>&1
    check "$fs: quelm ran the job to its end" grep -q "Installed: 1 Failed: 0" /tmp/quelm.log
    check "$fs: quelm installed by the smart table" root_owned_755 "$ext/FakeSMC.kext"
    check "$fs: quelm left the volume repaired" [ "$(status_of "$quelmctl" verify-permissions --volume "$volume")" = 0 ]
    check "$fs: no hidden leftovers after the job" no_leftovers "$ext"

    # The engine's own tests, with their temporary volumes on this disk.
    mkdir -p "$disk/tmp"
    check "$fs: kext unit tests pass on the disk" env TMPDIR="$disk/tmp" "$bin/quelm_kexts_tests" --gtest_brief=1
}

lane hfsplus /mnt/hfs
lane apfs /mnt/apfs

# Read-only mounts are refused before anything is written, with their reason.
echo "== read-only mounts"
umount /mnt/apfs && mount -t apfs /dev/vdb /mnt/apfs
before=$(find /mnt/apfs | wc -l)
check "apfs read-only: install refused with status 2" [ "$(status_of "$quelmctl" install --volume "/mnt/apfs/Macintosh HD" --folder library /mnt/apfs/kexts/FakeSMC.kext)" = 2 ]
check "apfs read-only: the reason names -o readwrite" says "mounted with -o readwrite"
check "apfs read-only: repair refused with status 2" [ "$(status_of "$quelmctl" repair-permissions --volume "/mnt/apfs/Macintosh HD")" = 2 ]
check "apfs read-only: cache rebuild refused with status 2" [ "$(status_of "$quelmctl" rebuild-caches --volume "/mnt/apfs/Macintosh HD")" = 2 ]
check "apfs read-only: remove refused with status 2" [ "$(status_of "$quelmctl" remove --volume "/mnt/apfs/Macintosh HD" --backup-to /tmp/rescue-ro FakeSMC)" = 2 ]
# The application logs the reason, then waits on its alert for a user who is not there.
"$bin/quelm" --volume "/mnt/apfs/Macintosh HD" --helper-root /tmp/helper-root /mnt/apfs/kexts/FakeSMC.kext >/tmp/out 2>&1 &
app=$!
# Waits for the line itself, or for quelm's end.
grep -q -m1 "QVMainQuelmVC::Error" < <(tail -n +1 -f --pid=$app /tmp/out)
kill $app 2>/dev/null
wait $app 2>/dev/null
check "apfs read-only: quelm refuses the job with the reason" says "QVMainQuelmVC::Error: .*-o readwrite"
check "apfs read-only: nothing changed" [ "$(find /mnt/apfs | wc -l)" = "$before" ]

# Linux mounts a journaled HFS+ volume read-only: set the volume header's journaled bit.
umount /mnt/hfs
attributes=$(od -An -tu1 -j1030 -N1 /dev/vda | tr -d ' ')
printf "\\$(printf %03o $((attributes | 0x20)))" | dd of=/dev/vda bs=1 seek=1030 conv=notrunc status=none
mount -t hfsplus /dev/vda /mnt/hfs 2>/dev/null
"$quelmctl" volume-info "/mnt/hfs/Macintosh HD" >/tmp/info
check "journaled HFS+: volume-info says so" grep -q "^journaled: yes" /tmp/info
check "journaled HFS+: install refused with status 2" [ "$(status_of "$quelmctl" install --volume "/mnt/hfs/Macintosh HD" --folder library /mnt/hfs/kexts/FakeSMC.kext)" = 2 ]
check "journaled HFS+: the reason says journaled and force" says "journaled HFS+ volume.*force"

echo "== $failures failed"
[[ $failures -eq 0 ]]
