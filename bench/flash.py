#!/usr/bin/python3
"""Measures what events cost the flash, at the block device. Started by bench/flash.

The store and everything else that the daemon writes lie on an ext4 file system of their own, in a
loop device, whose counters of sectors and flushes are read before and after, everything synced at
both ends.
"""
import argparse
import concurrent.futures
import contextlib
import ctypes
import os
import pathlib
import platform
import random
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(ROOT / "tests/e2e"), str(ROOT / "faults")]
import harness  # noqa: E402
from disk import Disk, why_not_possible  # noqa: E402

EVENT_BYTES = 300  # as stored
LIMIT = 131072  # bytes of events that the store holds
NEVER = 2000000000
WARM_UP = 6000  # events
BEGIN, END = "<!-- flash -->\n", "<!-- end of flash -->"
BARE_QUEUE = "/kiv_bench_bare"
BATCH = 256

# A day of a set: 20 000 events in 8 hours, with 40 uploads between. A viewer presses a button, and
# one to nine events follow within a few milliseconds: one transaction. Then nothing for seconds.
DAY_EVENTS = 20000
DAY_UPLOADS = 40
DAY_EVENT_BYTES = 230  # so that 500 of them stay below the limit
EMMC_BYTES, EMMC_CYCLES = 8e9, 3000


class Cost:
    """What was written meanwhile, per event."""

    def __init__(self, before, after, events):
        self.events = events
        self.sectors = after[1] - before[1]
        self.bytes = self.sectors * 512
        self.flushes = after[2] - before[2]

    def __str__(self):
        return f"{self.bytes / self.events:,.0f} bytes, {self.flushes / self.events:.4g} flushes"


class Post:
    """An open queue to post on."""

    def __init__(self, name):
        self._queue = harness.RT.mq_open(name.encode(), os.O_WRONLY)
        if self._queue < 0:
            raise OSError(ctypes.get_errno(), name)
        self.pad = 0
        self._number = 0

    def message(self, last=False):
        self._number += 1
        mark = ',"last":true' if last else ""
        return (f'{{"event-type":"usage.epg","data":{{"n":{10**7 + self._number},'
                f'"text":"{"x" * self.pad}"{mark}}}}}').encode()

    def send(self, message):
        if harness.RT.mq_send(self._queue, message, len(message), 0) != 0:
            raise OSError(ctypes.get_errno(), "mq_send")

    def close(self):
        harness.RT.mq_close(self._queue)


