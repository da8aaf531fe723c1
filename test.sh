#!/usr/bin/env bash
# Installs what the tests need, builds, and runs every test, those that take minutes only when
# KORVANE_SLOW_TESTS is set. Arguments go to ctest.
set -euo pipefail

root=$(CDPATH='' cd -- "$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")" && pwd)
# shellcheck source=packaging/dependencies.sh
. "$root/packaging/dependencies.sh"

install_missing "${test_needs[@]}"
install_npm_packages "$root/tests/e2e"
configure_and_build "$root" dev ${CI:+-DKORVANE_WERROR=ON}
cd "$root"
[ -n "${KORVANE_SLOW_TESTS:-}" ] || set -- -LE slow "$@"
exec ctest --preset dev "$@"
