#!/bin/bash
# Shows on this machine alone what docs/tunnel.md describes, and checks it: records go through a TLS
# tunnel with certificates at both ends, strangers get none and deliver none, killed tunnels lose
# none, and two modules send each other files over UDP through WireGuard. The commands for
# certificates and keys are taken from that page, the configurations from examples/tunnel. Everything
# happens in a temporary folder, which is removed at the end.
#
#     scripts/demo-tunnel.sh [FOLDER WITH THE PROGRAMS]      (default: build/release/bin)
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
source "$(dirname "${BASH_SOURCE[0]}")/demo-lib.sh"

page=$root/docs/tunnel.md
examples=$root/examples/tunnel
kills=6
bulkRecords=150
bulkBytes=400000 # of each of them
hosts=(left right)
declare -A ports=() address=([left]=10.77.0.1 [right]=10.77.0.2) outer=([left]=192.0.2.1 [right]=192.0.2.2)
declare -A tunnel=() hostPid=() # process ids of the tunnel's ends
sent=0 receiverPid=
namespace=morvane-$$ # and what the network namespaces are called
evidence=(run/transfer.log run/stderr receiver.tunnel module.tunnel receive.err admin.err
    left/left.log right/right.log wireguard.err)

isTcpPortTaken() {
    [[ " ${ports[*]} " == *" $1 "* ]] || (: <>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
}

# runStep NAME: runs the page's commands with this name in the current folder.
runStep() {
    local commands
    commands=$(sed -n "/^<!-- demo: $1 -->\$/,/^\`\`\`\$/ { /^<!--\|^\`\`\`/d; p }" "$page")
    [[ -n $commands ]] || fail "$page has no commands called $1"
    bash -euo pipefail -c "$commands"
}

# --- TLS ---

makeCertificates() {
    mkdir "$work/tls"
    (cd "$work/tls" && runStep certificates) >"$work/tls.log" 2>&1 ||
        { evidence=(tls.log) && fail "the certificates cannot be made"; }
    step "An authority of its own and two certificates are made as $(basename "$page") says."
}

# adaptTunnel END: puts this demonstration's folder and ports into the example's configuration, and
# makes stunnel run as this user.
adaptTunnel() {
    sed -e "s|/etc/stunnel/morvane/|$work/tls/|; /^set[ug]id/d" \
        -e "s|192\.0\.2\.7:7443|127.0.0.1:${ports[outside]}|; s|0\.0\.0\.0:7443|127.0.0.1:${ports[outside]}|" \
        -e "s|connect = 127\.0\.0\.1:7071|connect = 127.0.0.1:${ports[receiver]}|" \
        -e "s|accept = 127\.0\.0\.1:7071|accept = 127.0.0.1:${ports[module]}|" \
        "$examples/stunnel-$1.conf" >"$work/$1.conf"
}

# startTunnel END: starts an end, receiver or module, as systemd would.
startTunnel() {
    stunnel "$work/$1.conf" >>"$work/$1.tunnel" 2>&1 3>&- &
    tunnel[$1]=$!
    pids+=("$!")
}

writeSettings() {
    mkdir "$work/run" "$work/spool"
    cat >"$work/run/demo.ini" <<SETTINGS
[Base]
LogName=transfer
Log=1
AdminServerName=admin
ServerName=transfer

[Main]
Protocol=TCP
Host=127.0.0.1
Port=${ports[module]}
Acknowledgements=1
TempDir=../spool
ReconnectionTimeout=1
LiveMessageTimeout=5
SETTINGS
}

startReceiver() {
    "$bin/morvanectl" receive "${ports[receiver]}" --dir "$work/received" --acknowledge \
        >"$work/receive.out" 2>"$work/receive.err" 3>&- &
    receiverPid=$!
    pids+=("$receiverPid")
    waitFor 10 "the receiver to listen" shows receive.out Listening
}

bringUp() {
    local end
    for end in module receiver outside; do
        choosePort TCP isTcpPortTaken
        ports[$end]=$port
    done
    adaptTunnel receiver
    adaptTunnel module
    writeSettings
    startAdmin
    startTunnel module
    startModule "the module" run demo.ini run/stderr
    step "The module and its end of the tunnel are started; the bus comes up in passes of 5 s ..."
    waitFor 30 "the module's bus name" shows run/transfer.log "Start server: transfer Ok"
}

# --- strangers ---

makeImpostorCertificate() {
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=receiver \
        -addext subjectAltName=DNS:receiver -keyout "$work/impostor.key" -out "$work/impostor.pem" \
        2>/dev/null
}

hasRefused() {
    grep -q "Certificate check failed\|certificate verify failed" "$work/module.tunnel"
}

# An impostor listens in the receiver's place while a record waits. It writes to a file what it gets.
refuseImpostor() {
    local impostor
    mkfifo "$work/silence"
    openssl s_server -accept "127.0.0.1:${ports[outside]}" -key "$work/impostor.key" \
        -cert "$work/impostor.pem" <>"$work/silence" >"$work/impostor.out" 2>&1 3>&- &
    impostor=$!
    pids+=("$impostor")
    send transfer --name secret - <<<"for the receiver only"
    sent=1
    waitFor 20 "the tunnel to refuse the impostor" hasRefused
    stopProcess "$impostor"
    wait "$impostor" 2>/dev/null || true
    forget "$impostor"
    ! shows impostor.out "receiver only" || fail "the impostor has got a record"
    step "An impostor with a certificate of its own listens in the receiver's place, and gets nothing:"
    grep "verify failed\|check failed" "$work/module.tunnel" | head -n 1 | cut -d ' ' -f 3- | sed 's/^/    /'
}

# refuseSender WHAT OPTION...: sends a record by openssl with these options. It must not arrive.
refuseSender() {
    local what=$1 before
    before=$(countFiles "$work/received")
    shift
    { printf '\x0e\0\0\0tempdbstranger' && sleep 1; } |
        openssl s_client -connect "127.0.0.1:${ports[outside]}" -CAfile "$work/tls/authority.pem" "$@" \
            >"$work/stranger.out" 2>&1 || true
    shows stranger.out "alert" || fail "a sender $what was not refused"
    (($(countFiles "$work/received") == before)) ||
        fail "a record of a sender $what has arrived"
    step "A sender $what delivers nothing: $(grep -o 'alert [a-z ]*' "$work/stranger.out" | head -n 1)."
}

# --- records through the tunnel ---

# digestsSent FILE...: adds the digests of these records to the list of those sent, in the form that
# the index has them.
digestsSent() {
    local file
    for file in "$@"; do
        { printf tempdb && cat "$file"; } | b2sum --length=256
    done | cut -d ' ' -f 1 >>"$work/sent"
}

# Succeeds if the index has every record that was sent.
haveAllArrived() {
    ! grep -qvFf <(cut -d ' ' -f 4 "$work/received/.index") "$work/sent"
}

# Checks that the received files match the index, and that it marks each record that arrived twice.
checkIndex() {
    local doubles arrived
    (cd "$work/received" &&
        awk '!/^#/ { print $4 "  " $5 }' .index | b2sum --check --quiet --strict >/dev/null) ||
        fail "a file is not what its line in the index says"
    (cd "$work/received" && runStep doubles) >"$work/doubles"
    doubles=$(wc -l <"$work/doubles")
    arrived=$(countFiles "$work/received")
    ((arrived == sent + doubles)) ||
        fail "$arrived records lie there: $sent were sent, and the index tells $doubles that came twice"
    step "All $sent records arrived, equal byte for byte; $doubles of them came twice, and the index tells which."
}

sendFiles() {
    collectFiles
    startReceiver
    startTunnel receiver
    sent=$((sent + $(countFiles "$work/files")))
    digestsSent <(echo "for the receiver only") "$work"/files/*
    step "The receiver and its end of the tunnel come up; files of this project follow:"
    send transfer "$work"/files/*
    watchArrival "$sent" 60 "$work/received"
    haveAllArrived || fail "not every record has arrived"
    checkIndex
}

# killInMidStream NUMBER: kills one of the three processes between the module and the disk, and starts it
# again.
killInMidStream() {
    local before sender victims=(module receiver program)
    local victim=${victims[$1 % 3]}
    mkdir "$work/bulk"
    head -c $((bulkRecords * bulkBytes)) /dev/urandom | split -b "$bulkBytes" -a 4 - "$work/bulk/$1-"
    before=$(countFiles "$work/received")
    digestsSent "$work/bulk"/*
    sent=$((sent + bulkRecords))
    send transfer "$work"/bulk/* &
    sender=$!
    waitFor 20 "records to arrive" holdsFiles "$work/received" $((before + bulkRecords / 10))
    if [[ $victim == program ]]; then
        killProcess "$receiverPid"
        startReceiver
    else
        killProcess "${tunnel[$victim]}"
        startTunnel "$victim"
    fi
    wait "$sender" || fail "morvanectl send failed"
    rm -r "$work/bulk"
}

killProcess() {
    kill -KILL "$1"
    wait "$1" 2>/dev/null || true
    forget "$1"
}

killAgainAndAgain() {
    local i
    step "In turn the module's end of the tunnel, the receiver's end and the receiver are killed, $kills" \
        "times in all, while $((kills * bulkRecords)) records of $bulkBytes bytes flow ..."
    for ((i = 0; i < kills; ++i)); do
        killInMidStream "$i"
    done
    waitFor 60 "all records to arrive" haveAllArrived
    checkIndex
}

stopAll() {
    waitFor 10 "the spool to be empty" isEmpty "$work/spool"
    echo "QuitSignal" >&3
    expectEnd "$modulePid" "the module"
    kill -TERM "$receiverPid"
    expectEnd "$receiverPid" "morvanectl receive"
    kill -TERM "$adminPid"
    expectEnd "$adminPid" "morvanectl admin"
}

# --- WireGuard ---

removeHosts() {
    local host
    for host in "${hosts[@]}"; do
        ip netns exec "$namespace-$host" wg-quick down "$work/wireguard/m$host.conf" >/dev/null 2>&1 || true
        ip netns del "$namespace-$host" 2>/dev/null || true
    done
}

inHost() {
    local host=$1
    shift
    ip netns exec "$namespace-$host" "$@"
}

# Makes two network namespaces and joins them by a wire.
makeHosts() {
    ip netns add "$namespace-left" && ip netns add "$namespace-right" &&
        ip link add wire netns "$namespace-left" type veth peer name wire netns "$namespace-right" &&
        inHost left ip addr add "${outer[left]}/24" dev wire &&
        inHost right ip addr add "${outer[right]}/24" dev wire &&
        inHost left ip link set wire up && inHost right ip link set wire up
}

# Succeeds if the kernel has WireGuard, or if the program wireguard-go can stand in for it.
haveWireGuard() {
    ! inHost left ip link add probe type wireguard 2>/dev/null || return 0
    [[ -c /dev/net/tun ]] && (installMissing wireguard-go)
}

bringUpWireGuard() {
    local host
    mkdir "$work/wireguard"
    cp "$examples"/wireguard-*.conf "$work/wireguard"
    (cd "$work/wireguard" && runStep wireguard)
    for host in "${hosts[@]}"; do
        mv "$work/wireguard/$host.conf" "$work/wireguard/m$host.conf"
        inHost "$host" wg-quick up "$work/wireguard/m$host.conf" >>"$work/wireguard.err" 2>&1 ||
            fail "wg-quick cannot bring up the $host end"
    done
}

# startHost HOST OTHER
startHost() {
    mkdir -p "$work/$1/spool" "$work/$1/received"
    cat >"$work/$1/$1.ini" <<SETTINGS
[Base]
LogName=../$1
Log=1
AdminServerName=
ServerName=$1

[Main]
Protocol=UDP
Host=${address[$2]}
LocalPort=9000
Port=9000
OnlyPeer=1
Timeout=1
TempDir=../spool
SETTINGS
    runner=(ip netns exec "$namespace-$1")
    QT_LOGGING_RULES="default.debug=false" startModule "module $1" "$1/received" "../$1.ini" "$1/stderr"
    hostPid[$1]=$modulePid
}

showWireGuard() {
    local host other file count=0
    bringUpWireGuard
    startHost left right
    startHost right left
    for host in "${hosts[@]}"; do
        waitFor 30 "module $host to listen" shows "$host/$host.log" "Start server: $host Ok"
    done
    for file in "$work"/files/*.md; do
        ((++count <= 4)) || break
        send "${hosts[count % 2]}" --name "file$count" - <"$file"
        cp "$file" "$work/wireguard/file$count"
    done
    step "Four files of this project go to the other side over UDP, through WireGuard, two each way:"
    watchArrival 4 60 "$work/left/received" "$work/right/received"
    for count in 1 2 3 4; do
        other=${hosts[1 - count % 2]}
        checkRecord "file $count" tempdb "$work/wireguard/file$count" "$work/$other/received/file$count"
    done
    for host in "${hosts[@]}"; do
        kill -TERM "${hostPid[$host]}"
        expectEnd "${hostPid[$host]}" "module $host"
    done
    step "All equal. The tunnel has carried $(inHost left wg show mleft transfer | cut -f 2,3 | tr '\t' '/') bytes" \
        "to and from the left host."
}

tryWireGuard() {
    trap 'removeHosts; cleanUp' EXIT
    if ((EUID == 0)) && makeHosts 2>"$work/wireguard.err" && haveWireGuard; then
        showWireGuard
    else
        step "WireGuard is left out: this system does not let us make network namespaces with a tunnel."
    fi
}

installMissing stunnel4 openssl wireguard-tools iproute2
beginDemo "${1:-$root/build/release/bin}"
makeCertificates
makeImpostorCertificate
bringUp
refuseImpostor
sendFiles
refuseSender "without a certificate"
refuseSender "with a certificate of its own" -cert "$work/impostor.pem" -key "$work/impostor.key"
killAgainAndAgain
stopAll
tryWireGuard
echo "Passed: $sent records through TLS, none lost."