class Set:
    """A daemon with everything that it writes on a disk of its own."""

    def __init__(self, programs, min_size=NEVER, size=EVENT_BYTES):
        harness.BUILD = pathlib.Path(programs).resolve()
        self.end = contextlib.ExitStack()
        try:
            self._start(min_size)
            self._choose_padding(size)
        except BaseException:
            self.end.close()
            raise

    def _start(self, min_size):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="flash."))
        self.end.callback(shutil.rmtree, self.folder, ignore_errors=True)
        self.disk = Disk(self.folder / "disk")
        self.end.callback(self.disk.remove)
        self.disk.mount()
        self.cloud = harness.Cloud(self.folder / "cloud", {"config": {"*": {
            "upload_events": {"min-size": min_size, "max-delay": 0, "max-size": LIMIT}}}})
        self.end.callback(self.cloud.stop)
        self.device = harness.Device(self.disk.root, self.cloud, self.folder)
        self.end.callback(self.device.stop)
        self.device.start("-s")
        self.device.wait_for_config()
        self.post = Post(harness.QUEUE)
        self.end.callback(self.post.close)
        self.reader = self.end.enter_context(contextlib.closing(sqlite3.connect(
            f"file:{self.device.database}?mode=ro", uri=True, timeout=5, isolation_level=None)))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end.close()

    def _choose_padding(self, size):
        """So that an event is stored in so many bytes."""
        def probe():
            # The configuration is on file a moment before it counts: until then nothing is kept.
            self.post.send(self.post.message(last=True))
            time.sleep(0.5)
            return self._last_is_stored()
        harness.wait_until(probe, "the first stored event")
        stored = self.reader.execute(
            "SELECT LENGTH(data) FROM Events ORDER BY rowid DESC LIMIT 1").fetchone()[0]
        self.post.pad = size - stored + len(', "last": true')

    def _last_is_stored(self):
        rows = self.reader.execute("SELECT data FROM Events ORDER BY rowid DESC LIMIT 8")
        return any('"last": true' in row[0] for row in rows.fetchall())

    def wait_for_last(self):
        harness.wait_until(self._last_is_stored, "the last event", 120)

    def rest(self):
        """Until nothing is under way any more: the pruning that an event has set off."""
        time.sleep(0.5)
        self.disk.sync()

    def cpu(self):
        """CPU seconds of the daemon so far, ended threads included."""
        return time.clock_gettime((~self.device.process.pid << 3) | 2)

    def flood(self, count, rate=0):
        begin = time.monotonic()
        messages = [self.post.message(last=number == count) for number in range(1, count + 1)]
        for number, message in enumerate(messages):
            if rate:
                time.sleep(max(0.0, begin + number / rate - time.monotonic()))
            self.post.send(message)
        self.wait_for_last()

    def fill(self):
        """Up to the limit, and until a write-ahead log has its size and is written over again, as
        in a set that has run for a while; then leaves room for 100 events before the next pruning.
        """
        self.flood(WARM_UP)
        while self._stored() > LIMIT - 100 * EVENT_BYTES:
            self.flood(20)
            time.sleep(0.1)
        # So that what follows has the checkpoints that are its own.
        with contextlib.closing(sqlite3.connect(self.device.database, timeout=5)) as store:
            store.execute("PRAGMA wal_checkpoint(PASSIVE)").fetchall()

    def _stored(self):
        return self.reader.execute("SELECT TOTAL(LENGTH(data)) FROM Events").fetchone()[0]

    def measure(self, count, rate=0):
        self.rest()
        before = self.disk.statistics()
        self.flood(count, rate)
        self.rest()
        return Cost(before, self.disk.statistics(), count)


class BareLoop:
    """The least that any store does, on the same disk, with the same transactions."""

    def __init__(self, journal, synchronous, size=EVENT_BYTES):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="flash."))
        self.disk = Disk(self.folder / "disk")
        self.disk.mount()
        self.store = sqlite3.connect(self.disk.root / "Db", isolation_level=None)
        self.store.execute(f"PRAGMA journal_mode={journal}").fetchall()
        self.store.execute(f"PRAGMA synchronous={synchronous}")
        self.store.execute("PRAGMA wal_autocheckpoint=256").fetchall()
        self.store.execute("CREATE TABLE Events(bootCount INT, standbyCount INT, kernelTime INT, "
                           "type TEXT, status INT, data BLOB)")
        self.text = "x" * size

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.store.close()
        self.disk.remove()
        shutil.rmtree(self.folder, ignore_errors=True)

    def transaction(self, rows):
        self.store.execute("BEGIN IMMEDIATE")
        for _ in range(rows):
            self.store.execute("INSERT INTO Events VALUES(1, 1, 1234567, 'usage.epg', 0, ?)",
                               (self.text,))
        self.store.execute("COMMIT")

    def warm_up(self):
        for _ in range(300):
            self.transaction(1)
        self.store.execute("PRAGMA wal_checkpoint(PASSIVE)").fetchall()

    def measure(self, transactions, rows, pause_s=0.0):
        self.disk.sync()
        before = self.disk.statistics()
        for _ in range(transactions):
            self.transaction(rows)
            time.sleep(pause_s)
        self.disk.sync()
        return Cost(before, self.disk.statistics(), transactions * rows)


# --- the cases ----------------------------------------------------------------------------------

def presses(events):
    """Events of each press of a button, the same ones each time."""
    dice = random.Random(20190307)
    left = events
    while left > 0:
        count = min(left, dice.randrange(1, 10))
        left -= count
        yield count


