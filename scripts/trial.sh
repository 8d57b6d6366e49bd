#!/bin/bash
# Puts the packages of /debs through what happens to a service in its life: runs as root in a Debian
# system that was booted for that, see scripts/try-packages.sh. Records are numbered, and
# counted at the peer.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
export PATH=/usr/sbin:/usr/bin:/sbin:/bin TMPDIR=/run/morvane LC_ALL=C.UTF-8
export DEBIAN_FRONTEND=noninteractive

unit=morvane@trial.service
state=/var/lib/morvane/trial
batchSize=50 # records
loadPid= adminPid=

step() {
    echo "* $*"
}

fail() {
    echo "FAILED: $*"
    systemctl status --no-pager -n 30 "$unit" || true
    exit 1
}

# waitFor SECONDS WHAT COMMAND...
waitFor() {
    local end=$((SECONDS + $1)) what=$2
    shift 2
    until "$@"; do
        ((SECONDS < end)) || fail "waited too long for $what"
        sleep 0.1
    done
}

property() {
    systemctl show -P "$1" "$unit"
}

installPackages() {
    apt-get install -y --no-install-recommends "$1"/*.deb >/apt.log 2>&1 ||
        { cat /apt.log; fail "the packages of $1 are not installed"; }
}

writeSettings() {
    sed -e 's/^Host=.*/Host=127.0.0.1/' -e 's/^ReconnectionTimeout=.*/ReconnectionTimeout=1/' \
        -e 's/^ServerName=.*/ServerName=trial/' -e 's/transfer1/trial/' \
        /usr/share/doc/morvane/examples/morvane.ini >/etc/morvane/trial.ini
}

# --- records ---

# Sends numbered records in batches until /load.stop exists. A batch that a module has cut off is sent
# again, as a sender does that was told so.
load() {
    local batch=0 i names
    mkdir -p /load
    while [[ ! -e /load.stop ]]; do
        names=()
        for ((i = 0; i < batchSize; ++i)); do
            names+=("/load/$batch-$i")
            echo "=$batch-$i" >"/load/$batch-$i"
        done
        until morvanectl send trial --wait 20 --quiet "${names[@]}"; do :; done 2>>/load.err
        printf 'tempdb=%s\n' "${names[@]#/load/}" >>/load.sent
        rm "${names[@]}"
        batch=$((batch + 1))
    done
}

startLoad() {
    load &
    loadPid=$!
    waitFor 20 "records" test -s /load.sent
}

# Lists in /lost what was sent and has not reached the peer.
haveAllArrived() {
    find /received -type f -print0 | xargs -0 cat | grep '=' | sort -u >/arrived
    comm -23 <(sort /load.sent) /arrived >/lost
    [[ ! -s /lost ]]
}

# endLoad STOPS: all that was sent has reached the peer. A stop may lose what one sender had written
# and the module had not read, at most a batch.
endLoad() {
    local end=$((SECONDS + 20)) sent lost
    touch /load.stop
    wait "$loadPid"
    rm /load.stop
    until haveAllArrived || ((SECONDS >= end)); do
        sleep 1
    done
    sent=$(wc -l </load.sent)
    lost=$(wc -l </lost)
    ((lost <= batchSize * $1)) || fail "$lost of $sent records were lost, the first: $(sed 1q /lost)"
    step "  $sent records were sent, $lost of them were not read before a stop and are lost."
    rm -f /load.sent
    find /received -type f -delete
}

# --- the trials ---

tryInstallation() {
    installPackages /debs
    getent passwd morvane >/dev/null || fail "there is no user"
    ! systemctl list-units 'morvane@*' --no-legend --state=active | grep . ||
        fail "something runs before it was set up"
    writeSettings
    adminPid=$(systemctl show -P MainPID morvane-admin)
    [[ $adminPid != 0 ]] || fail "there is no administration server"
}

tryStart() {
    systemctl start "$unit" || fail "it does not start"
    mkdir /received
    morvanectl receive 7071 --dir /received --quiet &
    echo "=first" | morvanectl send trial --wait 20 --quiet --name first - || fail "nothing was sent"
    waitFor 10 "the first record" grep -qrx tempdb=first /received
    find /received -type f -delete
    step "Installed; the service starts, takes a record and delivers it."
}

tryStops() {
    startLoad
    local i
    for i in 1 2 3; do
        sleep 1
        systemctl stop "$unit"
        [[ $(property Result) == success ]] || fail "the stop ended with $(property Result)"
        systemctl start "$unit"
        waitFor 20 "the bus" test -S /run/morvane/trial
        sleep 1
        systemctl restart "$unit"
    done
    step "Stopped and started, and restarted, three times under load."
    endLoad 6
}

# tryConsole: one looks in and leaves, and the module runs on.
tryConsole() {
    local before
    before=$(property MainPID)
    morvanectl check --directory "$state/received" /etc/morvane/trial.ini || fail "check has found something"
    morvanectl admin admin about | grep -q '^    Версия модуля' || fail "the module does not answer"
    [[ $(property MainPID) == "$before" ]] || fail "a console has restarted the module"
    journalctl -q -u morvane-admin | grep -q 'Command About to all (user root' ||
        fail "the administration server has not written who gave a command"
    step "Attached a console, which the module survived."
}

tryUpgrade() {
    local before after
    before=$(property MainPID)
    startLoad
    installPackages /newer
    sleep 2
    after=$(property MainPID)
    [[ $after != 0 && $after != "$before" ]] || fail "it still runs the old program"
    [[ $(readlink "/proc/$after/exe") == /usr/bin/morvane ]] || fail "it runs a removed program"
    [[ $(systemctl show -P MainPID morvane-admin) == "$adminPid" ]] ||
        fail "the administration server was restarted"
    step "Upgraded to $(dpkg-query -W -f '${Version}' morvane) under load."
    endLoad 1
}

tryRemoval() {
    dpkg --purge morvane morvanectl libharnix-nogui1 >/apt.log 2>&1 || fail "purging ended with $?"
    ! systemctl --quiet is-active "$unit" morvane-admin || fail "it still runs"
    [[ -d $state/spool && ! -e /var/log/morvane ]] || fail "not what a purge leaves"
    step "Purged: the service has ended, $state is left."
}

tryInstallation
tryStart
tryConsole
tryStops
tryUpgrade
tryRemoval
step "Passed."
