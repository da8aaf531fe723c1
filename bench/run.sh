#!/usr/bin/env bash
# Builds what the benchmark needs, installing what is missing, and prints its table: that of Linux, or
# with --windows that of the programs for Windows under Wine.
set -euo pipefail

root=$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=packaging/dependencies.sh
. "$root/packaging/dependencies.sh"

install_missing "${test_needs[@]}"
if [ "${1:-}" = --windows ]; then
    # The desk only because its option, once off, would stay so in the tree that other builds share.
    "$root/packaging/windows.sh" build -DKORVANE_BENCH=ON -DKORVANE_TESTS=OFF -DKORVANE_DESK=ON
    export WINEPREFIX=$root/build/windows/bench-prefix
    "$root/packaging/windows.sh" prefix "$WINEPREFIX"
    exec node "$root/bench/bench.mjs" "$root/build/windows/src/korvane-mcp.exe" windows
fi
install_npm_packages "$root/tests/e2e"
"$root/run.sh" --desk --version </dev/null >&2 # builds all programs, and ends at once
configure_and_build "$root" release -DKORVANE_BENCH=ON
exec node "$root/bench/bench.mjs" "$root/build/run/korvane-mcp"
