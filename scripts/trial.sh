#!/bin/bash
# Puts the packages of /debs through the life of a service. Runs as root in a Debian system booted
# for this trial, see scripts/try-packages.sh. Records are numbered, and counted at the peer.
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

# Sends numbered records in batches until /load.stop exists. If a module ends during a batch, sends
# the batch again, as any sender would that gets an error.
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

# Succeeds if all records sent have reached the peer. Lists the missing ones in /lost.
haveAllArrived() {
    find /received -type f -print0 | xargs -0 cat | grep '=' | sort -u >/arrived
    comm -23 <(sort /load.sent) /arrived >/lost
    [[ ! -s /lost ]]
}

# endLoad KILLS: checks that everything sent has reached the peer. A stop must lose nothing. Each of
# the KILLS may lose what the bus held, which is a batch at most.
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
    step "  $sent records were sent, $lost of them lost."
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
    systemctl enable --now "$unit" || fail "it does not start"
    mkdir /received
    morvanectl receive 7071 --dir /received --quiet &
    echo "=first" | morvanectl send trial --wait 20 --quiet --name first - || fail "nothing was sent"
    waitFor 10 "the first record" grep -qrx tempdb=first /received
    find /received -type f -delete
    tryWords
    step "Installed; the service starts, takes a record and delivers it."
}

# Checks that one record passes from the bus to the peer.
tryOne() {
    echo "=$1" | morvanectl send trial --wait 30 --quiet --name one - || fail "nothing was sent"
    waitFor 20 "a record after a $1" grep -qrx "tempdb=$1" /received
    find /received -type f -delete
}

tryStops() {
    startLoad
    local i before
    for i in 1 2 3; do
        sleep 1
        before=$(property MainPID)
        systemctl reload "$unit" || fail "it cannot be reloaded"
        sleep 0.5
        [[ $(property MainPID) == "$before" ]] || fail "the reload ended it"
        systemctl stop "$unit"
        [[ $(property Result) == success ]] || fail "the stop ended with $(property Result)"
        systemctl start "$unit"
        waitFor 20 "the bus" test -S /run/morvane/trial
        sleep 1
        systemctl restart "$unit"
    done
    step "Reloaded, stopped and started, and restarted, three times under load."
    endLoad 0
}

restarts() {
    [[ $(property NRestarts) -ge $1 && $(property ActiveState) == active ]]
}

tryKills() {
    local i
    startLoad
    for i in 1 2; do
        sleep 1
        systemctl kill --kill-whom=main --signal=KILL "$unit"
        waitFor 60 "a restart after a kill" restarts "$i"
    done
    sleep 1
    step "Killed twice under load, and started again by systemd."
    endLoad 2
}

# Checks that a hanging module is restarted. Shortens the watchdog's two minutes for that.
tryHang() {
    local -r dropIn=/run/systemd/system/$unit.d
    mkdir -p "$dropIn"
    printf '[Service]\nWatchdogSec=5\n' >"$dropIn/trial.conf"
    systemctl daemon-reload
    systemctl restart "$unit"
    sleep 12
    restarts 0 && [[ $(property NRestarts) == 0 ]] || fail "it gives no signs of life"
    kill -STOP "$(property MainPID)"
    waitFor 60 "a restart after a hang" restarts 1
    journalctl -q -u "$unit" | grep -q 'Watchdog timeout' || fail "it was not the watchdog"
    tryOne hang
    rm -r "$dropIn"
    systemctl daemon-reload
    systemctl restart "$unit"
    step "Stopped answering: the watchdog had it started again."
}

# Checks what a person or a monitor sees of the service.
tryWords() {
    [[ $(property StatusText) == *"link up"* ]] || fail "its status is: $(property StatusText)"
    journalctl -q MORVANE_INSTANCE=trial | grep -q 'Start server: trial' || fail "nothing is in the journal"
    waitFor 15 "counters" grep -q '^morvane_records_accepted_total{module="trial"} [1-9]' \
        /var/cache/morvane/trial.prom
}

# Checks that wrong settings end the service without a restart, with the reason in the journal.
tryBadSettings() {
    sed 's/^Host=.*/Host=peer.example/' /etc/morvane/trial.ini >/etc/morvane/bad.ini
    ! systemctl start morvane@bad 2>/dev/null || fail "it starts with bad settings"
    sleep 7 # seconds; a restart would come sooner
    [[ $(systemctl show -P ExecMainStatus morvane@bad) == 78 &&
        $(systemctl show -P NRestarts morvane@bad) == 0 ]] || fail "it is started again with bad settings"
    journalctl -q -u morvane@bad | grep -q 'error: "Host" = "peer.example"' || fail "no reason is given"
    step "Refused to start with bad settings, and said why."
}

# tryConsole: a person opens the console and leaves; the module must keep running.
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

hasRestarted() {
    [[ $(property NRestarts) != "$1" && -S /run/morvane/trial ]]
}

# Checks that the module ends with its administration server, and is restarted.
tryAdminRestart() {
    local before
    before=$(property NRestarts)
    rm /run/morvane/trial # the module makes it again when it listens
    systemctl restart morvane-admin
    adminPid=$(systemctl show -P MainPID morvane-admin)
    waitFor 40 "the module after its administration server" hasRestarted "$before"
    step "Restarted the administration server, and with it the module."
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
    endLoad 0
}

# Lists the files named after the packages, except the trial's own.
leftovers() {
    find / -xdev \( -path /proc -o -path /project -o -path /debs -o -path /newer -o -path "${state%/*}/*" \
        -o -path /var/cache/apt \) -prune -o \( -iname '*morvane*' -o -iname '*harnix*' \) -print
}

tryRemoval() {
    dpkg --purge morvane morvanectl libharnix-nogui1 >/apt.log 2>&1 || fail "purging ended with $?"
    ! systemctl --quiet is-active "$unit" morvane-admin || fail "it still runs"
    [[ -d $state/spool ]] || fail "the spool is gone"
    [[ $(leftovers | sort | paste -sd ' ') == "/etc/morvane /var/lib/morvane" ]] ||
        fail "a purge leaves $(leftovers | paste -sd ' ')"
    step "Purged: the service has ended, $state is left."
}

tryInstallation
tryStart
tryBadSettings
tryConsole
tryAdminRestart
tryStops
tryKills
tryHang
tryUpgrade
tryRemoval
step "Passed."
