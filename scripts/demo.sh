#!/usr/bin/env bash
# Builds acl-agent and the multicast DNS plugin (optimised, no sanitizers)
# and runs the demo scenario. Extra arguments go to acl-agent, e.g.
#   scripts/demo.sh --trace McastDnsAclPlugin/0,8
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target acl-agent
exec build/release/agent/acl-agent "$@" examples/demo.scn
