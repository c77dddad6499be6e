#!/usr/bin/python3
"""Measures kivApp on this machine and writes the table in bench/README.md. Started by bench/run."""
import json
import os
import pathlib
import platform
import shutil
import signal
import sqlite3
import statistics
import struct
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests/e2e"))
import harness  # noqa: E402

BUILD = harness.BUILD
DATA = BUILD / "data"  # on the disk of the build folder: /tmp may be memory
FLOOD = 50000
LONG_FLOOD = 200000  # for rates: the wait for the first poll, up to 200 ms, counts little
BARE_QUEUE = "/kiv_bench_bare"


class Meter:
    """Counts the syncs and written bytes of a program that runs with its environment."""

    def __init__(self, path):
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(bytes(16))
        self.path = path

    def environment(self):
        return {"LD_PRELOAD": str(BUILD / "bench/libsyncmeter.so"), "SYNCMETER": str(self.path)}

    def counts(self):
        """(syncs, bytes written) so far."""
        return struct.unpack("QQ", self.path.read_bytes())


def flood(database, count, rate):
    """Posts and waits until the last event is a committed row; returns the seconds."""
    begin = time.monotonic()
    subprocess.run([BUILD / "bench/flood", harness.QUEUE, str(count),
                    *([str(rate)] if rate else [])], check=True)
    with sqlite3.connect(f"file:{database}?mode=ro", uri=True, timeout=10) as store:
        def newest():
            return store.execute("SELECT data FROM Events ORDER BY ROWID DESC LIMIT 8").fetchall()
        while not any('"last": true' in row[0] for row in newest()):
            time.sleep(0.005)
    return time.monotonic() - begin


class Set:
    """A daemon with consent; with `meter` its syncs and written bytes are counted."""

    def __init__(self, name, meter=False, settings=(), **configuration):
        self.folder = DATA / name
        shutil.rmtree(self.folder, ignore_errors=True)
        configuration.setdefault("upload_events",
                                 {"min-size": 2000000000, "max-delay": 0, "max-size": 131072})
        self.cloud = harness.Cloud(self.folder / "cloud", {"config": {"*": configuration}})
        self.device = harness.Device(self.folder / "device", self.cloud)
        self.meter = Meter(self.folder / "meter")
        self.device.environment.update(settings)
        if meter:
            self.device.environment.update(self.meter.environment())
        self.device.start("-s")
        self.device.wait_for_config()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.device.stop()
        self.cloud.stop()

    def flood(self, count, rate=0):
        return flood(self.device.database, count, rate)

    def stored(self):
        """Bytes of events in the store."""
        return self.device.query("SELECT TOTAL(LENGTH(data)) FROM Events")[0][0]

    def memory(self):
        """(resident, private) in KiB."""
        text = pathlib.Path(f"/proc/{self.device.process.pid}/smaps_rollup").read_text()
        fields = {line.split(":")[0]: int(line.split()[1])
                  for line in text.splitlines()[1:] if line.split()[1:2]}
        return fields["Rss"], fields["Private_Clean"] + fields["Private_Dirty"]


def bare_rate(insertion):
    database = DATA / "bare.db"
    for path in DATA.glob("bare.db*"):
        path.unlink()
    loop = subprocess.Popen([BUILD / "bench/bareloop", BARE_QUEUE, database, insertion],
                            stdout=subprocess.PIPE, text=True)
    loop.stdout.readline()
    subprocess.run([BUILD / "bench/flood", BARE_QUEUE, str(LONG_FLOOD)], check=True)
    return float(loop.communicate()[0])


