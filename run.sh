#!/usr/bin/env bash
# Builds the server where that is needed and becomes it, so that an AI client can name this file as
# its command. At a terminal it plays the client instead and shows what the server answers.
set -euo pipefail

# Standard input and output belong to the protocol: nothing before the server may touch them.
exec 3<&0 4>&1 </dev/null 1>&2

root=$(CDPATH='' cd -- "$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")" && pwd)
installed=$root/build/run
server=$installed/korvane-mcp
report=$installed/korvane-report
stamp=$installed/built

is_current() {
    [ -e "$stamp" ] && [ -x "$server" ] && [ -x "$report" ] && [ -z "$(
        find "$root/src" "$root/CMakeLists.txt" "$root/CMakePresets.json" -newer "$stamp" \
            -print -quit
    )" ]
}

# A running server keeps the file it was started from: the new one takes its place by a rename.
put_in_place() {
    cp -- "$root/build/release/src/${1##*/}" "$1.new"
    mv -f -- "$1.new" "$1"
}

build() {
    # shellcheck source=packaging/dependencies.sh
    . "$root/packaging/dependencies.sh"
    # As old as the start of the build: what changes meanwhile is newer.
    touch "$stamp.new"
    install_missing "${build_needs[@]}"
    configure_and_build "$root" release -DKORVANE_TESTS=OFF
    put_in_place "$server"
    put_in_place "$report"
    mv -f -- "$stamp.new" "$stamp"
}

if ! is_current; then
    mkdir -p "$installed"
    exec 9>"$installed/lock"
    flock 9
    is_current || build
    exec 9>&-
fi

if [ -t 3 ]; then
    exec "$report" "$server" "$root/run.sh" <&3 >&4 3<&- 4>&-
fi
exec "$server" "$@" <&3 >&4 3<&- 4>&-
