#!/bin/bash
# Shows the module's main job on this machine alone, with real files, and checks it: records wait
# in the spool while the peer is away, reach it in order when it comes, and at once while it is
# there. Everything happens in a temporary folder, which goes in the end.
#
#     scripts/demo.sh [FOLDER WITH THE PROGRAMS]      (default: build/release/bin)
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bin=$(cd "${1:-$root/build/release/bin}" && pwd)

longestFolder=70 # bytes; a bus socket's path may have 106, and its own part is short
largestFile=1000000 # bytes; larger files of the working copy are left out
mostFiles=500

work=
pids=() # of all processes that still run
adminPid= modulePid= receiverPid=

# --- the terminal ---

step() {
    echo "* $*"
}

fail() {
    echo
    echo "FAILED: $*"
    local file
    for file in "$work/run/transfer.log" "$work/run/stderr" "$work/admin.err" "$work/receive.err"; do
        [[ -s $file ]] || continue
        echo "${file##*/} ends with:"
        tail -n 20 "$file" | sed 's/^/    /'
    done
    exit 1
} >&2

# showProgress DONE ALL
showProgress() {
    local width=40
    local filled=$((width * $1 / $2))
    if [[ -t 1 ]]; then
        printf '\r  [%s%s] %d of %d records' "$(printf '%*s' $filled '' | tr ' ' '#')" \
            "$(printf '%*s' $((width - filled)) '')" "$1" "$2"
        (($1 < $2)) || echo
    else
        echo "  $1 of $2 records"
    fi
}

# --- processes and waiting ---

stopProcess() {
    kill -TERM "$1" 2>/dev/null || return 0
    local i
    for ((i = 0; i < 30; ++i)); do
        ! hasEnded "$1" || return 0
        sleep 0.1
    done
    kill -KILL "$1" 2>/dev/null || true
}

cleanUp() {
    trap '' INT TERM HUP
    local pid
    for pid in "${pids[@]}"; do
        stopProcess "$pid"
        wait "$pid" 2>/dev/null || true
    done
    [[ -z $work ]] || rm -rf "$work"
}

forget() {
    local pid rest=()
    for pid in "${pids[@]}"; do
        [[ $pid == "$1" ]] || rest+=("$pid")
    done
    pids=("${rest[@]}")
}

# expectEnd PID NAME: the process is about to end, with status 0.
expectEnd() {
    local status=0
    waitFor 10 "$2 to end" hasEnded "$1"
    wait "$1" || status=$?
    forget "$1"
    ((status == 0)) || fail "$2 ended with status $status instead of 0"
}

