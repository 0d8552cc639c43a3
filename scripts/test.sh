#!/usr/bin/env bash
# Builds everything under AddressSanitizer and UndefinedBehaviorSanitizer
# (leaks fail the run) and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset test
cmake --build --preset test
ctest --preset test -j 2
