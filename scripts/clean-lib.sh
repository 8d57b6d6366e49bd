# Shell functions that make a clean Debian system in a folder. They need root. Sourced after lib.sh.

clean= # root folder of the clean system

removeCleanSystem() {
    umount "$clean/proc" 2>/dev/null || true
    rm -rf --one-file-system "$clean"
}

# Uses the mirror that this machine uses itself.
mirror() {
    apt-get indextargets --format '$(REPO_URI) $(CODENAME)' 'Created-By: Packages' |
        awk '$2 == "bookworm" { print $1; exit }'
}

# makeBareSystem FOLDER
makeBareSystem() {
    note "Making a clean system ..."
    quietly "$root/build/debootstrap.log" debootstrap --variant=minbase \
        --include=dbus,systemd-sysv bookworm "$1" "$(mirror)"
}

# Makes the clean system in $clean and removes it when the script ends. If BARE_SYSTEM=FOLDER is set
# in the environment, keeps the bare system in FOLDER for the next run.
makeCleanSystem() {
    ((EUID == 0)) || die "Only root can make a clean system: run it as root."
    installMissing debootstrap "$@"
    clean=$(mktemp -d)
    trap removeCleanSystem EXIT
    if [[ -n ${BARE_SYSTEM-} ]]; then
        [[ -e $BARE_SYSTEM/etc/os-release ]] || makeBareSystem "$BARE_SYSTEM"
        cp -a "$BARE_SYSTEM/." "$clean"
    else
        makeBareSystem "$clean"
    fi
    chmod 755 "$clean"
}

inCleanSystem() {
    chroot "$clean" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@"
}
