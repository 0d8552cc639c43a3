#!/usr/bin/env bash
# Builds everything with clang under AddressSanitizer and
# UndefinedBehaviorSanitizer (leaks fail the run) and runs every test: the
# suite of scripts/test.sh, from a second compiler.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset clang-test
cmake --build --preset clang-test
ctest --preset clang-test -j 2
