#!/usr/bin/env bash
# Every kext wholly old or wholly new whatever fails: install, remove, restore and undo of a kext
# of a few hundred files, each run with one write-side system call failing (strace's fault
# injection: EIO, ENOSPC or EROFS at its Nth call) or killed at a chosen call, with and without
# the atomic exchange of renameat2. After each run, the next command recovers what was left;
# then the kext must be whole (old, new, or whole in a backup), no hidden entry may remain
# beside it, every backup folder must have its manifest, and a failed run must have said why.
# Usage: fault-lane.sh QUELMCTL [SAMPLES]. Exits 77 with one line where it cannot run.
set -uo pipefail
quelmctl=$1
samples=${2:-2}
skip() { echo "faults: skipped: $*"; exit 77; }
[[ $(id -u) -eq 0 ]] || skip "installed kexts belong to root"
command -v strace >/dev/null || skip "no strace (scripts/deps installs it)"

work=$(mktemp -d "${TMPDIR:-/tmp}/quelm-faults.XXXXXX")
trap 'rm -rf "$work"' EXIT
state=$work/state
volume="$state/Macintosh HD"
extensions="$volume/Library/Extensions"
export XDG_DATA_HOME=$state/data ASAN_OPTIONS=detect_leaks=0:${ASAN_OPTIONS:-}
q() { "$quelmctl" "$@"; }

# A kext of 300 files, in the version given.
make_kext() {  # FOLDER VERSION
    local bundle=$1/Lilu.kext
    mkdir -p "$bundle/Contents/MacOS" "$bundle/Contents/Resources"
    printf '<?xml version="1.0" encoding="UTF-8"?>\n<plist version="1.0"><dict><key>CFBundleIdentifier</key><string>as.vit9696.Lilu</string><key>CFBundlePackageType</key><string>KEXT</string><key>CFBundleVersion</key><string>%s</string></dict></plist>\n' "$2" >"$bundle/Contents/Info.plist"
    for i in $(seq 300); do echo "$2 $i" >"$bundle/Contents/Resources/file$i"; done
    ln -s ../Info.plist "$bundle/Contents/Resources/link"
}
tree_hash() {  # FOLDER: names, file contents and link targets
    (cd "$1" 2>/dev/null && find . -printf '%p %y %l\n' | LC_ALL=C sort &&
        find . -type f -print0 | LC_ALL=C sort -z | xargs -0 cat) | sha256sum | cut -c1-16
}

mkdir -p "$work/src/old" "$work/src/new" "$work/src/other/Other.kext/Contents"
make_kext "$work/src/old" 1.0
make_kext "$work/src/new" 2.0
cp "$work/src/old/Lilu.kext/Contents/Info.plist" "$work/src/other/Other.kext/Contents/Info.plist"
old=$(tree_hash "$work/src/old/Lilu.kext")
new=$(tree_hash "$work/src/new/Lilu.kext")

# The starting state: a backup holding the new version (installed, then removed), the old
# version installed after it, so that undo takes the old one out.
q make-demo-volume "$state" >/dev/null || exit 1
q install --force --folder library --volume "$volume" "$work/src/new/Lilu.kext" >/dev/null &&
    q remove --volume "$volume" --backup-to "$state/removed" Lilu >/dev/null &&
    q install --force --folder library --volume "$volume" "$work/src/old/Lilu.kext" >/dev/null ||
    { echo "faults: cannot make the starting state"; exit 1; }
