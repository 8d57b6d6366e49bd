# Shell functions that the demonstrations share. Sourced, never run. The caller has set -euo pipefail
# and calls beginDemo first. It lists files below $work in `evidence`: when something fails, their
# last lines are shown.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

longestFolder=70 # bytes; leaves room for the socket's name in the 106 that a socket path may have
largestFile=1000000 # bytes; larger files of the working copy are not sent
mostFiles=500
longestSend=60 # seconds for one call of morvanectl send

work=
pids=() # process ids of everything that still runs
declare -A modules=() # process id of each module, and what to call it in messages
evidence=()
adminPid= modulePid= port=
runner=() # a command to run the module with, such as "ip netns exec NAME"

# --- the terminal ---

step() {
    echo "* $*"
}

fail() {
    echo
    echo "FAILED: $*"
    local file
    for file in "${evidence[@]}"; do
        [[ -n $work && -s $work/$file ]] || continue
        echo "${file##*/} ends with:"
        tail -n 20 "$work/$file" | sed 's/^/    /'
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
    trap '' INT TERM HUP PIPE
    local pid
    for pid in "${pids[@]}" $(jobs -pr); do # jobs: what has started but is not in pids yet
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
    unset "modules[$1]"
}

# expectEnd PID NAME: waits for the process to end and fails unless its status is 0.
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
    [[ ${stat##*) } == Z* ]] # a zombie; the state follows the name, which is in parentheses
}

# waitFor SECONDS WHAT COMMAND...: waits until the command succeeds, for SECONDS at most.
waitFor() {
    local end=$((SECONDS + $1)) what=$2
    shift 2
    until "$@"; do
        ((SECONDS < end)) || fail "waited too long for $what"
        [[ $what == *"to end" ]] || expectModules "$what"
        sleep 0.1
    done
}

# expectModules WHAT: fails if a module has ended while the script waits for WHAT.
expectModules() {
    local pid
    for pid in "${!modules[@]}"; do
        ! hasEnded "$pid" ||
            fail "${modules[$pid]} ended while the demonstration waited for $1"
    done
}

# shows FILE TEXT: succeeds if FILE, below the working folder, contains TEXT.
shows() {
    grep -aq -- "$2" "$work/$1" 2>/dev/null
}

adminShows() {
    shows admin.out "$1"
}

# countFiles FOLDER...: prints the number of files that are not hidden.
countFiles() {
    find "$@" -mindepth 1 -maxdepth 1 -type f ! -name '.*' | wc -l
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

# Copies this project's files into one folder, under plain names.
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

# checkRecord WHAT KIND FILE RECEIVED: fails unless RECEIVED is KIND directly followed by FILE.
checkRecord() {
    [[ -f $4 ]] || fail "$1, ${3##*/}, has not arrived"
    cmp -s <(printf '%s' "$2" && cat "$3") "$4" ||
        fail "$1 differs from the file ${3##*/} of kind $2"
}

# --- the parts of a demonstration ---

# beginDemo FOLDER WITH THE PROGRAMS
beginDemo() {
    bin=$(cd "$1" && pwd)
    local program
    for program in morvane morvanectl; do
        [[ -x $bin/$program ]] || fail "$bin/$program is missing: scripts/run.sh builds it"
    done
    trap cleanUp EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    trap 'exit 129' HUP
    trap 'exit 141' PIPE
    makeWorkFolder
}

makeWorkFolder() {
    local base
    base=$(cd "${TMPDIR:-/tmp}" && pwd)
    ((${#base} <= longestFolder)) || base=/tmp
    work=$(mktemp -d "$base/morvane-demo.XXXXXX")
    mkdir "$work/bus"
    export TMPDIR=$work/bus # for the bus sockets
    unset XDG_RUNTIME_DIR # otherwise the modules would leave their template settings there
    export LC_ALL=C.UTF-8 # the programs write UTF-8
}

# choosePort WHAT COMMAND: sets `port` to a free port, for which `COMMAND port` fails. The port is
# below the range that the kernel uses for outgoing connections. In that range, a module that tries
# to reach an absent peer could be connected to itself.
choosePort() {
    local i
    for ((i = 0; i < 50; ++i)); do
        port=$((20000 + RANDOM % 12000))
        "$2" "$port" || return 0
    done
    fail "no free $1 port was found"
}

startAdmin() {
    mkfifo "$work/commands"
    exec 3<>"$work/commands" # kept open, so that writing never blocks
    "$bin/morvanectl" admin admin <"$work/commands" >"$work/admin.out" 2>"$work/admin.err" 3>&- &
    adminPid=$!
    pids+=("$adminPid")
    waitFor 10 "the administration server" adminShows Listening
}

# startModule WHAT FOLDER SETTINGS ERRORS: starts a module in the working directory FOLDER, with
# standard error in the file ERRORS. Messages call it WHAT.
startModule() {
    (cd "$work/$2" && exec "${runner[@]}" "$bin/morvane" -settings "$3" >/dev/null 2>"$work/$4" 3>&-) &
    modulePid=$!
    pids=("$modulePid" "${pids[@]}") # in front, so that it is stopped first
    modules[$modulePid]=$1
}

# send MODULE ARGUMENT...: puts records on the bus.
send() {
    timeout --foreground "$longestSend" "$bin/morvanectl" send --wait 20 --quiet --as demo \
        "$@" 3>&- || fail "morvanectl send ended with status $?"
}

# watchArrival ALL SECONDS FOLDER...: waits until the folders hold ALL files.
watchArrival() {
    local all=$1 limit=$2 arrived=-1 now end=$((SECONDS + $2))
    shift 2
    while ((arrived < all)); do
        ((SECONDS < end)) || fail "only $arrived of $all records arrived within $limit s"
        expectModules "records to arrive"
        now=$(countFiles "$@")
        if ((now != arrived)); then
            showProgress "$now" "$all"
        fi
        arrived=$now
        sleep 0.1
    done
}
