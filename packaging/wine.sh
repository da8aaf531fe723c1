#!/usr/bin/env bash
# Runs a program for Windows under Wine 10 or later: wine.sh PROGRAM.exe [ARGUMENT...], or
# wine.sh wineserver [ARGUMENT...]. Where this
# machine's own Wine is older, it is that of the Debian 13 root which windows.sh keeps in its cache, with
# this machine's files at the same paths. The prefix is WINEPREFIX, by default one beside that root.
set -euo pipefail

cache=${KORVANE_WINDOWS_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/korvane-windows}
# Names of files are UTF-8, whatever the locale of whoever calls.
export LC_ALL=C.UTF-8
unset TMPDIR # with which Wine 10 aborts
export WINEPREFIX=${WINEPREFIX:-$cache/prefix}
export WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-winemenubuilder.exe=d;mscoree=d;mshtml=d}
# Or what the framework's test library prints would go to a debugger; Wine hands QT_ over so alone.
export WINEQT_FORCE_STDERR_LOGGING=1
wine_root=$cache/wine-root

[ "$1" = wineserver ] || set -- wine "$@"
if [ ! -e "$wine_root/made" ]; then
    exec "$@"
fi
exec unshare --mount --propagation slave bash -c '
    wine_root=$1 place=$2
    shift 2
    for directory in /*; do
        case $directory in
            /bin | /sbin | /lib* | /usr | /etc | /var) continue ;;
        esac
        if [ -d "$directory" ] && [ ! -L "$directory" ]; then
            mkdir -p "$wine_root$directory"
            mount --rbind "$directory" "$wine_root$directory"
        fi
    done
    mkdir -p "$wine_root$place" 2>/dev/null || place=/
    exec chroot "$wine_root" /usr/bin/env -C "$place" PATH=/usr/lib/wine:/usr/bin:/bin "$@"
' wine.sh "$wine_root" "$PWD" "$@"
