# Shell functions that the scripts share. Sourced, never run. The caller has set -euo pipefail. Their
# messages go to standard error, because standard output belongs to the program that a script runs.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# Needed by the build. qt6-base-dev brings neither a compiler nor zlib's headers.
buildPackages=(g++ cmake ninja-build qt6-base-dev zlib1g-dev libedit-dev libsystemd-dev)
# Also needed by the tests: one opens a real database, and the translation is compiled.
testPackages=(libqt6sql6-sqlite qt6-l10n-tools)

note() {
    echo "$*" >&2
}

die() {
    note "$*"
    exit 1
}

asRoot() {
    if ((EUID == 0)); then
        env DEBIAN_FRONTEND=noninteractive "$@"
    else
        sudo env DEBIAN_FRONTEND=noninteractive "$@"
    fi
}

isInstalled() {
    [[ $(dpkg-query -W -f='${Status}' "$1" 2>/dev/null) == "install ok installed" ]]
}

# quietly LOG COMMAND...: writes the command's output to the file LOG, and shows it if it fails.
quietly() {
    local log=$1
    shift
    mkdir -p "$(dirname "$log")"
    if ! "$@" >"$log" 2>&1; then
        tail -n 60 "$log" >&2
        die "Failed: $* (all of its output is in $log)"
    fi
}

# Other users cannot build in a folder that root has made, and CMake's message does not say so.
expectOwnBuild() {
    mkdir -p "$root/build" 2>/dev/null || true
    local foreign
    foreign=$(find "$root/build" -maxdepth 2 ! -writable -print -quit 2>/dev/null) || true
    [[ -d $root/build && -z $foreign ]] ||
        die "${foreign:-$root/build} cannot be written to by this user: remove $root/build as its owner, or as root."
}

# installMissing PACKAGE...: installs the Debian packages that are missing.
installMissing() {
    expectOwnBuild
    local package missing=()
    if ! command -v dpkg-query >/dev/null; then
        note "This is not a Debian system: make sure that it has what these packages contain: $*"
        return
    fi
    for package in "$@"; do
        isInstalled "$package" || missing+=("$package")
    done
    ((${#missing[@]})) || return 0
    if ((EUID != 0)) && ! command -v sudo >/dev/null; then
        die "Missing packages: ${missing[*]}. Install them as root, or install sudo."
    fi
    note "Installing missing packages: ${missing[*]}"
    # The installation may succeed with old package lists. If it fails, the update's log says why.
    asRoot apt-get update >"$root/build/apt-update.log" 2>&1 ||
        { note "apt-get update failed:" && tail -n 5 "$root/build/apt-update.log" >&2; }
    quietly "$root/build/apt.log" asRoot apt-get -o DPkg::Lock::Timeout=120 install -y \
        --no-install-recommends "${missing[@]}"
}

configureAndBuild() {
    cd "$root" && cmake --preset "$1" && cmake --build --preset "$1"
}

# build PRESET: configures and builds the preset, with the programs in build/PRESET/bin.
build() {
    local start=$SECONDS
    note "Building the $1 preset; the first time takes a minute or more ..."
    (quietly "$root/build/$1.log" configureAndBuild "$1")
    note "Built in $((SECONDS - start)) s."
}

# runTests PRESET: configures, builds and runs every test.
runTests() {
    build "$1"
    (cd "$root" && ctest --preset "$1")
}
