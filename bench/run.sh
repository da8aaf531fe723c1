#!/usr/bin/env bash
# Builds what the benchmark needs, installing what is missing, and prints its table.
set -euo pipefail

root=$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=packaging/dependencies.sh
. "$root/packaging/dependencies.sh"

install_missing "${test_needs[@]}"
install_npm_packages "$root/tests/e2e"
"$root/run.sh" --desk --version </dev/null >&2 # builds all programs, and ends at once
configure_and_build "$root" release -DKORVANE_BENCH=ON
exec node "$root/bench/bench.mjs" "$root/build/run/korvane-mcp"
