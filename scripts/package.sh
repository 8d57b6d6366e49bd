#!/bin/bash
# Makes the Debian packages in build/package/debs and checks them with lintian. With --try it also
# installs them in a clean Debian system made for that, and runs the demonstration there (as root
# only; takes some minutes and 600 MB in the folder for temporary files):
#
#     scripts/package.sh [--try]
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

packagePackages=(dpkg-dev fakeroot file gzip lintian qt6-l10n-tools)
output=$root/build/package/debs
clean= # root folder of the clean system

# Debian's flags: hardening, and no path of this machine in what they compile. CMake takes them from
# the environment when it has no cache, and knows nothing of the preprocessor's.
useDebianFlags() {
    local flags
    flags=$(cd "$root" && DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --export=sh)
    eval "$flags"
    export CXXFLAGS="$CXXFLAGS $CPPFLAGS"
    rm -f "$root/build/package/CMakeCache.txt"
}

makePackages() {
    rm -rf "$output"
    (umask 022 && quietly "$root/build/cpack.log" cpack --config "$root/build/package/CPackConfig.cmake" \
        -B "$output")
    rm -rf "$output/_CPack_Packages"
}

checkPackages() {
    # Run by root, lintian would warn about that.
    lintian --allow-root --fail-on error --suppress-tags initial-upload-closes-no-bugs \
        "$output"/*.deb
}

removeCleanSystem() {
    umount "$clean/proc" 2>/dev/null || true
    rm -rf --one-file-system "$clean"
}

# From the mirror that this machine uses itself.
mirror() {
    apt-get indextargets --format '$(REPO_URI) $(CODENAME)' 'Created-By: Packages' |
        awk '$2 == "bookworm" { print $1; exit }'
}

makeCleanSystem() {
    clean=$(mktemp -d)
    trap removeCleanSystem EXIT
    note "Making a clean system ..."
    quietly "$root/build/debootstrap.log" debootstrap --variant=minbase bookworm "$clean" "$(mirror)"
    mount -t proc proc "$clean/proc"
}

inCleanSystem() {
    chroot "$clean" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@"
}

tryPackages() {
    makeCleanSystem
    mkdir "$clean/debs" "$clean/project"
    cp "$output"/*.deb "$clean/debs"
    cp -r "$root/scripts" "$root/docs" "$root/module" "$clean/project"
    note "Installing the packages in it ..."
    quietly "$root/build/install.log" inCleanSystem sh -c \
        'apt-get update && apt-get install -y --no-install-recommends /debs/*.deb'
    inCleanSystem getent passwd morvane
    inCleanSystem /project/scripts/demo.sh /usr/bin
    note "Removing the packages ..."
    quietly "$root/build/remove.log" inCleanSystem dpkg --purge morvane morvanectl libharnix-nogui1
}

installMissing "${buildPackages[@]}" "${packagePackages[@]}"
useDebianFlags
build package
makePackages
checkPackages
[[ ${1-} != --try ]] || { installMissing debootstrap && tryPackages; }
note "The packages:"
ls "$output"/*.deb
