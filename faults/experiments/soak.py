"""Everything at once for as long as is asked: posts with bursts, a cloud that misbehaves, jumps of
the clock, announced files, foreign locks, a full disk for moments, and kills."""
import collections
import contextlib
import os
import random
import sqlite3
import subprocess
import threading
import time

import clock
import rig
from answers import EVERYTHING
from mutations import mutated

LIVES = 4  # of the daemon, in a soak; memory is compared within each
LONGEST_LIFE_S = 3600
KILLS = 5  # between two lives
DISK_MIB = 24
BOUND_S = 40.0  # from the end of the faults until everything is there, one restart included
PACE_S = (0.02, 0.25)  # between posts
STORE_RECOVERY_S = 6.5  # the storing thread tries a store that failed every 5 s
MOST_GROWTH = {"descriptors": 4, "threads": 2, "KiB of memory": 4096}


class Samples:
    """Descriptors, threads and memory, each second of a life."""

    def __init__(self, rig):
        self._rig = rig
        self.taken = []

    def take(self):
        with contextlib.suppress(OSError, StopIteration):
            self.taken.append(self._rig.footprint())

    def growth(self):
        """{what: from the first to the last quarter}: of the highest of each; the first tenth, in
        which everything is met for the first time, is left out."""
        taken = self.taken[len(self.taken) // 10:]
        quarter = len(taken) // 4
        if quarter < 3:
            return {}
        first, last = taken[:quarter], taken[-quarter:]
        return {what: self._typical(last, place) - self._typical(first, place)
                for place, what in enumerate(MOST_GROWTH)}

    @staticmethod
    def _typical(taken, place):
        """Most are below it: a child under way, or a burst, is not growth."""
        values = sorted(sample[place] for sample in taken)
        return values[len(values) * 9 // 10]


class Poster(threading.Thread):
    """Events at a set's pace, bursts, and messages that nobody should write."""

    def __init__(self, rig, seed, clock_):
        super().__init__(daemon=True)
        self._rig, self._dice, self._clock = rig, random.Random(seed), clock_
        self._stop_it = threading.Event()
        self.start()

    def run(self):
        while not self._stop_it.wait(self._dice.uniform(*PACE_S)):
            kind = self._dice.random()
            for _ in range(300 if kind < 0.005 else 20 if kind < 0.05 else 1):
                self._rig.post(text="x" * self._dice.randrange(10, 300), limit_s=2)
            if kind > 0.97:
                self._rig.put(mutated(self._dice), 2)

    def end(self):
        self._stop_it.set()
        self.join()


class Soak(rig.RigExperiment):
    name = "soak"
    says = "everything mixed for %.3g minutes: posts, bursts, kills and all faults"
    how = ("dice each second: cloud, clock, files, foreign locks, a full disk, junk; five kills in "
           "a row between four lives")
    trials = 1  # of KIV_SOAK_MINUTES each
    quick_trials = 1
    configuration = {"upload_events": {"min-size": 2000, "max-delay": 5, "max-size": 131072}}
    quick_seconds = 25

    def __init__(self, seed):
        super().__init__(seed)
        self.says = self.says % (self.seconds() / 60)
        self.growths = []
        self.store_failed = 0.0  # when last
        self.made = collections.Counter()  # faults

    def why_not_possible(self):
        return super().why_not_possible() or clock.why_not_possible()

    @classmethod
    def seconds(cls):
        if "KIV_SOAK_MINUTES" in os.environ:
            return 60 * float(os.environ["KIV_SOAK_MINUTES"])
        return cls.quick_seconds if os.environ.get("KIV_FAULTS_QUICK") else 1200

    def trial(self, trial):
        rig = self.new_rig()
        self._put_on_a_small_disk(rig)
        self.clock = clock.Clock(rig.folder)
        self.clock.use(rig.device, self.folder)
        rig.start()
        seconds = self.seconds()
        lives = max(LIVES if seconds > 240 else 2, int(seconds / LONGEST_LIFE_S) + 1)
        for _ in range(lives):
            self._live(trial, rig, seconds / lives)
            for _ in range(KILLS):
                time.sleep(trial.dice.uniform(0, 0.5))
                self._kill(rig)
        rig.settle(trial, BOUND_S)
        rig.no_child_is_left(trial)

    @staticmethod
    def _put_on_a_small_disk(rig):
        """What lies there already moves with it."""
        device = rig.device.folder
        contents = {path.name: path.read_bytes() for path in device.iterdir()}
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={DISK_MIB}m", "tmpfs", str(device)],
                       check=True)
        rig.device.logs = rig.folder / "logs"  # no part of what fills up
        rig.device.logs.mkdir()
        for name, content in contents.items():
            (device / name).write_bytes(content)
        rig.end.callback(lambda: subprocess.run(["umount", "-l", str(device)], check=True))

    def _live(self, trial, rig, seconds):
        dice = trial.dice
        samples = Samples(rig)
        poster = Poster(rig, dice.random(), self.clock)
        end = time.monotonic() + seconds
        quiet = 0.0  # until then everybody behaves
        try:
            while time.monotonic() < end:
                samples.take()
                rig.device.alive()
                if time.monotonic() > quiet:
                    rig.cloud.control({"misbehave": None})
                    if dice.random() < 0.15:
                        self._misbehave(rig, dice)
                        self.made["misbehaviours"] += 1
                        quiet = time.monotonic() + dice.uniform(0.5, 4)
                self._one_of_the_rest(rig, dice)
                time.sleep(dice.uniform(0.5, 1.5))
        finally:
            poster.end()
            rig.cloud.control({"misbehave": None})
        self._check_growth(trial, samples)

    @staticmethod
    def _misbehave(rig, dice):
        # A configuration that is expired or of years ahead stands still for ten minutes, as stated.
        possible = [(target, action) for target, action in EVERYTHING
                    if action["action"] not in ("expired", "date")]
        rig.cloud.control({"misbehave": dict(dice.sample(possible, dice.choice((1, 2, 3))))})

    def _one_of_the_rest(self, rig, dice):
        kind = dice.random()
        if kind < 0.1:
            self.clock.jump(dice)
            self.made["jumps"] += 1
        elif kind < 0.25:
            self.made["files"] += 1
            rig.announce(f"soak.{len(rig.files)}", dice.randbytes(dice.choice((10, 5000, 200000))))
        elif kind < 0.3:
            self.made["foreign locks"] += 1
            self._lock_store(rig, dice.uniform(0.1, 3))
        elif kind < 0.33:
            self.made["full disks"] += 1
            self._fill_disk(rig, dice.uniform(0.1, 2))

    def _lock_store(self, rig, seconds):
        """As another process that writes."""
        with contextlib.suppress(sqlite3.Error), contextlib.closing(
                sqlite3.connect(rig.device.database, timeout=1, isolation_level=None)) as store:
            store.execute("BEGIN IMMEDIATE")
            time.sleep(seconds)
        self.store_failed = time.monotonic()

    def _fill_disk(self, rig, seconds):
        filler = rig.device.folder / "filler"
        try:
            with contextlib.suppress(OSError), open(filler, "wb", buffering=0) as file:
                while True:
                    file.write(bytes(1 << 16))
            time.sleep(seconds)
        finally:
            filler.unlink(missing_ok=True)
        self.store_failed = time.monotonic()

    def _kill(self, rig):
        """What waits in memory for a store that failed is not promised: that is waited for."""
        time.sleep(max(0.0, self.store_failed + STORE_RECOVERY_S - time.monotonic()))
        rig.restart(kill=True)
        self.made["kills"] += 1

    def _check_growth(self, trial, samples):
        growth = samples.growth()
        if growth:
            self.growths.append(growth)
        for what, most in MOST_GROWTH.items():
            if growth.get(what, 0) > most:
                trial.fail(f"{growth[what]} more {what} in the last quarter of a life than in the "
                           f"first, of {len(samples.taken)} samples")

    def remarks(self):
        lines = super().remarks() + [
            ", ".join(f"{count} {what}" for what, count in sorted(self.made.items()))]
        for what in MOST_GROWTH:
            grown = [growth[what] for growth in self.growths]
            if grown:
                lines.append(f"{what}: at most {max(grown)} more in a life's last quarter than in "
                             f"its first, of {len(grown)} lives")
        return lines
