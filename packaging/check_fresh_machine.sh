#!/usr/bin/env bash
# Proves on a Debian that has nothing but git that run.sh answers and test.sh passes, and says how
# long each took. As root: check_fresh_machine.sh SUITE (bookworm, trixie), in a new directory under
# KORVANE_FRESH_DIR (default /var/tmp) that is removed again when all went well. The packages come
# from where this machine's own apt has them, or from KORVANE_MIRROR.
set -euo pipefail

suite=$1
root=$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=packaging/dependencies.sh
. "$root/packaging/dependencies.sh"

install_missing debootstrap=debootstrap
mirror=$(debian_mirror)
if [ -z "$mirror" ]; then
    echo "korvane: apt has no archive of Debian here; please name one in KORVANE_MIRROR" >&2
    exit 1
fi

machine=$(mktemp -d "${KORVANE_FRESH_DIR:-/var/tmp}/korvane-$suite-XXXXXX")
chmod 755 "$machine" # as the root of any system is
trap '! mountpoint -q "$machine" || umount -R "$machine"' EXIT

debootstrap --variant=minbase --include=git,ca-certificates "$suite" "$machine" \
    "$mirror" >"$machine.log"
cp -L /etc/resolv.conf /etc/hosts "$machine/etc/"
# The certificates by which this machine trusts its own package registries.
cp -r /usr/local/share/ca-certificates/. "$machine/usr/local/share/ca-certificates/"
# Its root is a mount of its own, or the kernel refuses it mount namespaces.
mount --bind --make-private "$machine" "$machine"
for directory in proc sys dev; do
    mount --rbind --make-rslave "/$directory" "$machine/$directory"
done

in_machine() {
    chroot "$machine" env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin TERM=dumb "$@"
}

in_machine update-ca-certificates >>"$machine.log" 2>&1
git clone -q --no-hardlinks "$root" "$machine/root/korvane"

seconds() { printf '%s: %s took %s s\n' "$suite" "$1" "$SECONDS"; }

SECONDS=0
answer=$(echo '{"jsonrpc":"2.0","id":1,"method":"initialize"}' |
    in_machine /root/korvane/run.sh 2>>"$machine.log")
echo "$answer"
case $answer in *'"name":"kor-vane"'*) ;; *) exit 1 ;; esac
seconds 'the first ./run.sh'

SECONDS=0
in_machine /root/korvane/test.sh
seconds './test.sh'

umount -R "$machine"
rm -rf --one-file-system "$machine" "$machine.log"
