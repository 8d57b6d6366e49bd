#!/bin/bash
# Installs what is missing, builds and runs every test.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

installMissing "${buildPackages[@]}" "${testPackages[@]}"
runTests dev
