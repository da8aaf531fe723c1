#!/bin/sh
# Runs a command beside a systemd of its own, which ends with it: in namespaces of their own, a
# `systemd --user` and a bus with the limits of a system bus, to which DBUS_SYSTEM_BUS_ADDRESS
# points. Exits as the command does, or with 77 and a line on standard output where that cannot be.
#
#   private_systemd.sh COMMAND [ARGUMENT...]
#
# KORVANE_UNITS: a folder whose units are there before systemd starts. The command may add others
# to ~/.config/systemd/user and call `systemctl --user daemon-reload`.
set -eu

skip() {
    echo "SKIP   : no systemd of one's own here: $1"
    exit 77
}

# Outside: looks whether it can be, and makes the mounts its own.
if [ "${1:-}" != --mounts ] && [ "${1:-}" != --inside ]; then
    for program in unshare dbus-daemon systemctl /lib/systemd/systemd \
        /usr/lib/systemd/user/dbus.socket; do
        command -v "$program" >/dev/null || [ -e "$program" ] || skip "$program is missing"
    done
    unshare -m -C -p -f --mount-proc mount -t tmpfs tmpfs /run 2>/dev/null ||
        skip 'namespaces or mounts are refused'
    exec unshare -m "$0" --mounts "$@"
fi

# A control group of its own: in a common one, two of these would end each other's processes.
if [ "$1" = --mounts ]; then
    shift
    mount -t cgroup2 none /sys/fs/cgroup 2>/dev/null || skip 'no control groups'
    group=/sys/fs/cgroup$(sed -n 's/^0:://p' /proc/self/cgroup)/korvane-$$
    mkdir "$group" 2>/dev/null || skip 'control groups are refused'
    status=0
    (
        { echo 0 >"$group/cgroup.procs"; } 2>/dev/null || skip 'control groups take no processes'
        exec unshare -m -C -p -f --kill-child --mount-proc "$0" --inside "$@"
    ) || status=$?
    find "$group" -depth -type d -exec rmdir {} + || true
    exit "$status"
fi
shift

umount /sys/fs/cgroup # which showed those of others too
mount -t cgroup2 none /sys/fs/cgroup
mount -t tmpfs tmpfs /run
mkdir -p /run/systemd/system
mkdir -m 700 /run/kv

export HOME=/run/kv/home XDG_RUNTIME_DIR=/run/kv
unset XDG_CONFIG_HOME XDG_DATA_HOME XDG_CONFIG_DIRS XDG_DATA_DIRS
unset DBUS_SESSION_BUS_ADDRESS NOTIFY_SOCKET
units=$HOME/.config/systemd/user
mkdir -p "$units/dbus.service.d"
[ -z "${KORVANE_UNITS:-}" ] || cp -a "$KORVANE_UNITS/." "$units"
# Without limits of its own a bus has those of a system bus: 128 pending replies a connection.
sed '/<limit /d' /usr/share/dbus-1/session.conf >/run/kv/bus.conf
cat >"$units/dbus.service.d/limits.conf" <<'END'
[Service]
ExecStart=
ExecStart=/usr/bin/dbus-daemon --config-file=/run/kv/bus.conf --address=systemd: --nofork \
    --nopidfile --systemd-activation --syslog-only
END

/lib/systemd/systemd --user >/run/kv/systemd.log 2>&1 &
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=/run/kv/bus KORVANE_PRIVATE_SYSTEMD=1
timeout 60 sh -c 'until busctl --address="$DBUS_SYSTEM_BUS_ADDRESS" status org.freedesktop.systemd1
do kill -0 "$0" && sleep 0.1 || exit; done' $! >/dev/null 2>&1 || {
    cat /run/kv/systemd.log >&2
    skip 'systemd does not start'
}
"$@"
