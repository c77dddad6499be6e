"""What recorder.cpp has written down: files, their data and names, operation by operation.

A cut is named by the number of the last operation before it, 0 for none.
"""
import bisect
import os
import pathlib
import struct

CREATE, WRITE, TRUNCATE, SYNC, SYNC_FOLDER, RENAME, UNLINK, LINK, SYNC_ALL, MAPPED = range(1, 11)
GIVEN = 11  # path with data and inode: put there by somebody else, and safe
HEAD = struct.Struct("=IIIIQQq")
NAME_KINDS = (CREATE, RENAME, UNLINK, LINK, GIVEN)
NEVER = 1 << 63  # a moment after all others
NO_PART = "-shm"  # files that end so are made anew


class Operation:
    __slots__ = ("number", "kind", "moment", "offset", "path", "other", "data", "file")

    def __init__(self, number, kind, moment, offset, path, other, data):
        self.number, self.kind, self.moment, self.offset = number, kind, moment, offset
        self.path, self.other, self.data = path, other, data
        self.file = None

    def end(self):
        """Where the file ends at least (after a truncation: exactly) once this is done."""
        return self.offset if self.kind == TRUNCATE else self.offset + len(self.data)


class File:
    """An inode: what was written to it, and when that was synced."""

    def __init__(self, path):
        self.path = path  # its first name
        self.operations = []
        self._numbers = []  # theirs
        self.syncs = []  # numbers
        self.contents = {}  # number of an operation: the bytes then; kept for one number

    def add(self, operation):
        self.operations.append(operation)
        self._numbers.append(operation.number)

    def synced(self, cut):
        """The number of its last sync before the cut."""
        place = bisect.bisect_right(self.syncs, cut)
        return self.syncs[place - 1] if place else 0

    def between(self, after, cut):
        return self.operations[bisect.bisect_right(self._numbers, after):
                               bisect.bisect_right(self._numbers, cut)]


def read_notes(path):
    """The operations of the file, with the inodes' numbers."""
    text = pathlib.Path(path).read_bytes()
    place, number = 0, 0
    while place < len(text):
        kind, *sizes, moment, inode, offset = HEAD.unpack_from(text, place)
        place += HEAD.size
        pieces = []
        for size in sizes:
            pieces.append(text[place:place + size])
            place += size
        number += 1
        yield inode, Operation(number, kind, moment, offset, pieces[0].decode(),
                               pieces[1].decode(), pieces[2])


def give(log, folder, name, moment):
    """Notes a file that was written while nobody was recorded, and will not be lost."""
    path = pathlib.Path(folder) / name
    data = path.read_bytes()
    head = HEAD.pack(GIVEN, len(name), 0, len(data), moment, os.stat(path).st_ino, 0)
    with open(log, "ab") as notes:
        notes.write(head + name.encode() + data)


class Recording:
    """`forget(file, n)` says whether the file's n-th sync (folders: file None) is to be forgotten,
    as by a disk that lies."""

    def __init__(self, path, forget=lambda file, count: False):
        self.operations = []
        self.names = []  # operations on names
        self.folder_syncs = []
        self.syncs = []  # of anything
        self.store_syncs = []  # of files of the store
        self._files = {}  # inode number: file
        self._counts = {}
        self._forget = forget
        for inode, operation in read_notes(path):
            self.operations.append(operation)
            self._take(inode, operation)

    def _take(self, inode, operation):
        kind, number = operation.kind, operation.number
        if kind in (CREATE, GIVEN):
            self._files[inode] = File(operation.path)
        file = operation.file = self._files.get(inode)
        if kind == MAPPED:
            raise ValueError("something other than an index was mapped for writing")
        if kind in NAME_KINDS:
            if file is None:
                raise ValueError(f"a name for a file that is not known: {operation.path}")
            self.names.append(operation)
        if kind in (WRITE, TRUNCATE, GIVEN):
            file.add(operation)
        if kind == GIVEN:
            file.syncs.append(number)
        elif kind in (SYNC, SYNC_FOLDER, SYNC_ALL):
            self._take_sync(operation, None if kind == SYNC_FOLDER else file)

    def _take_sync(self, operation, file):
        key = file.path if file else ""
        self._counts[key] = self._counts.get(key, 0) + 1
        if self._forget(file, self._counts[key]):
            return
        number = operation.number
        self.syncs.append(number)
        if operation.kind in (SYNC_FOLDER, SYNC_ALL):
            self.folder_syncs.append(number)
        for synced in set(self._files.values()) if operation.kind == SYNC_ALL else [file]:
            if synced is not None:
                synced.syncs.append(number)
                if synced.path.startswith("Db"):
                    self.store_syncs.append(number)

    def count(self):
        return len(self.operations)

    def count_of_reused_logs(self):
        """How often a write-ahead log was begun anew in its place, after a checkpoint."""
        begun = [operation.file for operation in self.operations
                 if operation.kind == WRITE and operation.offset == 0
                 and operation.file.path.endswith("-wal")]
        return len(begun) - len(set(begun))

    def moment_after(self, cut):
        """What was seen before this moment was seen before the cut."""
        return self.operations[cut].moment if cut < self.count() else NEVER


def last(numbers, cut):
    """The greatest of the ascending numbers that is not above the cut; 0 without one."""
    place = bisect.bisect_right(numbers, cut)
    return numbers[place - 1] if place else 0


def apply_names(operations):
    """{name: file} after these operations on names. One that is missing takes nothing along."""
    names = {}
    for operation in operations:
        file = operation.file
        if operation.kind in (CREATE, GIVEN):
            names[operation.path] = file
        elif operation.kind in (RENAME, LINK):
            names[operation.other] = file
        if operation.kind in (RENAME, UNLINK) and names.get(operation.path) is file:
            del names[operation.path]
    return names


def differences(contents, folder):
    """The names of files in which a folder and these contents differ."""
    found = {path.name: path.read_bytes() for path in pathlib.Path(folder).iterdir()
             if not path.name.endswith(NO_PART)}
    return sorted(name for name in found.keys() | contents.keys()
                  if found.get(name) != contents.get(name))
