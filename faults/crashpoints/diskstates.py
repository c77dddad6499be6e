"""The disk states that a power cut may leave.

What was not synced before the cut is there or not, in any order: sector by sector (512 bytes), page
by page (4096 bytes), write by write. A sector holds what it held at its last sync, or what the
program's cache held at any moment since: never a mix of two writes that the cache had joined. A
file that was to become longer ends where its last piece ends, or has its new length already, with
zeros or garbage in between. Names (create, rename, unlink) are there as of the cut ("now"), as of
the last sync of anything (an ext4-like log: "log"), as of the last sync of the folder (the least
that is promised: "folder"), or any of those since then alone, or without one of them.

A choice is a tuple (data, names, length) of such words; `Cut.state` makes the files of it.
"""
import random

from recording import GIVEN, TRUNCATE, WRITE, apply_names, last

SECTOR = 512
PAGE = 4096
MOST_WRITES = 12  # of those not synced, the newest are dropped or kept singly
MOST_PAGES = 16
MOST_NAMES = 8
RANDOM_CHOICES = 4
GARBAGE = random.Random(1).randbytes(1 << 16)

SIMPLE = [(("all",), ("now",), ""), (("none",), ("folder",), ""), (("none",), ("log",), ""),
          (("none",), ("now",), ""), (("all",), ("folder",), "")]


