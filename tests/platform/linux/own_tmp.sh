#!/bin/sh
# Runs a command with a /tmp of its own, a tmpfs, in a mount namespace that ends with it, and with a
# home below the current directory, or below /var/tmp where that one is in /tmp: nothing cleans a
# temporary directory around the home. Exits as the command does, or with 77 and a line on standard
# output where that cannot be.
#
#   own_tmp.sh COMMAND [ARGUMENT...]
#
# The command finds in KORVANE_OWN_TMP the directory around its home, removed afterwards, and in
# KORVANE_VOLUME the top of another disk volume; that is empty where none can be had. By
# KORVANE_TMP_DEVICE, the device number of this /tmp, it can make sure before it cleans.
set -eu

if [ "${1:-}" != --inside ]; then
    for mapping in '' --map-root-user; do
        # shellcheck disable=SC2086 # no word when empty
        unshare $mapping --mount mount -t tmpfs tmpfs /tmp 2>/dev/null || continue
        case $PWD/ in /tmp/*) place=/var/tmp ;; *) place=$PWD ;; esac
        directory=$(mktemp -d "$place/own_tmp.XXXXXX")
        status=0
        KORVANE_OWN_TMP=$directory unshare $mapping --mount "$0" --inside "$@" || status=$?
        rm -rf "$directory"
        exit "$status"
    done
    echo "SKIP   : no /tmp of one's own here: namespaces or mounts are refused"
    exit 77
fi
shift

# A checkout or build below /tmp stays in view, as a mount, which no cleaning touches.
fresh=$KORVANE_OWN_TMP/tmp
mkdir "$fresh"
mount -t tmpfs -o mode=1777 tmpfs "$fresh"
for needed in "$PWD" "$(readlink -f "$0")"; do
    case $needed in /tmp/*) ;; *) continue ;; esac
    below=${needed#/tmp/}
    [ ! -e "$fresh/${below%%/*}" ] || continue
    mkdir "$fresh/${below%%/*}"
    mount --bind "/tmp/${below%%/*}" "$fresh/${below%%/*}"
done
mount --move "$fresh" /tmp
cd "$PWD" # by the new way

KORVANE_TMP_DEVICE=$(stat -c %d /tmp)
export KORVANE_TMP_DEVICE HOME="$KORVANE_OWN_TMP/home" KORVANE_VOLUME=
export XDG_DATA_HOME="$HOME/data"
unset TMPDIR XDG_RUNTIME_DIR
mkdir -p "$HOME" "$KORVANE_OWN_TMP/volume"
truncate -s 256M "$KORVANE_OWN_TMP/volume.img"
if mkfs.ext4 -q "$KORVANE_OWN_TMP/volume.img" 2>/dev/null &&
    mount -o loop "$KORVANE_OWN_TMP/volume.img" "$KORVANE_OWN_TMP/volume" 2>/dev/null; then
    KORVANE_VOLUME=$KORVANE_OWN_TMP/volume
fi
exec "$@"
