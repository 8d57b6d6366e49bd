#!/bin/bash
# Builds the bench preset and prints the table of figures that bench/README.md explains. Takes some
# minutes on an idle machine. --quick runs small versions of everything once, side by side, to see
# that they still work.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

installMissing "${buildPackages[@]}"
build bench
programs=(road backlog parsing udp pace idle)

printf '%-50s %10s %10s %-11s %6s  %-15s %s\n' \
    "figure (medians)" subject probe unit ratio "(least to most)" goal
if [[ ${1-} == --quick ]]; then
    running=()
    for program in "${programs[@]}"; do
        "$root/build/bench/bin/bench_$program" --quick &
        running+=($!)
    done
    for process in "${running[@]}"; do
        wait "$process"
    done
else
    for program in "${programs[@]}"; do
        "$root/build/bench/bin/bench_$program" "$@"
    done
fi