class Intake:
    """The daemon's gateway alone, on a store that is never pruned."""

    def __init__(self):
        self.database = DATA / "intake.db"
        for path in DATA.glob("intake.db*"):
            path.unlink()
        self.meter = Meter(DATA / "intake.meter")
        self.process = subprocess.Popen(
            [BUILD / "bench/intake", self.database],
            env=dict(os.environ, **self.meter.environment()),
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        harness.wait_until(harness.Device.queue_exists, "the message queue")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        harness.RT.mq_unlink(harness.QUEUE.encode())

    def flood(self, count, rate=0):
        return flood(self.database, count, rate)


def memory_settings():
    """What the installed settings say of the allocator."""
    lines = (ROOT / "packaging/kivApp.default.in").read_text().splitlines()
    return [line.split("=", 1) for line in lines if line.startswith("GLIBC_TUNABLES=")]


def intake():
    """Rates of the bare loops, of the intake alone and of the whole daemon, in turns, three times;
    the medians."""
    rates = {"text": [], "bound": [], "intake": [], "daemon": [], "frugal": []}
    for turn in range(3):
        for insertion in ("text", "bound"):
            rates[insertion].append(bare_rate(insertion))
        with Intake() as gateway:
            rates["intake"].append(LONG_FLOOD / gateway.flood(LONG_FLOOD))
        for name, settings in (("daemon", ()), ("frugal", memory_settings())):
            with Set(f"intake{turn}.{name}", settings=settings) as tv:
                rates[name].append(LONG_FLOOD / tv.flood(LONG_FLOOD))
    return {name: statistics.median(values) for name, values in rates.items()}


def wear(what, count, rate):
    """(syncs, bytes written) an event."""
    with what() as measured:
        time.sleep(1)
        before = measured.meter.counts()
        measured.flood(count, rate)
        after = measured.meter.counts()
        return [(b - a) / count for a, b in zip(before, after)]


def memory_figures():
    with Set("memory", upload_events={"min-size": 16384, "max-delay": 3500,
                                      "max-size": 131072}) as tv:
        time.sleep(1)
        idle = tv.memory()
        subprocess.run([BUILD / "bench/flood", harness.QUEUE, str(2 * FLOOD)], check=True)
        harness.wait_until(lambda: tv.stored() < 16384, "the store uploaded", 120)
        return idle, tv.memory(), len(tv.cloud.records())


def start_time(starts=5):
    """Milliseconds from exec to the first message handled; the median."""
    times = []
    with Set("start") as tv:
        for _ in range(starts):
            tv.device.stop(signal.SIGKILL)
            harness.forget_system_wide_names()
            begin = time.monotonic()
            tv.device.start("-s", ready=False)
            while not tv.device.queue_exists():
                time.sleep(0.0005)
            tv.device.send("start.probe")
            times.append((time.monotonic() - begin) * 1000)
    return statistics.median(times)


def filter_cost():
    out = subprocess.run([BUILD / "bench/filtercost"], check=True, capture_output=True, text=True)
    return [float(word) for word in out.stdout.split()]


def machine():
    model = next((line.split(":")[1].strip()
                  for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines()
                  if line.startswith("model name")), platform.machine())
    mount = subprocess.run(["findmnt", "-no", "FSTYPE", "-T", DATA], capture_output=True, text=True)
    return (f"{os.cpu_count()} x {model}, Linux {platform.release()}, "
            f"{mount.stdout.strip() or 'unknown'} disk, SQLite {sqlite3.sqlite_version}, "
            f"{time.strftime('%Y-%m-%d')}")


def measure():
    DATA.mkdir(parents=True, exist_ok=True)
    rows = []

    def row(what, value):
        rows.append((what, value))
        print(f"{what}: {value}", flush=True)

    rates = intake()
    row("bare loop: receive, parse, insert in 256-row transactions, statements as text",
        f"{rates['text']:,.0f} events/s")
    row("the same with a prepared statement", f"{rates['bound']:,.0f} events/s")

    def compared(name):
        return (f"{rates[name]:,.0f} events/s: {rates[name] / rates['text']:.2f} of the bare loop, "
                f"{rates[name] / rates['bound']:.2f} of the prepared one")

    row("kivApp's gateway, from the queue to durable rows, no limit to the store", compared("intake"))
    row("kivApp whole, store at its limit: every event pushes an older one out", compared("daemon"))
    row("the same with the installed settings of the allocator", compared("frugal"))
    for label, what, count, rate in (
            ("at 1 event/s", lambda: Set("wear1", meter=True), 10, 1),
            ("at 10 events/s", lambda: Set("wear10", meter=True), 100, 10),
            ("at 1000 events/s, store at its limit", lambda: Set("wear1000", meter=True), 5000, 1000),
            ("in a flood, no limit to the store", Intake, FLOOD, 0),
            ("in a flood, store at its limit", lambda: Set("wearflood", meter=True), FLOOD, 0)):
        syncs, written = wear(what, count, rate)
        row(f"syncs and bytes written an event, {label}", f"{syncs:.4f} and {written:,.0f}")
    idle, after, uploads = memory_figures()
    row("resident / private memory, idle", f"{idle[0]:,} / {idle[1]:,} KiB")
    row(f"resident / private memory, after 100 000 events and {uploads} uploads",
        f"{after[0]:,} / {after[1]:,} KiB")
    row("start to the first message handled", f"{start_time():.0f} ms")
    few, many = filter_cost()
    row("filter evaluation of one event, 10 / 200 rules", f"{few:.1f} / {many:.1f} us")
    return rows


def write_table(rows):
    path = ROOT / "bench/README.md"
    text = path.read_text()
    begin, end = "<!-- table -->\n", "<!-- end -->"
    table = f"Machine: {machine()}\n\n| what | measured |\n|---|---|\n"
    table += "".join(f"| {what} | {value} |\n" for what, value in rows)
    head, rest = text.split(begin)
    path.write_text(head + begin + table + end + rest.split(end)[1])


if __name__ == "__main__":
    measured = measure()
    if "--write" in sys.argv:
        write_table(measured)
