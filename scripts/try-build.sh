#!/bin/bash
# Builds the source package made by scripts/package.sh in a clean Debian system that has only its
# declared build dependencies. Then builds examples/library there against the resulting packages.
# Needs root, some minutes, 2 GB in the folder for temporary files, and the network.
#
#     scripts/try-build.sh
#
# If BARE_SYSTEM=FOLDER is set in the environment, keeps the bare system in FOLDER for the next run.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
source "$root/scripts/clean-lib.sh"

# Installs build-essential by name, because source packages need not declare it.
buildInCleanSystem() {
    mkdir "$clean/build"
    cp "$root"/build/package/morvane_*.{dsc,tar.*} "$clean/build"
    mount -t proc proc "$clean/proc"
    quietly "$root/build/build-dep.log" inCleanSystem sh -ec 'cd /build
        apt-get update
        apt-get install -y --no-install-recommends build-essential
        apt-get build-dep -y --no-install-recommends ./*.dsc
        dpkg-source --extract ./*.dsc source'
    note "Building in it ..."
    quietly "$root/build/clean-build.log" inCleanSystem sh -ec 'cd /build/source
        DEB_BUILD_OPTIONS="nocheck parallel=$(nproc)" dpkg-buildpackage -us -uc -b'
}

buildExample() {
    cp -r "$root/examples/library" "$clean/build/library"
    quietly "$root/build/example.log" inCleanSystem sh -ec 'cd /build/library
        apt-get install -y --no-install-recommends pkg-config ../libharnix-nogui*.deb
        g++ -std=c++20 -fPIC main.cpp $(pkg-config --cflags --libs harnix-nogui) -o sample
        cmake -S . -B built
        cmake --build built
        ./sample | grep /sample.ini
        ./built/sample | grep /sample.log
        grep "Started with the support library" sample.log'
}

[[ -e $(echo "$root"/build/package/morvane_*.dsc) ]] || die "There is no source package: run scripts/package.sh."
makeCleanSystem
buildInCleanSystem
buildExample
note "The source package builds from what it declares, and its library can be linked."
