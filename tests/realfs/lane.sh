#!/usr/bin/env bash
# The rescue case on real Mac file systems, run as root inside the guest: Linux's hfsplus driver on
# an Apple-made HFS+ volume (/dev/vda) and linux-apfs-rw on a fresh APFS container (/dev/vdb), and
# on two more (/dev/vdc, /dev/vdd) for the system and data volumes of a macOS of 10.15 or later.
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
# Every item with its owner, group, mode and time: what a sealed system volume must keep.
snapshot() { find "$1" -printf '%p %U %G %m %T@\n' | sort; }
unchanged() { snapshot "$1" | diff "$2" - >/tmp/out || { head -20 /tmp/out; false; }; }  # FOLDER SNAPSHOT
mode_is() { [[ $(stat -c %a "$1") == "$2" ]] || { stat -c '%n has mode %a' "$1"; false; }; }
owner_is() { [[ $(stat -c %u:%g "$1") == "$2" ]] || { stat -c '%n is owned by %u:%g' "$1"; false; }; }

mkdir -p /mnt/hfs /mnt/apfs /tmp/data /tmp/config
mount -t hfsplus /dev/vda /mnt/hfs || { echo "FAIL cannot mount the HFS+ volume"; exit 1; }
mount -t apfs -o readwrite /dev/vdb /mnt/apfs || { echo "FAIL cannot mount the APFS volume"; exit 1; }