def cases(short):
    """(label, bound, of the daemon, of the bare loop) of each row."""
    part = 4 if short else 1

    def daemon(count, rate=0, warm=True, rounds=1):
        def measured(programs):
            total = None
            for _ in range(rounds):
                with Set(programs) as tv:
                    if warm:
                        tv.fill()
                    cost = tv.measure(count, rate)
                if total:
                    cost.events += total.events
                    cost.bytes += total.bytes
                    cost.flushes += total.flushes
                total = cost
            return total
        return measured

    def bare(transactions, rows, pause_s=0.0, warm=True):
        def measured(*ways):
            with BareLoop(*ways) as loop:
                if warm:
                    loop.warm_up()
                return loop.measure(transactions, rows, pause_s)
        return measured

    lone, checkpoint, flood = 40 // part, 320 // part, 20000 // part
    return (
        ("one alone, two a second", "9,000 and 1.3",
         daemon(lone, 2), bare(lone, 1, 0.5)),
        ("the same right after the start", "",
         daemon(lone, 2, warm=False), bare(lone, 1, 0.5, warm=False)),
        ("one alone, one in six seconds", "",
         daemon(lone // 5, 1 / 6), bare(lone // 5, 1, 6)),
        (f"one alone, {checkpoint} at 4/s: checkpoints included", "",
         daemon(checkpoint, 4), bare(checkpoint, 1, 0.25)),
        ("10/s", "", daemon(200 // part, 10), bare(100 // part, 2, 0.2)),
        ("1000/s, store at its limit", "",
         daemon(10000 // part, 1000), bare(50 // part, 200, 0.2)),
        ("flood of 400 into a new store", "",
         daemon(400, warm=False, rounds=5), bare(10, 200, warm=False)),
        ("flood, store at its limit", "1,600 and 0.03",
         daemon(flood), bare(flood // BATCH, BATCH)),
    )


class Day:
    """A part of a day, replayed; `figures` are those of a whole day."""

    PRESS_S = 0.25  # longer than the storing thread rests: no two presses share a transaction

    def __init__(self, part):
        self.part = part
        self.events = DAY_EVENTS // part
        self.between_uploads = DAY_EVENTS // DAY_UPLOADS

    def of_daemon(self, programs):
        # A press may pass it by some events, and the last upload is to be within the day.
        upload_at = (self.between_uploads - 10) * (DAY_EVENT_BYTES + 1)
        with Set(programs, min_size=upload_at, size=DAY_EVENT_BYTES) as tv:
            tv.rest()
            network, cpu, before = loopback_bytes(), tv.cpu(), tv.disk.statistics()
            records = len(tv.cloud.records())
            for count in presses(self.events):
                for _ in range(count):
                    tv.post.send(tv.post.message())
                time.sleep(self.PRESS_S)
                # What is left is written in the seconds before the next press of a real day.
                tv.disk.sync()
            tv.rest()
            cost = Cost(before, tv.disk.statistics(), self.events)
            uploads = len(tv.cloud.records()) - records
            return cost, (tv.cpu() - cpu, loopback_bytes() - network, uploads)

    def of_bare_loop(self, journal, synchronous):
        with BareLoop(journal, synchronous, DAY_EVENT_BYTES) as loop:
            loop.disk.sync()
            before, waiting = loop.disk.statistics(), 0
            for count in presses(self.events):
                loop.transaction(count)
                loop.disk.sync()
                waiting += count
                if waiting >= self.between_uploads:
                    loop.store.execute("DELETE FROM Events")
                    waiting = 0
            return Cost(before, loop.disk.statistics(), self.events), None

    def figures(self, measured):
        cost, more = measured
        megabytes = cost.bytes * self.part / 1e6
        years = EMMC_BYTES * EMMC_CYCLES / (megabytes * 1e6) / 365
        text = f"{megabytes:,.1f} MB, {cost.flushes * self.part:,} flushes, {years:,.0f} years"
        if more is None:
            return text
        cpu, network, uploads = more
        return (f"{text}; {cpu * self.part:.1f} CPU s, {network * self.part / 1e6:,.1f} MB on the "
                f"network, {uploads * self.part} uploads")


# --- intake -------------------------------------------------------------------------------------

def intake_of_daemon(programs, events):
    with Set(programs) as tv:
        tv.fill()
        begin, cpu = time.monotonic(), tv.cpu()
        tv.flood(events)
        return _intake(events, time.monotonic() - begin, tv.cpu() - cpu)


def intake_of_bare_loop(events):
    """bench/bareloop with a prepared statement: receive, parse, insert, no limit to the store."""
    folder = pathlib.Path(tempfile.mkdtemp(prefix="flash."))
    disk = Disk(folder / "disk", size_mib=256)
    disk.mount()
    try:
        process = subprocess.Popen([pathlib.Path(os.environ["KIV_BUILD"]) / "bench/bareloop",
                                    BARE_QUEUE, disk.root / "Db", "bound"],
                                   stdout=subprocess.PIPE, text=True)
        process.stdout.readline()
        with contextlib.closing(Post(BARE_QUEUE)) as post:
            post.pad = EVENT_BYTES - len(post.message())
            begin = time.monotonic()
            for number in range(1, events + 1):
                post.send(post.message(last=number == events))
            process.stdout.read()
            _, _, usage = os.wait4(process.pid, 0)
        process.returncode = 0
        return _intake(events, time.monotonic() - begin, usage.ru_utime + usage.ru_stime)
    finally:
        disk.remove()
        shutil.rmtree(folder, ignore_errors=True)


def _intake(events, seconds, cpu):
    return f"{events / seconds:,.0f} events/s, {cpu / events * 1e5:.2f} CPU s"


# --- the table ----------------------------------------------------------------------------------

def loopback_bytes():
    """What has gone over the network of this namespace, both directions."""
    for line in pathlib.Path("/proc/net/dev").read_text().splitlines():
        name, _, numbers = line.strip().partition(":")
        if name == "lo":
            return int(numbers.split()[0])
    return 0


def machine():
    return (f"{os.cpu_count()} x {platform.machine()}, Linux {platform.release()}, ext4 on a loop "
            f"device, SQLite {sqlite3.sqlite_version}, {time.strftime('%Y-%m-%d')}")


def measure(others, short):
    """The table's lines."""
    daemons = [os.environ["KIV_BUILD"], *others]
    heads = ["", "bound", "bare loop, write-ahead log", "bare loop, rollback journal",
             "this daemon", *["daemon of the other build" for _ in others]]
    ways = (("WAL", "FULL"), ("DELETE", "FULL"))
    rows = [heads, ["---"] * len(heads)]

    def row(*cells):
        rows.append([str(cell) for cell in cells])
        print(" | ".join(rows[-1]), flush=True)

    def compare(label, bound, of_daemon, of_bare_loop, shown):
        """The bare loops run beside the daemons: most of the time is waiting."""
        bare = [beside.submit(of_bare_loop, *way) for way in ways]
        measured = [of_daemon(programs) for programs in daemons]
        row(label, bound, *[shown(loop.result()) for loop in bare], *map(shown, measured))

    with concurrent.futures.ThreadPoolExecutor() as beside:
        for label, bound, of_daemon, of_bare_loop in cases(short):
            compare(label, bound, of_daemon, of_bare_loop, str)
        day = Day(40 if short else 10)
        compare("a day", "", day.of_daemon, day.of_bare_loop, day.figures)
    events = 25000 if short else 100000
    row("intake of a flood, CPU per 100,000", "", "", intake_of_bare_loop(events),
        *[intake_of_daemon(programs, events) for programs in daemons])
    return [f"Machine: {machine()}\n\n"] + [f"| {' | '.join(cells)} |\n" for cells in rows]


def write(lines):
    path = ROOT / "bench/README.md"
    head, rest = path.read_text().split(BEGIN)
    path.write_text(head + BEGIN + "".join(lines) + END + rest.split(END)[1])


def main():
    parser = argparse.ArgumentParser(prog="bench/flash", description=__doc__.splitlines()[0])
    parser.add_argument("--other", metavar="DIR", action="append", default=[],
                        help="programs to measure beside this tree's")
    parser.add_argument("--short", action="store_true", help="a quarter of each")
    parser.add_argument("--write", action="store_true", help="the table into bench/README.md")
    options = parser.parse_args()
    reason = why_not_possible()
    if reason:
        sys.exit(f"bench/flash: not possible here: {reason}")
    lines = measure(options.other, options.short)
    print("\n" + "".join(lines), end="")
    if options.write:
        write(lines)


if __name__ == "__main__":
    main()
