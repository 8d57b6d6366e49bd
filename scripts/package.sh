#!/bin/bash
# Makes the Debian packages, source and binary, in build/package and checks them with lintian:
# whatever it says must be explained in an override. With --try they are also tried in a clean Debian
# system made for that, see scripts/try-packages.sh:
#
#     scripts/package.sh [--try]
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

packagePackages=(debhelper dpkg-dev fakeroot lintian qt6-l10n-tools)
output=$root/build/package
version=$(sed -n '1s/.*(\(.*\)-.*/\1/p' "$root/debian/changelog") # without the packaging's own number
tree=$output/morvane-$version

# What git knows or would add, or without git all but what was built.
listTree() {
    git -C "$root" ls-files -z --cached --others --exclude-standard 2>/dev/null ||
        find "$root" -path "$root/build" -prune -o -path "$root/.git" -prune -o -type f -printf '%P\0'
}

copyTree() {
    rm -rf "$output"
    mkdir -p "$tree"
    listTree | tar -c -C "$root" --null --ignore-failed-read -T - | tar -x -C "$tree" --no-same-owner
}

# The release that the packaging belongs to: the same bytes whenever and wherever it is made.
packRelease() {
    local time
    time=$(dpkg-parsechangelog -l "$tree/debian/changelog" -S Timestamp)
    tar -c -C "$output" --anchored --exclude="morvane-$version/debian" --sort=name \
        --mtime="@$time" --owner=0 --group=0 --numeric-owner --mode=u+rw,go=rX "morvane-$version" |
        gzip -9n >"$output/morvane_$version.orig.tar.gz"
}

# The tests have their own script, so the packages are built without them.
buildTree() {
    cd "$tree" && umask 022 &&
        DEB_BUILD_OPTIONS="nocheck parallel=$(nproc)" dpkg-buildpackage -us -uc
}

# Run by root, lintian would warn about that.
checkPackages() {
    note "Checking the packages ..."
    lintian --allow-root --pedantic --display-info --fail-on error,warning,info,pedantic \
        "$output"/*.changes
}

[[ $root != *[[:space:]]* ]] || die "Debian's tools build no packages below a path with a blank: $root"
installMissing "${buildPackages[@]}" "${packagePackages[@]}"
copyTree
packRelease
note "Building the packages; this takes a minute or two ..."
quietly "$root/build/package.log" buildTree
checkPackages
[[ ${1-} != --try ]] || "$root/scripts/try-packages.sh"
note "The packages:"
ls "$output"/*.deb "$output"/*.dsc
