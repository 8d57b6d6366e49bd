#!/bin/bash
# Shows the transfer over UDP on this machine alone, with real files, and checks it. Two modules send
# each other this project's files at once, each over one UDP port. A record whose name is too long to
# be sent is set aside, not lost. Everything happens in a temporary folder, which is removed at the
# end.
#
#     scripts/demo-udp.sh [FOLDER WITH THE PROGRAMS]      (default: build/release/bin)
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/demo-lib.sh"

filesEach=12 # even a small file takes one to two seconds: a scan, and a pause after delivery
tick=1 # milliseconds
longestTransfer=120 # seconds; a busy machine of two cores needed a sixth of that
longestName=97 # characters in the name of a file that can be sent

evidence=(left/left.log left/left.err right/right.log right/right.err admin.err)
sides=(left right) # the modules' bus names and folders
# The kinds differ, so that a file returned to its sender cannot pass for one of the other side.
declare -A kind=([left]=tempdb [right]=tempdb_t)
declare -A peer=([left]=right [right]=left)
declare -A ports=() # UDP ports
declare -A process=()
all=0 bytes=0

# --- the two modules ---

isUdpPortTaken() {
    [[ " ${ports[*]} " == *" $1 "* ]] ||
        grep -q "^ *[0-9]*: [0-9A-F]*:$(printf '%04X' "$1") " /proc/net/udp /proc/net/udp6 2>/dev/null
}

choosePorts() {
    local side
    for side in "${sides[@]}"; do
        choosePort UDP isUdpPortTaken
        ports[$side]=$port
    done
}

# A module's working directory holds only what it receives.
writeSettings() {
    mkdir -p "$work/$1/files" "$work/$1/spool" "$work/$1/received"
    cat >"$work/$1/$1.ini" <<SETTINGS
; Settings of the demonstration. Relative paths start at the module's working directory.
[Base]
LogName=../$1
Log=1
AdminServerName=admin
ServerName=$1

[Main]
Protocol=UDP
Host=127.0.0.1
LocalPort=${ports[$1]}
Port=${ports[${peer[$1]}]}
Timeout=$tick
TempDir=../spool
SETTINGS
}

# adminNotes TEXT: succeeds if the administration server has seen TEXT from both modules.
adminNotes() {
    adminShows "left  $1" && adminShows "right  $1"
}

bothListen() {
    shows left/left.log "Start server: left Ok" && shows right/right.log "Start server: right Ok"
}

bringUpModules() {
    local side
    export QT_LOGGING_RULES="default.debug=false" # otherwise each packet would make a line
    for side in "${sides[@]}"; do
        startModule "module $side" "$side/received" "../$side.ini" "$side/$side.err"
        process[$side]=$modulePid
    done
    step "Modules \"left\" (UDP port ${ports[left]}) and \"right\" (${ports[right]}) started, each" \
        "other's peer."
    step "Their bus comes up in passes of 5 s:"
    step "  waiting for them to connect to the administration server (about 5 s) ..."
    waitFor 30 "the modules at the administration server" adminNotes connected
    step "  waiting for them to listen under their bus names (about 5 s more) ..."
    waitFor 30 "the modules' bus names" bothListen
    # The answers to the second command prove that the first is in force.
    printf 'Input_Data_On\nAbout\n' >&3
    waitFor 10 "the modules' answers to About" adminNotes "About id"
}

# --- the files ---

# Deals out this project's largest files, one to each side in turn.
dealFiles() {
    local name count=0
    collectFiles
    while IFS= read -r name; do
        mv "$work/files/$name" "$work/${sides[count++ % 2]}/files/"
    done < <(find "$work/files" -type f -printf '%s\t%f\n' | sort -k 1,1nr -k 2 |
        head -n $((2 * filesEach)) | cut -f 2)
    ((count >= 2)) || fail "there are no two files to send in $root"
    all=$count
}

sendAll() {
    local side
    for side in "${sides[@]}"; do
        send "$side" --kind "${kind[$side]}" "$work/$side"/files/*
    done
    step "$(countFiles "$work/left/files") files of this project go from left to right and" \
        "$(countFiles "$work/right/files") from right to left, at once:"
    watchArrival "$all" "$longestTransfer" "$work/left/received" "$work/right/received"
}

countReports() {
    grep -ac 'InData id -1: Transmitted file' "$work/admin.out"
}

areReported() {
    (($(countReports) == all))
}

# isSpoolEmpty SIDE...: succeeds if the spools hold no file, hidden or in a folder. Ignores the
# hidden folder that a running module keeps.
isSpoolEmpty() {
    local side
    for side in "$@"; do
        [[ -z $(find "$work/$side/spool" -mindepth 1 -not -path '*/.sent-*') ]] || return 1
    done
}

# checkReceived SIDE: fails unless SIDE has exactly what its peer has sent.
checkReceived() {
    local from=${peer[$1]} file received
    for file in "$work/$from"/files/*; do
        received=$work/$1/received/${file##*/}
        checkRecord "what $from has sent $1" "${kind[$from]}" "$file" "$received"
        bytes=$((bytes + $(stat -c %s "$received")))
    done
    (($(find "$work/$1/received" -mindepth 1 | wc -l) == $(countFiles "$work/$from/files"))) ||
        fail "$1 has more files than were sent to it"
}

checkDelivered() {
    local side
    for side in "${sides[@]}"; do
        checkReceived "$side"
    done
    waitFor 20 "the reports of $all deliveries" areReported
    waitFor 10 "the spools to be empty" isSpoolEmpty "${sides[@]}"
    step "All $all equal what was sent, byte for byte; each was reported as transmitted once," \
        "both spools are empty and nothing was refused."
}

# Sends a record whose name is one character too long for UDP.
refuseLongName() {
    local name file refused
    printf -v name '%*s' $((longestName + 1)) ''
    name=${name// /x}
    file=$(find "$work/left/files" -type f | LC_ALL=C sort | sed -n 1p)
    refused=$work/left/spool/refused/$name
    send left --kind "${kind[left]}" --name "$name" - <"$file"
    waitFor 20 "the file with too long a name to be set aside" shows left/left.log "Refused file"
    checkRecord "what left has set aside" "${kind[left]}" "$file" "$refused"
    (($(find "$work/left/spool" -type f -not -path '*/.sent-*' | wc -l) == 1)) || fail "more than one file is in left's spool"
    step "A file with a name of ${#name} characters, too long to be sent, is set aside unharmed. The" \
        "log says so:"
    grep -a 'Refused file' "$work/left/left.log" | sed 's/^/    /'
}

stopAll() {
    local side
    echo "QuitSignal" >&3
    for side in "${sides[@]}"; do
        expectEnd "${process[$side]}" "module $side"
    done
    step "QuitSignal: both modules ended with status 0."
    kill -TERM "$adminPid"
    expectEnd "$adminPid" "morvanectl admin"
    areReported || fail "$(countReports) deliveries were reported instead of $all"
    isSpoolEmpty right || fail "right's spool is not empty"
}

beginDemo "${1:-$root/build/release/bin}"
choosePorts
for side in "${sides[@]}"; do
    writeSettings "$side"
done
dealFiles
startAdmin
bringUpModules
started=$SECONDS
sendAll
checkDelivered
took=$((SECONDS - started))
refuseLongName
stopAll
echo "Passed: $all files, $bytes bytes, both ways at once in $took s; all equal, 1 refused and kept."
