#!/usr/bin/env bash
# The built Linux program where something it waits for does not come: on standard streams that do
# not block, on files that nobody serves. Usage: what_does_not_come.sh streams|files|stuck
set -euo pipefail

directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
dead=$directory/dead
mkdir "$dead"

fail() {
    echo "FAIL: $1" >&2
    exit 1
}

call() { printf '{"id":1,"method":"tools/call","params":{"name":"%s","arguments":%s}}\n' "$@"; }

server() { timeout -s KILL 200 "$@" "$KORVANE_MCP"; }

# The server in a namespace where a directory is a mount whose server takes no request.
beside_dead_mount() {
    # shellcheck disable=SC2016 # for the inner shell
    HOME=$1 server unshare -m sh -c 'exec 3<>/dev/fuse || exit 77
        mount -i -t fuse -o fd=3,rootmode=40000,user_id=0,group_id=0 none "$0" || exit 77
        exec "$@"' "$dead"
}
[ "$1" = streams ] || beside_dead_mount / </dev/null 2>/dev/null || {
    echo 'SKIP   : this machine does not let the test mount'
    exit 77
}

case $1 in
streams)
    server <&- || fail 'an input that is closed'
    # At a loss for something to read, then with more to write than a pipe holds.
    ids=("$(head -c 8M /dev/zero | tr '\0' x)" last)
    # shellcheck disable=SC2016 # for perl
    unblocked='use Fcntl; fcntl $_, F_SETFL, O_NONBLOCK for *STDIN, *STDOUT; exec @ARGV'
    { sleep 0.5; printf '{"id":"%s","method":"ping"}\n' "${ids[@]}"; } |
        server perl -e "$unblocked" | { sleep 1; cat; } |
        cmp - <(printf '{"id":"%s","jsonrpc":"2.0","result":{}}\n' "${ids[@]}")
    ;;
files)
    mkdir -p "$directory/.config/Korvane"
    mkfifo "$directory/.config/Korvane/Korvane.conf"
    while read -r home tool arguments expected; do
        answer=$(call "$tool" "$arguments" | beside_dead_mount "$home")
        [[ $answer = *"$expected"* ]] || fail "$tool at home in $home: $answer"
    done <<END
$directory list_processes {} signature_summary
$dead list_processes {} total
$dead list_uninstall_entries {} total
$dead list_startup_items {} isError
/nonexistent verify_signatures {"paths":["$dead/program"]} 未知
END
    ;;
stuck) # They end with their input, but not as long as somebody may wait for them.
    for request in "$(call find_large_files "{\"root_path\":\"$dead\"}")" \
        "$(call verify_signatures '{"paths":["/x"]}')"; do
        SECONDS=0
        { echo "$request"; sleep 70; } | {
            status=0
            beside_dead_mount "$dead" || status=$?
            [[ $status = 1 && $SECONDS -ge 69 ]] || fail "$status after $SECONDS s: $request"
        }
    done
    ;;
esac
