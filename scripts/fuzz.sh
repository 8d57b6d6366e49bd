#!/usr/bin/env bash
# Runs every fuzzer for SECONDS (default: 10). Keeps the inputs they find in build/fuzz-corpus and
# writes an input that breaks something to build/fuzz-found.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

seconds=${1:-10}
[[ $seconds =~ ^[1-9][0-9]*$ ]] || die "Usage: $0 [SECONDS]"
installMissing "${buildPackages[@]}" clang
build fuzz
found=$root/build/fuzz-found
for seeds in "$root"/fuzz/corpus/*; do
    name=$(basename "$seeds")
    mkdir -p "$root/build/fuzz-corpus/$name" "$found"
    note "Fuzzing $name for $seconds s ..."
    quietly "$root/build/fuzz-$name.log" "$root/build/fuzz/bin/fuzz_$name" \
        -max_total_time="$seconds" -max_len=4096 -timeout=20 -rss_limit_mb=2048 \
        -artifact_prefix="$found/$name-" "$root/build/fuzz-corpus/$name" "$seeds"
    tail -n 1 "$root/build/fuzz-$name.log" >&2
done
