#!/bin/bash
# Builds the program in release mode. Without arguments, then runs the demonstration; with --udp or
# --tunnel, the demonstration of the transfer over UDP or of tunnels. Passes any other arguments to
# the module, which runs in the caller's working directory:
#
#     scripts/run.sh
#     scripts/run.sh --udp
#     scripts/run.sh --tunnel
#     scripts/run.sh -settings my.ini
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

installMissing "${buildPackages[@]}"
build release
case ${1-} in
"") exec "$root/scripts/demo.sh" ;;
--udp) exec "$root/scripts/demo-udp.sh" ;;
--tunnel) exec "$root/scripts/demo-tunnel.sh" ;;
*) exec "$root/build/release/bin/morvane" "$@" ;;
esac