backup=$(echo "$state"/removed/*/)
cp -a "$state" "$work/template"

declare -A operations=(
    [install]="install --force --folder library --volume \"$volume\" \"$work/src/new/Lilu.kext\""
    [remove]="remove --volume \"$volume\" --backup-to \"$state/out\" Lilu"
    [restore]="restore --volume \"$volume\" --backup-to \"$state/out\" \"$backup\""
    [undo]="undo --volume \"$volume\" --backup-to \"$state/out\""
)
syscalls=(openat write mkdir mkdirat renameat renameat2 unlinkat rmdir fchown fchmod fchownat
    symlinkat fsync)
errors=(EIO ENOSPC EROFS)
runs=0 failures=0 failed_runs=0

fail() {  # WHAT: one line per broken promise
    echo "FAIL $*"
    failures=$((failures + 1))
}

# Whole: the old or new tree in place, or (when it left) the old one whole in a backup folder.
check_whole() {  # LABEL
    local now
    now=$(tree_hash "$extensions/Lilu.kext")
    [[ -e $extensions/Lilu.kext ]] || now=absent
    if [[ $now == absent ]]; then
        local found=""
        for kept in "$state"/out/*/Lilu.kext "$state"/data/Quelm/Backups/*/Lilu.kext; do
            [[ -e $kept && $(tree_hash "$kept") == "$old" ]] && found=yes
        done
        [[ -n $found ]] || fail "$1: the kext is gone and no backup holds it whole"
    elif [[ $now != "$old" && $now != "$new" ]]; then
        fail "$1: the kext is neither the old nor the new one"
    fi
    local hidden
    hidden=$(find "$extensions" "$volume/Library/StagedExtensions" -maxdepth 3 -name '.*quelm-*' 2>/dev/null)
    [[ -z $hidden ]] || fail "$1: hidden entries left after the next command: $hidden"
    for folder in "$state"/out/*/ "$state"/removed/*/; do
        [[ ! -d $folder || -f $folder/Manifest.plist ]] || fail "$1: $folder has no manifest"
    done
}

one_run() {  # LABEL OPERATION CALLS STRACE-OPTIONS...: only the calls named stop the program
    local label=$1 operation=$2 calls=$3
    shift 3
    rm -rf "$state" && cp -a "$work/template" "$state"
    local status=0
    eval "strace -f -qq --seccomp-bpf -o /dev/null -e trace=$calls $* $quelmctl ${operations[$operation]}" \
        >"$work/out" 2>&1 || status=$?
    runs=$((runs + 1))
    if [[ $status -ne 0 ]]; then
        failed_runs=$((failed_runs + 1))
        # A kill says nothing; any other failure says why.
        [[ $status -eq 137 || -s $work/out ]] || fail "$label: failed ($status) without a word"
    fi
    # The next command: any change of kexts puts right what the run left.
    q install --force --folder extra --volume "$volume" "$work/src/other/Other.kext" >/dev/null 2>&1 ||
        fail "$label: the next command failed"
    check_whole "$label"
}

# How often each operation makes each call: the faults are spread over that range.
count_calls() {  # OPERATION
    rm -rf "$state" && cp -a "$work/template" "$state"
    eval "strace -f -qq --seccomp-bpf -o $work/trace -e trace=$(IFS=,; echo "${syscalls[*]}") $quelmctl ${operations[$1]}" >/dev/null 2>&1
    for call in "${syscalls[@]}"; do
        printf '%s %s\n' "$call" "$(grep -c -E "^[0-9]+ +$call\(" "$work/trace")"
    done
}

for operation in install remove restore undo; do
    while read -r call count; do
        [[ $count -gt 0 ]] || continue
        step=$(((count + samples - 1) / samples))
        for ((n = 1; n <= count; n += step)); do
            error=${errors[n % 3]}
            one_run "$operation $call=$error@$n" "$operation" "$call" \
                -e "inject=$call:error=$error:when=$n"
            # Without the exchange, as on hfsplus and apfs: the aside route under the same fault.
            [[ ($operation == install || $operation == restore) && $call != renameat2 ]] &&
                one_run "$operation no-exchange $call=$error@$n" "$operation" "renameat2,$call" \
                    -e "inject=renameat2:error=EINVAL" -e "inject=$call:error=$error:when=$n"
        done
    done < <(count_calls "$operation")
    # Killed at each rename and at a spread of removals: the points between two steps.
    for call in renameat renameat2 unlinkat; do
        for n in 1 2 3 5 8 13 40 150 300; do
            one_run "$operation kill at $call@$n" "$operation" "$call" \
                -e "inject=$call:signal=KILL:when=$n"
        done
    done
done

echo "faults: $runs runs, $failed_runs of them failed as injected, $failures broken promises"
[[ $failures -eq 0 ]]