# The rescue: take a kext off into a backup on another disk, put it back, undo both; the kext
# ends where it was, root-owned, with nothing hidden left beside it.
rescue_round() {  # NAME EXTENSIONS_FOLDER BACKUPS VOLUME_ARGS...
    local name=$1 ext=$2 backups=$3
    shift 3
    local rescue=("$@" --backup-to "$backups")
    check "$name: a kext is removed" [ "$(status_of "$quelmctl" remove "${rescue[@]}" IntelMausiEthernet)" = 0 ]
    check "$name: remove says how the next start avoids it" says "safe mode"
    check "$name: the removed kext is gone" test ! -e "$ext/IntelMausiEthernet.kext"
    check "$name: its backup has a manifest" test -f "$(echo "$backups"/*/Manifest.plist)"
    check "$name: restore puts it back" [ "$(status_of "$quelmctl" restore "${rescue[@]}" "$(echo "$backups"/*/)")" = 0 ]
    check "$name: the restored kext is root:wheel 755" root_owned_755 "$ext/IntelMausiEthernet.kext"
    check "$name: undo takes the restore back" [ "$(status_of "$quelmctl" undo "${rescue[@]}")" = 0 ]
    check "$name: the kext is gone again" test ! -e "$ext/IntelMausiEthernet.kext"
    check "$name: undo again reverses the removal" [ "$(status_of "$quelmctl" undo "${rescue[@]}")" = 0 ]
    check "$name: the kext is back, root:wheel 755" root_owned_755 "$ext/IntelMausiEthernet.kext"
    check "$name: no hidden leftovers after the rescue" no_leftovers "$ext"
}

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
    rescue_round "$fs" "$ext" "/tmp/rescue-$fs" --volume "$volume"

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

# macOS 10.15 and later: a system and a data volume, each the root of its own APFS mount as a Mac's
# disk mounts on Linux. Named by either half, Quelm finds the other among the mounts.
group=/mnt/group
system="$group/Macintosh HD"
data="$group/Macintosh HD - Data"
# A line of the last volume-info; else it and the mount table it read, where the halves are found.
info_says() { grep -qx -- "$1" /tmp/info || { cat /tmp/info; grep -F ' - apfs ' /proc/self/mountinfo; false; }; }
group_lane() {  # MACOS
    local macos=$1 kexts=$group/kexts sle="$system/System/Library/Extensions"
    local le="$data/Library/Extensions" name="group $1" sealed=no
    [[ $macos == 10.* ]] || sealed=yes
    echo "== $name"
    # Fresh containers for each macOS; the demo fills only empty volumes.
    if mountpoint -q "$system"; then
        umount "$system" "$data" || { check "$name: the volumes of the last group unmount" false; return; }
        mkapfs -L "Macintosh HD" /dev/vdc >/dev/null && mkapfs -L "Macintosh HD - Data" /dev/vdd >/dev/null
    fi
    rm -rf "$kexts"
    mkdir -p "$system" "$data"
    if ! mount -t apfs -o readwrite /dev/vdc "$system" || ! mount -t apfs -o readwrite /dev/vdd "$data"; then
        check "$name: both volumes mount" false
        return
    fi
    check "$name: demo volumes made on both disks" "$quelmctl" make-demo-volume --macos "$macos" "$group" >/dev/null
    snapshot "$system" >/tmp/system-before

    "$quelmctl" volume-info "$system" >/tmp/info
    local kind="kind: system volume"
    [[ $sealed == no ]] || kind+=" (sealed)"
    check "$name: volume-info knows the system volume" info_says "$kind"
    check "$name: volume-info finds the data volume by itself" info_says "dataVolume: $data"
    check "$name: the data volume is the driver's" info_says "dataFileSystem: apfs (/dev/vdd on $data)"
    check "$name: /Library/Extensions lies on the data volume" info_says "  /Library/Extensions: data volume, $le"
    check "$name: both are writable" info_says "writable: yes"
    "$quelmctl" volume-info "$data" >/tmp/info
    check "$name: volume-info on the data volume names its system volume" info_says "mountPoint: $system"
    check "$name: and the data volume itself" info_says "dataVolume: $data"

    local install=("$quelmctl" install --volume "$system")
    check "$name: a kext installs into /Library/Extensions" [ "$(status_of "${install[@]}" --folder library "$kexts/IntelMausiEthernet.kext")" = 0 ]
    check "$name: it lands on the data volume, root:wheel 755" root_owned_755 "$le/IntelMausiEthernet.kext"
    check "$name: nothing of it on the system volume" test ! -e "$system/Library/Extensions/IntelMausiEthernet.kext"
    check "$name: /System/Library/Extensions refused with status 2" [ "$(status_of "${install[@]}" --folder system "$kexts/FakeSMC.kext")" = 2 ]
    check "$name: the reason names the read-only system volume" says "read-only system volume"
    check "$name: nothing written there" test ! -e "$sle/FakeSMC.kext"
    if [[ $sealed == yes ]]; then
        check "$name: /Extra/Extensions refused with status 2" [ "$(status_of "${install[@]}" --folder extra "$kexts/FakeSMC.kext")" = 2 ]
        check "$name: the reason names the sealed system volume" says "sealed system volume"
        check "$name: no /Extra made on it" test ! -e "$system/Extra"
    fi

    check "$name: verify finds the damage" [ "$(status_of "$quelmctl" verify-permissions --volume "$system")" = 1 ]
    check "$name: repair fixes it" [ "$(status_of "$quelmctl" repair-permissions --volume "$system")" = 0 ]
    check "$name: verify after repair is clean" [ "$(status_of "$quelmctl" verify-permissions --volume "$system")" = 0 ]
    check "$name: data volume: private/tmp is 1777 again" mode_is "$data/private/tmp" 1777
    check "$name: data volume: Library/Extensions is root's again" owner_is "$le" 0:0
    if [[ $sealed == no ]]; then
        check "$name: system volume: bin/ps is setuid again" mode_is "$system/bin/ps" 4755
        check "$name: system volume: usr/bin/top is root's again" owner_is "$system/usr/bin/top" 0:0
        check "$name: system volume: its Extensions folder is 755 again" mode_is "$sle" 755
    else
        check "$name: sealed: bin/ps keeps its wrong mode" mode_is "$system/bin/ps" 755
        check "$name: sealed: usr/bin/top keeps its wrong owner" owner_is "$system/usr/bin/top" 501:20
    fi

    # As in the lane above, a day after the folders' old time, for the file systems' whole seconds.
    touch -d '2001-01-01' "$le"
    [[ $sealed == yes ]] || touch -d '2001-01-01' "$sle"
    touch -d '2001-01-02' /tmp/reference
    local sealed_time
    sealed_time=$(stat -c %y "$sle")
    check "$name: rebuild-caches marks the caches stale" [ "$(status_of "$quelmctl" rebuild-caches --volume "$system")" = 0 ]
    check "$name: /Library/Extensions on the data volume is newer" test "$le" -nt /tmp/reference
    if [[ $sealed == no ]]; then
        check "$name: /System/Library/Extensions is newer" test "$sle" -nt /tmp/reference
    else
        check "$name: sealed: /System/Library/Extensions keeps its time" [ "$(stat -c %y "$sle")" = "$sealed_time" ]
    fi

    rescue_round "$name" "$le" "/tmp/rescue-group-$macos" --volume "$system"

    "$bin/quelm" --volume "$system" --helper-root /tmp/helper-root "$kexts/FakeSMC.kext" "$kexts/My Driver.kext" >/tmp/quelm.log 2>&1
    check "$name: quelm ran the job to its end" grep -q "Installed: 1 Failed: 0" /tmp/quelm.log
    check "$name: quelm installed onto the data volume" root_owned_755 "$le/FakeSMC.kext"
    check "$name: quelm left both volumes repaired (--data-volume named)" [ "$(status_of "$quelmctl" verify-permissions --volume "$system" --data-volume "$data")" = 0 ]
    check "$name: no hidden leftovers after the job" no_leftovers "$le"

    if [[ $sealed == yes ]]; then
        check "$name: quelm's notification explains the auxiliary collection" grep -q "auxiliary kernel collection" /tmp/quelm.log
        check "$name: sealed: nothing on the system volume changed" unchanged "$system" /tmp/system-before
    fi
}

group_lane 10.15
group_lane 11

# Mounts through which the data volume cannot be written are refused before anything is written.
echo "== group refusals"
refused_install() { status_of "$quelmctl" install --volume "$system" --folder library "$group/kexts/IntelMausiEthernet.kext"; }
entries=$(find "$data" | wc -l)
umount "$data" && mount -t apfs -o readwrite,uid=501 /dev/vdd "$data"
"$quelmctl" volume-info "$system" >/tmp/info
check "uid= data volume: volume-info says the owners are replaced" info_says "dataOwnersReplaced: yes.*"
check "uid= data volume: install refused with status 2" [ "$(refused_install)" = 2 ]
check "uid= data volume: the reason names uid=" says "mounted with uid= or gid="
check "uid= data volume: nothing changed" [ "$(find "$data" | wc -l)" = "$entries" ]
umount "$data" && mount -t apfs /dev/vdd "$data"
check "read-only data volume: install refused with status 2" [ "$(refused_install)" = 2 ]
check "read-only data volume: the reason names -o readwrite" says "mounted with -o readwrite"
umount "$data"
check "no data volume: install refused with status 2" [ "$(refused_install)" = 2 ]
check "no data volume: the reason names --data-volume" says "name it with --data-volume"

echo "== $failures failed"
[[ $failures -eq 0 ]]
