#!/usr/bin/env bash
# Builds the server where that is needed and becomes it, so that an AI client can name this file as
# its command. At a terminal it plays the client instead and shows what the server answers. With --desk
# it builds the consent desk and becomes that: what a person says yes or no with. Further arguments are
# the desk's.
set -euo pipefail

# Standard input and output belong to the protocol: nothing before the server may touch them.
[ -e /proc/self/fd/0 ] || exec </dev/null
exec 3<&0 4>&1 </dev/null 1>&2

root=$(CDPATH='' cd -- "$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")" && pwd)
installed=$root/build/run
server=$installed/korvane-mcp
report=$installed/korvane-report
desk=$installed/korvane-desk
programs=("$server" "$report")
with_desk=OFF
if [ "${1-}" = --desk ]; then
    shift
    programs+=("$desk") # The server that it knows as its own comes with it.
    with_desk=ON
fi
built_from=$installed/built-from-$with_desk

# Every file that decides what is built, with its size and time.
sources() {
    (cd "$root" && find run.sh CMakeLists.txt CMakePresets.json packaging/dependencies.sh src \
        -printf '%p %s %T@\n' | sort)
}

is_built() {
    local program
    for program in "${programs[@]}"; do
        [ -x "$program" ] || return 1
    done
}

is_current() { is_built && [ -e "$built_from" ] && [ "$(<"$built_from")" = "$(sources)" ]; }

# A running server keeps the file it was started from: the new one takes its place by a rename.
put_in_place() {
    cp -- "$root/build/release/src/${1##*/}" "$1.new"
    mv -f -- "$1.new" "$1"
}

build() {
    # shellcheck source=packaging/dependencies.sh
    . "$root/packaging/dependencies.sh"
    # Taken before the build: what changes meanwhile is noticed at the next start.
    sources >"$built_from.new"
    local needs=("${build_needs[@]}") program
    [ $with_desk = OFF ] || needs+=("${desk_needs[@]}")
    install_missing "${needs[@]}"
    configure_and_build "$root" release -DKORVANE_TESTS=OFF -DKORVANE_DESK=$with_desk
    for program in "${programs[@]}"; do
        put_in_place "$program"
    done
    if [ $with_desk = ON ]; then # The server and the report are current too.
        cp -- "$built_from.new" "$installed/built-from-OFF.new"
        mv -f -- "$installed/built-from-OFF.new" "$installed/built-from-OFF"
    fi
    mv -f -- "$built_from.new" "$built_from"
}

build_once() {
    exec 9>"$installed/lock"
    if ! flock -n 9; then
        echo 'korvane: waiting for the build that another start has begun'
        flock -w 1800 9
    fi
    # Whatever the build starts, and may leave behind, gets neither the client's pipes nor the lock.
    is_current || build 3<&- 4>&- 9>&-
    exec 9>&-
}

if ! is_current; then
    mkdir -p "$installed" 2>/dev/null || true
    if [ -w "$installed" ]; then
        build_once
    elif is_built; then
        echo "korvane: $root has changed but cannot be written; starting what was built before"
    else
        echo "korvane: not built yet, and $root cannot be written"
        exit 1
    fi
fi

if [ $with_desk = ON ]; then
    exec "$desk" "$@" <&3 >&4 3<&- 4>&-
fi
if [ -t 3 ]; then
    exec "$report" "$server" "$root/run.sh" <&3 >&4 3<&- 4>&-
fi
exec "$server" "$@" <&3 >&4 3<&- 4>&-
