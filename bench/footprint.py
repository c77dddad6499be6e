#!/usr/bin/python3
"""Measures what kivApp takes of a set: flash, memory, wake-ups, time to start. Fails on a figure
above its limit, but for the clean pages of libraries, which depend on what else runs.

    bench/footprint.py            # builds, measures and prints the table
    bench/footprint.py --write    # and puts it into bench/README.md

The size is that of the stripped ARM daemon, which ./build-arm makes; the rest is of the native
build on this machine, as an emulator would be measured with an emulated daemon.
"""
import os
import pathlib
import platform
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
ARM_DAEMON = ROOT / "build/arm/stripped/sbin/kivApp"
BURSTS = 100
EVENTS_IN_BURST = 1000
IDLE_S = 10
REST_S = 6  # a set at rest for 5 s gives back what it need not keep
STARTS = 9
BEGIN, END = "<!-- footprint -->\n", "<!-- end of footprint -->"

if "KIV_BUILD" not in os.environ:  # builds, and starts again where ports and queue are its own
    build = ROOT / "build/bench"
    script = f"""set -euo pipefail
root={ROOT}; cd "$root"; . tools/prepare.sh
install_missing "${{kiv_packages[@]}}"
mkdir -p build
build build/bench all -DCMAKE_BUILD_TYPE=Release -DKIV_TESTS=OFF -DKIV_BENCH=ON | tail -n 1"""
    subprocess.run(["bash", "-c", script], check=True)
    os.environ["KIV_BUILD"] = str(build)
    os.execv(ROOT / "tests/e2e/isolate.sh",
             ["isolate.sh", str(ROOT), "/usr/bin/python3", str(pathlib.Path(__file__).resolve()),
              *sys.argv[1:]])

sys.path[:0] = [str(ROOT / "tests/e2e"), str(ROOT / "bench")]
import bench  # noqa: E402
import harness  # noqa: E402



class Memory:
    """Private KiB. The kernel can take clean pages back, and they are private only as long as nobody
    else uses the same library."""

    # What the daemon itself calls; other libraries come along with libcurl.
    OWN = ("libjansson", "libsqlite3", "libuuid", "libcurl", "libcrypto", "libssl", "libgcc_s",
           "libc", "libm", "libz", "ld-linux-x86-64")

    def __init__(self):
        self.dirty = self.clean = self.language = self.brought_along = 0

    def add(self, mapped, dirty, kib):
        if dirty:
            self.dirty += kib
        else:
            self.clean += kib
        library = mapped.split(".so")[0]
        if library == "libstdc++":
            self.language += kib
        elif ".so" in mapped and library not in self.OWN:
            self.brought_along += kib

    def all(self):
        return self.dirty + self.clean


class Set(bench.Set):
    """A native daemon with consent that uploads when 16384 bytes wait."""

    def __init__(self, name, settings=()):
        super().__init__(name, settings=settings, upload_events={
            "min-size": 16384, "max-delay": 3500, "max-size": 131072})

    def proc(self, name):
        return pathlib.Path(f"/proc/{self.device.process.pid}/{name}")

    def memory(self):
        """The memory that is this process's alone."""
        memory = Memory()
        mapped = ""
        for line in self.proc("smaps").read_text().splitlines():
            words = line.split()
            if not words[0].endswith(":"):
                mapped = os.path.basename(words[5]) if len(words) > 5 else ""
            elif words[0] in ("Private_Clean:", "Private_Dirty:"):
                memory.add(mapped, words[0] == "Private_Dirty:", int(words[1]))
        return memory

    def wake_ups(self):
        """How often any thread has waited and gone on, so far."""
        count = 0
        for task in self.proc("task").iterdir():
            for line in (task / "status").read_text().splitlines():
                if line.startswith("voluntary_ctxt_switches"):
                    count += int(line.split()[1])
        return count

    def uploads(self):
        return len(list((self.cloud.state / "records" / harness.STREAM).glob("[0-9]*.json")))

    def burst(self):
        """Posts so many events that an upload follows, and waits for it."""
        before = self.uploads()
        subprocess.run([harness.BUILD / "bench/flood", harness.QUEUE, str(EVENTS_IN_BURST)],
                       check=True)
        harness.wait_until(lambda: self.device.alive() and self.uploads() > before, "an upload")


def memory_and_wake_ups(settings):
    """(memory after start, memory after the bursts, uploads, wake-ups a second when idle)"""
    with Set("memory", settings) as tv:
        tv.device.send("usage.epg")
        time.sleep(REST_S)
        start = tv.memory()
        before = tv.wake_ups()
        time.sleep(IDLE_S)
        idle = (tv.wake_ups() - before) / IDLE_S
        for _ in range(BURSTS):
            tv.burst()
        time.sleep(REST_S)
        return start, tv.memory(), tv.uploads(), idle


class Table:
    def __init__(self):
        self.rows = []
        self.missed = 0

    def row(self, what, value, limit, unit, digits=0, depends=False):
        """`depends`: on what else runs, so that a miss does not fail the measurement."""
        good = value <= limit
        self.missed += not good and not depends
        self.rows.append(f"| {what} | {value:,.{digits}f} {unit} | {limit:,} {unit} |"
                         f" {'yes' if good else 'NO'} |\n")
        print(self.rows[-1].strip(" |\n").replace(" | ", "; "), flush=True)

    def share(self, what, value, unit):
        self.rows.append(f"| {what} | {value:,} {unit} | | |\n")
        print(self.rows[-1].strip(" |\n").replace(" | ", "; "), flush=True)

    def text(self):
        return (f"{os.cpu_count()} x {platform.machine()}, Linux {platform.release()}, "
                f"{time.strftime('%Y-%m-%d')}\n\n"
                "| what | measured | limit | kept |\n|---|---|---|---|\n" + "".join(self.rows))


def measure():
    bench.DATA.mkdir(parents=True, exist_ok=True)
    table = Table()
    if ARM_DAEMON.exists():
        table.row("stripped ARM daemon", ARM_DAEMON.stat().st_size / 1024, 900, "KiB")
    else:
        print("no ARM daemon: ./build-arm makes it")
        table.missed += 1
    start, after, uploads, idle = memory_and_wake_ups(bench.memory_settings())
    more = f"more after {BURSTS * EVENTS_IN_BURST:,} events and {uploads} uploads"
    table.row("private memory after start, dirty", start.dirty, 6 * 1024, "KiB")
    table.row(more, after.dirty - start.dirty, 1024, "KiB")
    table.row("private memory after start, with clean pages that nobody else maps here",
              start.all(), 6 * 1024, "KiB", depends=True)
    table.share("of it libraries that libcurl brings along", start.brought_along, "KiB")
    table.share("of it the C++ library", start.language, "KiB")
    table.row(more, after.all() - start.all(), 1024, "KiB", depends=True)
    start, after, _, _ = memory_and_wake_ups(())
    table.share(f"more after {BURSTS * EVENTS_IN_BURST:,} events, dirty, without the installed "
                "settings of the allocator", after.dirty - start.dirty, "KiB")
    table.row("wake-ups of all threads together, idle", idle, 6, "/s", 1)
    table.row("start to the first message handled", bench.start_time(STARTS), 150, "ms")
    return table


def write(table):
    path = ROOT / "bench/README.md"
    head, rest = path.read_text().split(BEGIN)
    path.write_text(head + BEGIN + table.text() + END + rest.split(END)[1])


if __name__ == "__main__":
    measured = measure()
    if "--write" in sys.argv:
        write(measured)
    sys.exit(1 if measured.missed else 0)