hasEnded() {
    local stat
    stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 0
    [[ ${stat##*) } == Z* ]] # a zombie; the state stands behind the name in parentheses
}

# waitFor SECONDS WHAT COMMAND...: until the command succeeds.
waitFor() {
    local end=$((SECONDS + $1)) what=$2
    shift 2
    until "$@"; do
        ((SECONDS < end)) || fail "waited too long for $what"
        [[ $what == *"to end" ]] || [[ -z $modulePid ]] || ! hasEnded "$modulePid" ||
            fail "the module ended while the demonstration waited for $what"
        sleep 0.1
    done
}

adminShows() {
    grep -aq -- "$1" "$work/admin.out"
}

moduleLogs() {
    grep -aq -- "$1" "$work/run/transfer.log" 2>/dev/null
}

receiverShows() {
    grep -aq -- "$1" "$work/receive.out"
}

# countFiles FOLDER: those that are not hidden.
countFiles() {
    find "$1" -mindepth 1 -maxdepth 1 -type f ! -name '.*' | wc -l
}

holdsFiles() {
    (($(countFiles "$1") >= $2))
}

isEmpty() {
    (($(countFiles "$1") == 0))
}

# --- the files ---

listSources() {
    cd "$root"
    { [[ -e .git ]] && git ls-files -z 2>/dev/null; } ||
        find . -name build -prune -o -name '.git*' -prune -o -type f -printf '%P\0'
}

# Copies of this project's files under plain names, in one folder.
collectFiles() {
    local path name count=0
    mkdir "$work/files"
    while IFS= read -r -d '' path; do
        name=${path//\//-}
        name=${name/#./dot-}
        [[ $name =~ ^[A-Za-z0-9_+-][A-Za-z0-9._+-]*$ && -f $root/$path ]] || continue
        (($(stat -c %s "$root/$path") <= largestFile)) || continue
        [[ ! -e $work/files/$name ]] || name=$name-$count
        cp "$root/$path" "$work/files/$name"
        ((++count < mostFiles)) || break
    done < <(listSources)
    ((count > 0)) || fail "no files to send were found in $root"
}

# The order of sending: by lower-cased name, code unit by code unit.
inOrderOfSending() {
    awk '{ print tolower($0) "\t" $0 }' | LC_ALL=C sort | cut -f 2
}

# checkRecord NUMBER KIND FILE: what arrived is the kind directly followed by the file.
checkRecord() {
    local received
    received=$work/received/$(printf '%06d' "$1")
    [[ -f $received ]] || fail "record $1, ${3##*/}, has not arrived"
    cmp -s <(printf '%s' "$2" && cat "$3") "$received" ||
        fail "record $1 differs from the file ${3##*/} of kind $2"
    bytes=$((bytes + $(stat -c %s "$received")))
}

# --- the demonstration ---

makeWorkFolder() {
    local base
    base=$(cd "${TMPDIR:-/tmp}" && pwd)
    ((${#base} <= longestFolder)) || base=/tmp
    work=$(mktemp -d "$base/morvane-demo.XXXXXX")
    mkdir "$work/bus" "$work/run" "$work/spool"
    export TMPDIR=$work/bus # where the bus sockets lie
    export LC_ALL=C.UTF-8 # the programs write UTF-8
}

# Below the range from which the kernel gives ports to outgoing connections: the module that
# knocks at such a port while the peer is away could otherwise be connected to itself.
chooseFreePort() {
    local i
    for ((i = 0; i < 50; ++i)); do
        port=$((20000 + RANDOM % 12000))
        (: <>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || return 0
    done
    fail "no free TCP port was found"
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

startAdmin() {
    mkfifo "$work/commands"
    exec 3<>"$work/commands" # kept open, so that writing never blocks
    "$bin/morvanectl" admin admin <"$work/commands" >"$work/admin.out" 2>"$work/admin.err" 3>&- &
    adminPid=$!
    pids+=("$adminPid")
    waitFor 10 "the administration server" adminShows Listening
}

startModule() {
    (cd "$work/run" && exec "$bin/morvane" -settings demo.ini >stdout 2>stderr 3>&-) &
    modulePid=$!
    pids=("$modulePid" "${pids[@]}") # it goes first
    step "Module started, its peer (TCP port $port) is absent. Its bus comes up in passes of 5 s:"
    step "  waiting for it to connect to the administration server (about 5 s) ..."
    waitFor 30 "the module at the administration server" adminShows "transfer  connected"
    step "  waiting for it to listen under its bus name \"transfer\" (about 5 s more) ..."
    waitFor 30 "the module's bus name" moduleLogs "Start server: transfer Ok"
}

startReceiver() {
    "$bin/morvanectl" receive "$port" --dir "$work/received" >"$work/receive.out" \
        2>"$work/receive.err" 3>&- &
    receiverPid=$!
    pids+=("$receiverPid")
    waitFor 10 "the peer to listen on port $port" receiverShows Listening
}

send() {
    "$bin/morvanectl" send transfer --wait 20 --quiet --as demo "$@" 3>&- ||
        fail "morvanectl send ended with status $?"
}

# Sends all files while the peer is away.
fillSpool() {
    send "$work"/files/*
    waitFor 30 "$waiting records in the spool" holdsFiles "$work/spool" "$waiting"
    step "$waiting files of this project are sent as records and wait in the spool."
}

watchArrival() {
    local arrived=-1 now end=$((SECONDS + 60))
    step "The peer comes up; the module looks for it every second:"
    startReceiver
    while ((arrived < waiting)); do
        ((SECONDS < end)) || fail "only $arrived of $waiting records arrived within 60 s"
        now=$(countFiles "$work/received")
        if ((now != arrived)); then
            showProgress "$now" "$waiting"
        fi
        arrived=$now
        sleep 0.1
    done
}

checkArrived() {
    local name number=0
    while IFS= read -r name; do
        checkRecord $((++number)) tempdb "$work/files/$name"
    done < <(find "$work/files" -type f -printf '%f\n' | inOrderOfSending)
    step "All $waiting equal what was sent, byte for byte, in the order of the spool."
}

# liveRecord NAME KIND FILE: is sent at once, as the next number.
liveRecord() {
    send --kind "$2" --name "$1" - <"$3"
    waitFor 20 "the live record $1" holdsFiles "$work/received" $((waiting + ++live))
    checkRecord $((waiting + live)) "$2" "$3"
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
    modulePid=
    step "QuitSignal: the module ended with status 0, its spool is empty."
    kill -TERM "$receiverPid" "$adminPid"
    expectEnd "$receiverPid" "morvanectl receive"
    expectEnd "$adminPid" "morvanectl admin"
    (($(countFiles "$work/received") == waiting + live)) || fail "more records arrived than were sent"
}

for program in morvane morvanectl; do
    [[ -x $bin/$program ]] || fail "$bin/$program is missing: scripts/run.sh builds it"
done
trap cleanUp EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

bytes=0 live=0 port=
makeWorkFolder
chooseFreePort
writeSettings
collectFiles
waiting=$(countFiles "$work/files")
startAdmin
startModule
fillSpool
watchArrival
checkArrived
sendLive
showAbout
stopAll
echo "Passed: $((waiting + live)) records, $bytes bytes, $waiting through the spool and $live live;" \
    "all equal and in order."
