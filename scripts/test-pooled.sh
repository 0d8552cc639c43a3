#!/usr/bin/env bash
# Builds everything optimised and without sanitizers, with the framework's
# precondition checks on, and runs every test. Under the sanitizers every
# framework object is a heap block of its own; here they come from the slab
# pool, as in the program that ships.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset pooled-test
cmake --build --preset pooled-test
ctest --preset pooled-test -j 2
