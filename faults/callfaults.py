"""Faults in chosen system calls of the daemon: the other side of callfaults.c.

`CallFaults(folder)` compiles the library; its `environment` preloads it into the daemon. `arm`
says which calls count and which of them are hit, while the daemon runs or before it is started.
"""
import errno
import mmap
import pathlib
import shutil
import struct
import subprocess

CALLS = ("open", "write", "fsync", "rename", "unlink", "truncate", "allocate", "mmap", "send",
         "receive", "connect", "close", "link", "queue")  # in the order of callfaults.c
LAYOUT = struct.Struct("IIIiII100s40s140s")
COUNT, HITS, LAST = 16, 20, 24 + 140
FOR_EVER = 2**32 - 1
KILL = 0
SOURCE = pathlib.Path(__file__).resolve().parent / "callfaults.c"


class CallFaults:
    def __init__(self, folder):
        folder = pathlib.Path(folder)
        library, path = folder / "callfaults.so", folder / "callfaults"
        subprocess.run([compiler(), "-std=c11", "-O1", "-fPIC", "-shared", "-o", library, SOURCE,
                        "-ldl"], check=True)
        path.write_bytes(bytes(LAYOUT.size))
        with open(path, "r+b") as file:
            self._shared = mmap.mmap(file.fileno(), LAYOUT.size)
        self.environment = {"LD_PRELOAD": str(library), "CALLFAULTS": str(path)}

    def arm(self, *calls, first=1, last=None, error=KILL, path="", thread=""):
        """The calls number `first` to `last` (only `first` when None) of these kinds, counted from
        now on, are hit; of all kinds when none is given. `path` is a part of the file's."""
        bits = sum(1 << CALLS.index(call) for call in calls or CALLS if calls or call != 'close')
        self.disarm()
        # The mask is written last: the daemon looks at it first.
        self._shared[4:LAYOUT.size] = LAYOUT.pack(
            0, first, first if last is None else last, error, 0, 0, path.encode(),
            thread.encode(), b"")[4:]
        self._shared[0:4] = struct.pack("I", bits)

    def disarm(self):
        self._shared[0:4] = bytes(4)

    @property
    def count(self):
        """How many calls have counted."""
        return struct.unpack_from("I", self._shared, COUNT)[0]

    @property
    def hits(self):
        return struct.unpack_from("I", self._shared, HITS)[0]

    @property
    def last(self):
        """The call that was hit last, in words."""
        return self._shared[LAST:LAYOUT.size].split(b"\0")[0].decode(errors="replace").strip()


def compiler():
    return next((name for name in ("cc", "gcc", "g++", "clang") if shutil.which(name)), None)


def why_not_possible():
    return "" if compiler() else "no C compiler"


def name_of(error):
    return "SIGKILL" if error == KILL else errno.errorcode[error]