class Cut:
    """All that may be left when the power goes after operation `number`."""

    def __init__(self, recording, number):
        self.number = number
        self._recording = recording
        folder_sync = last(recording.folder_syncs, number)
        self.log_sync = last(recording.syncs, number)
        names = [operation for operation in recording.names if operation.number <= number]
        self._safe_names = [name for name in names
                            if name.number <= folder_sync or name.kind == GIVEN]
        self.names = [name for name in names
                      if name.number > folder_sync and name.kind != GIVEN]
        self._all_names = names
        possible = {*apply_names(names).values(), *apply_names(self._safe_names).values(),
                    *(name.file for name in self.names)}
        self._open = {}  # file: operations that are not
        for file in sorted(possible, key=lambda file: file.operations[0].number
                           if file.operations else 0):
            self._open[file] = file.between(file.synced(number), number)
        writes = [(operation.number, file) for file, operations in self._open.items()
                  for operation in operations]
        self.writes = sorted(writes, key=lambda write: write[0])  # not synced, oldest first

    # --- what can be chosen ---

    def possible(self):
        """The binary logarithm of the number of ways to choose sectors and names."""
        sectors = sum(len({sector for operation in operations if operation.kind == WRITE
                           for sector in _units(operation, SECTOR)})
                      + sum(operation.kind == TRUNCATE for operation in operations)
                      for operations in self._open.values())
        return sectors + len(self.names)

    def choices(self):
        """The choices beyond SIMPLE that are tried, in an order of their own."""
        found = []
        for names in self._name_choices():
            found += [(("all",), names, ""), (("none",), names, "")]
        dice = random.Random(self.number)
        for data in self._data_choices():
            found.append((data, ("now",), ""))
            found.append((data, dice.choice([("log",), ("folder",)]), ""))
            if data[0] != "all":
                found.append((data, ("now",), dice.choice(["zeros", "garbage"])))
        if self.writes:
            found += [(("none",), ("now",), "zeros"), (("none",), ("now",), "garbage")]
        found.append((("all",), ("now",), "index"))
        seen = set(SIMPLE)
        return [choice for choice in found if not (choice in seen or seen.add(choice))]

    def _name_choices(self):
        numbers = [name.number for name in self.names][-MOST_NAMES:]
        for number in numbers:
            yield from (("until", number), ("without", number), ("only", number))

    def _data_choices(self):
        numbers = [number for number, _ in self.writes]
        for number in numbers[-MOST_WRITES:]:
            yield from (("without", number), ("only", number))
        if not self.writes:
            return
        number, file = self.writes[-1]
        newest = next(operation for operation in self._open[file] if operation.number == number)
        if newest.kind == WRITE:
            for sector in _units(newest, SECTOR):
                yield from (("torn", number, sector), ("torn alone", number, sector),
                            ("without sector", number, sector), ("only sector", number, sector))
        pages = sorted({(index, page) for index, operations in enumerate(self._open.values())
                        for operation in operations if operation.kind == WRITE
                        for page in _units(operation, PAGE)})
        for page in pages[-MOST_PAGES:]:
            yield from (("without page", *page), ("only page", *page))
        if len(self.writes) > 1:
            for seed in range(RANDOM_CHOICES):
                yield from (("random sectors", seed), ("random pages", seed))

    # --- the files of a choice ---

    def state(self, choice):
        """{name: bytes}"""
        data, names, length = choice
        contents = {}
        for name, file in self._names(names).items():
            contents[name] = self._content(file, data, length)
        if length == "index" and "Db-wal" in contents:
            contents["Db-shm"] = GARBAGE[:32768]  # must not be believed
        return contents

    def _names(self, choice):
        how, number = choice[0], choice[-1]
        chosen = {"now": lambda name: True, "folder": lambda name: False,
                  "log": lambda name: name.number <= self.log_sync,
                  "until": lambda name: name.number <= number,
                  "without": lambda name: name.number != number,
                  "only": lambda name: name.number == number}[how]
        pending = set(self.names)
        safe = set(self._safe_names)
        return apply_names([name for name in self._all_names
                            if name in safe or name in pending and chosen(name)])

    def _content(self, file, data, length):
        operations = self._open.get(file, [])
        if not operations:
            return self._safe_content(file)
        limit, newest = self._limit(file, data)
        content = bytearray(self._safe_content(file))
        whole = len(content)  # with all lengths taken over
        for operation in operations:
            number = operation.number
            if operation.kind == TRUNCATE:
                whole = operation.end()
                if newest(operation):
                    _set_length(content, operation.end())
                continue
            whole = max(whole, operation.end())
            for begin, end in _runs(operation, lambda sector: limit(sector) >= number):
                _put(content, begin, operation.data[begin - operation.offset:
                                                    end - operation.offset])
        if length in ("zeros", "garbage") and len(content) < whole:
            gap = whole - len(content)
            content += bytes(gap) if length == "zeros" else \
                (GARBAGE * (gap // len(GARBAGE) + 1))[:gap]
        return bytes(content)

    def _safe_content(self, file):
        synced = file.synced(self.number)
        if synced not in file.contents:
            file.contents = {synced: content_of(file, synced)}
        return file.contents[synced]

    def _limit(self, file, data):
        """(sector: the number of the last write whose bytes it has, truncation: whether it is
        done)"""
        how = data[0]
        everything = self.number
        if how in ("all", "none"):
            number = everything if how == "all" else 0
            return lambda sector: number, lambda cutting: cutting.number <= number
        if how in ("without", "only"):
            return self._limit_of_a_write(file, how, data[1])
        if how.startswith("random"):
            return self._random_limit(file, *data)
        if how.endswith("page"):
            _, index, page = data
            here = list(self._open).index(file) == index
            first, other = (0, everything) if how.startswith("without") else (everything, 0)
            return (lambda sector: first if here and sector * SECTOR // PAGE == page else other,
                    lambda cutting: cutting.number <= other)
        _, number, torn = data
        here = self.writes[-1][1] is file
        before = number - 1
        rest = 0 if how in ("torn alone", "only sector") else before
        if not here:
            return lambda sector: rest, lambda cutting: cutting.number <= rest
        touched = set(_units(next(operation for operation in self._open[file]
                                  if operation.number == number), SECTOR))
        has = {"torn": lambda sector: sector <= torn, "torn alone": lambda sector: sector <= torn,
               "without sector": lambda sector: sector != torn,
               "only sector": lambda sector: sector == torn}[how]
        return (lambda sector: number if sector in touched and has(sector) else rest,
                lambda cutting: cutting.number <= rest)

    def _limit_of_a_write(self, file, how, number):
        mine = [operation for operation in self._open[file] if operation.number == number]
        rest = self.number if how == "without" else 0
        if not mine:
            return lambda sector: rest, lambda cutting: cutting.number <= rest
        if mine[0].kind == TRUNCATE:
            return (lambda sector: rest, lambda cutting:
                    (cutting.number <= rest) if cutting.number != number else how == "only")
        touched = set(_units(mine[0], SECTOR))
        at_those = number - 1 if how == "without" else number
        return (lambda sector: at_those if sector in touched else rest,
                lambda cutting: cutting.number <= rest)

    def _random_limit(self, file, how, seed):
        unit = 1 if how == "random sectors" else PAGE // SECTOR
        numbers = [0] + [operation.number for operation in self._open[file]]
        chosen = {}
        dice = random.Random(f"{self.number} {seed} {file.path} {numbers[-1]}")

        def limit(sector):
            key = sector // unit
            if key not in chosen:
                chosen[key] = dice.choice((numbers[0], numbers[-1], dice.choice(numbers)))
            return chosen[key]
        kept = {number for number in numbers if dice.random() < 0.5}
        return limit, lambda cutting: cutting.number in kept


def content_of(file, cut):
    """The file as a program sees it, or as it is safe once all that was synced."""
    content = bytearray()
    for operation in file.between(0, cut):
        if operation.kind == TRUNCATE:
            _set_length(content, operation.end())
        else:
            _put(content, operation.offset, operation.data)
    return bytes(content)


def _units(operation, size):
    return range(operation.offset // size, (operation.end() - 1) // size + 1)


def _runs(operation, wanted):
    """(begin, end) of the parts of a write whose sectors are wanted."""
    begin = None
    for sector in _units(operation, SECTOR):
        if wanted(sector):
            if begin is None:
                begin = max(operation.offset, sector * SECTOR)
        elif begin is not None:
            yield begin, sector * SECTOR
            begin = None
    if begin is not None:
        yield begin, operation.end()


def _set_length(content, length):
    if length < len(content):
        del content[length:]
    else:
        content.extend(bytes(length - len(content)))


def _put(content, offset, data):
    if offset > len(content):
        _set_length(content, offset)
    content[offset:offset + len(data)] = data
