#!/bin/sh
# isolate.sh ROOT COMMAND...: runs COMMAND in network, IPC and mount namespaces of its own, with an
# empty /tmp and loopback up, so that fixed ports, the message queue, the named pipe and files in
# /tmp are private to it. ROOT is the project's folder, kept in sight wherever it is.
# isolate.sh --check: whether this machine allows that.
set -e
if [ "$(id -u)" -eq 0 ]; then user=; else user="--user --map-root-user"; fi
inside='
set -e
ip link set lo up
mount --bind "$0" /mnt
export KIV_ISOLATED=yes
mount -t tmpfs tmpfs /tmp
mkdir -p "$0"
mount --bind /mnt "$0"
umount /mnt
cd "$0"
exec "$@"'
if [ "$1" = --check ]; then
    exec unshare $user --net --ipc --mount sh -c "$inside" / true
fi
root=$1
shift
exec unshare $user --net --ipc --mount sh -c "$inside" "$root" "$@"
