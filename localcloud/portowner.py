"""Who listens on a port of this machine, as far as /proc lets us see."""

import errno
import os


class PortTaken(Exception):
    """A port is another program's; the text says whose, and how to choose another."""


def explained(error, port, option):
    """The exception to raise for an OSError of a listener on this port."""
    if error.errno == errno.EADDRINUSE:
        return PortTaken("port %d: Address already in use%s; stop that, or choose another port "
                         "with %s" % (port, _owner(port), option))
    if error.errno == errno.EADDRNOTAVAIL:
        return PortTaken("this machine has no such address (--bind)")
    if error.errno == errno.EACCES:
        return PortTaken("port %d needs more rights; choose another with %s" % (port, option))
    return error


def _owner(port):
    """" by NAME (process N)", or what can be said without knowing."""
    sockets = {"socket:[%s]" % inode for inode in _listening(port)}
    for process in filter(str.isdigit, os.listdir("/proc")):
        folder = "/proc/%s/fd" % process
        try:
            if any(os.readlink(os.path.join(folder, name)) in sockets
                   for name in os.listdir(folder)):
                return " by %s (process %s)" % (_command(process), process)
        except OSError:
            continue  # it has ended, or is somebody else's
    return " by a program that cannot be seen from here (another user's, or in another container)"


def _command(process):
    with open("/proc/%s/cmdline" % process, "rb") as file:
        words = file.read().decode(errors="replace").split("\0")
    scripts = [word for word in words[1:2] if word.endswith(".py")]
    return os.path.basename((scripts or words)[0])


def _listening(port):
    """The inodes of the sockets that listen on this port."""
    for name in ("/proc/net/tcp", "/proc/net/tcp6"):
        try:
            with open(name, encoding="ascii") as file:
                rows = [line.split() for line in file][1:]
        except OSError:
            continue
        for row in rows:
            if row[3] == "0A" and int(row[1].rpartition(":")[2], 16) == port:
                yield row[9]
