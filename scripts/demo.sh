#!/bin/bash
# Shows the module's main job on this machine alone, with real files, and checks it: records wait
# in the spool while the peer is away, reach it in order when it comes, and at once while it is
# there. Everything happens in a temporary folder, which is removed at the end.
#
#     scripts/demo.sh [FOLDER WITH THE PROGRAMS]      (default: build/release/bin)
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/demo-lib.sh"

evidence=(run/transfer.log run/stderr admin.err receive.err)
receiverPid=
bytes=0 live=0

isTcpPortTaken() {
    (: <>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
}

# Sorts in the order of sending: by lower-cased name, code unit by code unit.
inOrderOfSending() {
    awk '{ print tolower($0) "\t" $0 }' | LC_ALL=C sort | cut -f 2
}

# checkNumbered NUMBER KIND FILE: checks record NUMBER. The receiver names files by their number.
checkNumbered() {
    local received
    received=$work/received/$(printf '%06d' "$1")
    checkRecord "record $1" "$2" "$3" "$received"
    bytes=$((bytes + $(stat -c %s "$received")))
}

writeSettings() {
    cat >"$work/run/demo.ini" <<SETTINGS
; Settings of the demonstration. Relative paths start at the module's working directory.
[Base]
LogName=transfer
Log=1
AdminServerName=admin
ServerName=transfer

[Main]
Protocol=TCP
Host=127.0.0.1
Port=$port
TempDir=../spool
ReconnectionTimeout=1
LiveMessageTimeout=5
SETTINGS
}

bringUpModule() {
    startModule "the module" run demo.ini run/stderr
    step "Module started, its peer (TCP port $port) is absent. Its bus comes up in passes of 5 s:"
    step "  waiting for it to connect to the administration server (about 5 s) ..."
    waitFor 30 "the module at the administration server" adminShows "transfer  connected"
    step "  waiting for it to listen under its bus name \"transfer\" (about 5 s more) ..."
    waitFor 30 "the module's bus name" shows run/transfer.log "Start server: transfer Ok"
}

startReceiver() {
    "$bin/morvanectl" receive "$port" --dir "$work/received" >"$work/receive.out" \
        2>"$work/receive.err" 3>&- &
    receiverPid=$!
    pids+=("$receiverPid")
    waitFor 10 "the peer to listen on port $port" shows receive.out Listening
}

# Sends all files while the peer is away.
fillSpool() {
    send transfer "$work"/files/*
    waitFor 30 "$waiting records in the spool" holdsFiles "$work/spool" "$waiting"
    step "$waiting files of this project are sent as records and wait in the spool."
}

meetPeer() {
    step "The peer comes up; the module looks for it every second:"
    startReceiver
    watchArrival "$waiting" 60 "$work/received"
}

checkArrived() {
    local name number=0
    while IFS= read -r name; do
        checkNumbered $((++number)) tempdb "$work/files/$name"
    done < <(find "$work/files" -type f -printf '%f\n' | inOrderOfSending)
    step "All $waiting equal what was sent, byte for byte, in the order of the spool."
}

# liveRecord NAME KIND FILE: sends a record, which must arrive at once with the next number.
liveRecord() {
    send transfer --kind "$2" --name "$1" - <"$3"
    waitFor 20 "the live record $1" holdsFiles "$work/received" $((waiting + ++live))
    checkNumbered $((waiting + live)) "$2" "$3"
    waitFor 20 "the report of the live record $1" adminShows "InData id -1: .*: $1\$"
}

sendLive() {
    local file
    file=$(find "$work/files" -type f | LC_ALL=C sort | sed -n 1p)
    # The answer to the second command proves that the first is in force.
    printf 'Input_Data_On\nAbout\n' >&3
    waitFor 10 "the module's answer to About" adminShows "Таймаут передачи"
    liveRecord live-1 tempdb "$file"
    liveRecord live-2 error "$file"
    liveRecord live-3 tempdb_t "$file"
    step "$live more records went through live, one of each kind, and were reported:"
    grep -a 'InData' "$work/admin.out" | sed 's/^/    /'
}

showAbout() {
    step "The module about itself:"
    sed -n '/  About id /,$ { / About id /d; /^    /p }' "$work/admin.out"
}

stopAll() {
    waitFor 10 "the spool to be empty" isEmpty "$work/spool"
    echo "QuitSignal" >&3
    expectEnd "$modulePid" "the module"
    step "QuitSignal: the module ended with status 0, its spool is empty."
    kill -TERM "$receiverPid" "$adminPid"
    expectEnd "$receiverPid" "morvanectl receive"
    expectEnd "$adminPid" "morvanectl admin"
    (($(countFiles "$work/received") == waiting + live)) || fail "more records arrived than were sent"
}

beginDemo "${1:-$root/build/release/bin}"
mkdir "$work/run" "$work/spool"
choosePort TCP isTcpPortTaken
writeSettings
collectFiles
waiting=$(countFiles "$work/files")
startAdmin
bringUpModule
fillSpool
meetPeer
checkArrived
sendLive
showAbout
stopAll
echo "Passed: $((waiting + live)) records, $bytes bytes, $waiting through the spool and $live live;" \
    "all equal and in order."
