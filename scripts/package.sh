#!/bin/bash
# Makes the Debian packages, source and binary, in build/package and checks them with lintian. Each
# of its findings must be explained in an override. With --try, also tries the packages in a clean
# Debian system, see scripts/try-packages.sh:
#
#     scripts/package.sh [--try]
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

packagePackages=(debhelper dpkg-dev fakeroot lintian qt6-l10n-tools)
output=$root/build/package
version=$(sed -n '1s/.*(\(.*\)-.*/\1/p' "$root/debian/changelog") # without the packaging's own number
tree=$output/morvane-$version

# Lists the files that git tracks or would add. Without git, lists all files but those of a build.
listTree() {
    git -C "$root" ls-files -z --cached --others --exclude-standard 2>/dev/null ||
        find "$root" -path "$root/build" -prune -o -path "$root/.git" -prune -o -type f -printf '%P\0'
}

copyTree() {
    rm -rf "$output"
    mkdir -p "$tree"
    listTree | tar -c -C "$root" --null --ignore-failed-read -T - | tar -x -C "$tree" --no-same-owner
}

# Makes the source archive of the release, with the same bytes whenever and wherever it is made.
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

# --allow-root keeps lintian from warning that root runs it.
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
