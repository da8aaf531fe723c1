#!/usr/bin/env bash
# run.sh as a client's command, from a copy of this tree: it builds once however many start at once,
# keeps the streams clean, replaces its binary under running servers, and plays the client at a
# terminal. Usage: run_script.sh ROOT
set -euo pipefail

copy=$(mktemp -d)
trap 'exec 7<&- 8>&-; rm -rf "$copy"' EXIT
cp -r "$1"/{run.sh,CMakeLists.txt,CMakePresets.json,src,packaging} "$copy"
cd "$copy"

fail() {
    echo "FAIL: $1" >&2
    exit 1
}

request='{"jsonrpc":"2.0","id":1,"method":"ping"}'
answer='{"id":1,"jsonrpc":"2.0","result":{}}'
five_requests=$(printf '%s\n' "$request" "$request" "$request" "$request" "$request")
five_answers=${five_requests//"$request"/"$answer"}

# Two first starts at once.
./run.sh <<<"$five_requests" >first.out 2>first.err &
./run.sh <<<"$five_requests" >second.out 2>second.err || fail "$(cat second.err)"
wait $! || fail "$(cat first.err)"
[ "$(cat first.out)" = "$five_answers" ] || fail "first start: $(cat first.out first.err)"
[ "$(cat second.out)" = "$five_answers" ] || fail "second start: $(cat second.out second.err)"
[ "$(cat first.err second.err | grep -c 'Linking CXX executable src/korvane-mcp$')" = 1 ] ||
    fail 'not exactly one build'

# The server needs nothing of the desk's.
readelf -d build/run/korvane-mcp | sed -n 's/.*(NEEDED).*\[\(.*\)\.so.*/\1/p' | sort >needed
grep -vxE 'libQt6(Core|Network)|libsystemd|libstdc\+\+|libm|libgcc_s|libc|ld-linux.*' needed &&
    fail 'the server links more than Qt Core, Qt Network and libsystemd'

# A later start is silent, and is the server itself.
mkfifo requests answers
./run.sh <requests >answers 2>later.err &
server=$!
exec 8>requests 7<answers
ask_running_server() {
    echo "$request" >&8
    read -r -t 60 line <&7 && [ "$line" = "$answer" ] || fail "the running server: $line"
}
ask_running_server
[ "$(readlink "/proc/$server/exe")" = "$copy/build/run/korvane-mcp" ] || fail 'not replaced by exec'
[ ! -s later.err ] || fail "printed: $(cat later.err)"

# A changed source is built beside the running server.
echo '// changed' >>src/app/main.cpp
[ "$(./run.sh <<<"$request" 2>changed.err)" = "$answer" ] || fail 'no answer after the change'
grep -q 'main.cpp' changed.err || fail 'not built again'
ask_running_server
exec 8>&-
wait "$server" || fail 'the running server did not end quietly'

# A failing build says so on standard error only.
echo '#error broken' >>src/app/main.cpp
if ./run.sh <<<"$request" >broken.out 2>broken.err; then
    fail 'a broken build was started'
fi
[ ! -s broken.out ] || fail "protocol spoiled: $(cat broken.out)"
grep -q 'broken' broken.err || fail 'no message'
sed -i '$d' src/app/main.cpp
[ "$(./run.sh <<<"$request" 2>repaired.err)" = "$answer" ] || fail 'not repaired'

# What is current or cannot be built is started from a tree that may only be read.
if [ "$(id -u)" = 0 ]; then
    as_nobody() { setpriv --reuid 65534 --regid 65534 --clear-groups "$@"; }
    chmod a+rx "$copy"
    [ "$(as_nobody ./run.sh <<<"$request" 2>nobody.err)" = "$answer" ] || fail "$(cat nobody.err)"
    [ ! -s nobody.err ] || fail "printed: $(cat nobody.err)"
    touch src/app/main.cpp
    [ "$(as_nobody ./run.sh <<<"$request" 2>nobody.err)" = "$answer" ] || fail "$(cat nobody.err)"
    grep -q 'cannot be written' nobody.err || fail 'started an older build without a word'
fi

# At a terminal it plays the client.
mkfifo listening
cp /usr/bin/perl $'evil\e[31m'
"./"$'evil\e[31m' -MIO::Socket::INET -e '
    $socket = IO::Socket::INET->new(Listen => 1, LocalAddr => "127.0.0.1") or die;
    close STDOUT;
    sleep 60' >listening &
evil=$!
cat listening
export HOME=$copy/home TMPDIR=$copy/home/temporary
mkdir -p "$HOME"/{.cache,temporary}
truncate -s 70M "$HOME/.cache/"$'large\e[31m'
script -qec ./run.sh /dev/null </dev/null >report.txt
kill "$evil"
for expected in 'evil?[31m' Korvane list_processes '70.0 MB  通用 .cache 缓存 (generic_cache)' \
    "70.0 MB  $copy/home/.cache/large?[31m" '"mcpServers"' "\"command\": \"$copy/run.sh\"" \
    "没有程序在监听 $TMPDIR/korvane-consent-v1" "$copy/run.sh --desk"; do
    grep -qF "$expected" report.txt || fail "not in the report: $expected: $(cat report.txt)"
done
