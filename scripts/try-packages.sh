#!/bin/bash
# Tries the packages made by scripts/package.sh in a clean Debian system. Installs them and runs the
# service under systemd in a container. Puts it through stops, reloads, kills, a hang and an upgrade
# while it counts the records that flow, then removes the packages. Where no container can boot,
# installs them, runs the demonstration and removes them. Needs root, three minutes, and 700 MB in
# the folder for temporary files.
#
#     scripts/try-packages.sh
#
# If BARE_SYSTEM=FOLDER is set in the environment, keeps the bare system in FOLDER for the next run.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
source "$root/scripts/clean-lib.sh"

longestTrial=480 # seconds

# newerPackages FOLDER: makes the same packages with a newer version, for the upgrade.
newerPackages() {
    local package unpacked=$clean/unpacked
    for package in "$clean"/debs/*.deb; do
        dpkg-deb -R "$package" "$unpacked"
        sed -i -E "/^(Version|Depends):/s/$version/&+trial/g" "$unpacked/DEBIAN/control"
        dpkg-deb --root-owner-group -Znone -b "$unpacked" "$1"
        rm -rf "$unpacked"
    done
}

fillCleanSystem() {
    mkdir "$clean/debs" "$clean/newer" "$clean/project"
    cp "$root"/build/package/{morvane,morvanectl,libharnix-nogui1}_*.deb "$clean/debs"
    version=$(dpkg-deb -f "$clean"/debs/morvane_*.deb Version)
    quietly "$root/build/newer.log" newerPackages "$clean/newer"
    cp -r "$root/scripts" "$root/docs" "$root/module" "$clean/project"
}

# Downloads what the packages need, because the container has no network. Fails if their
# recommendations would bring a mail server.
fetchDependencies() {
    mount -t proc proc "$clean/proc"
    quietly "$root/build/fetch.log" inCleanSystem apt-get update
    inCleanSystem sh -c 'apt-get install -s --install-recommends /newer/*.deb' >"$root/build/fetch.log"
    ! grep -E '^Inst .*(exim|postfix|mail|cron)' "$root/build/fetch.log" ||
        die "The packages pull a mail server."
    local folder
    for folder in debs newer; do
        quietly "$root/build/fetch.log" inCleanSystem sh -c \
            "apt-get install -y --no-install-recommends --download-only /$folder/*.deb"
    done
    umount "$clean/proc"
}

# Makes the trial's script a service of the booted system. When it ends, the system shuts down.
prepareTrial() {
    cat >"$clean/etc/systemd/system/trial.service" <<'UNIT'
[Unit]
SuccessAction=exit
FailureAction=exit
FailureActionExitStatus=1
[Service]
Type=oneshot
ExecStart=/project/scripts/trial.sh
StandardOutput=truncate:/trial.out
StandardError=inherit
UNIT
    ln -s ../trial.service "$clean/etc/systemd/system/multi-user.target.wants"
    : >"$clean/trial.out"
}

tryBooted() {
    local status=0 shown
    prepareTrial
    tail -f "$clean/trial.out" &
    shown=$!
    timeout -k 20 "$longestTrial" systemd-nspawn -D "$clean" --boot --quiet --register=no --keep-unit \
        --private-network --link-journal=no --console=pipe </dev/null >"$root/build/boot.log" 2>&1 ||
        status=$?
    sleep 0.2
    kill "$shown"
    return "$status"
}

tryInChroot() {
    mount -t proc proc "$clean/proc"
    quietly "$root/build/install.log" inCleanSystem sh -c \
        'apt-get install -y --no-install-recommends /debs/*.deb'
    inCleanSystem getent passwd morvane
    inCleanSystem /project/scripts/demo.sh /usr/bin
    quietly "$root/build/remove.log" inCleanSystem dpkg --purge morvane morvanectl libharnix-nogui1
}

makeCleanSystem systemd-container
fillCleanSystem
fetchDependencies
note "Booting it ..."
if tryBooted; then
    note "The packages were tried under systemd."
elif [[ -s $clean/trial.out ]]; then
    cp -r "$clean/var/log/journal" "$clean/run/log" "$root/build" 2>/dev/null || true
    die "The trial of the packages failed."
else
    note "No container boots here (see $root/build/boot.log): they are tried without systemd."
    tryInChroot
fi
