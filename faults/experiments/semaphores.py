"""What stands where a sender's semaphore should be: anything, and something else a moment later."""
import contextlib
import os
import pathlib
import random
import shutil
import threading
import time

import rig

PLACE = pathlib.Path("/dev/shm")
EVENTS = 150
BOUND_S = 15.0
LONGEST_WAKE_S = 2.0
USER = 61999


def _make(kind, path, dice):
    """Beside its place, then renamed: nobody can guard against a file cut short in its use."""
    fresh = path.with_name(path.name + ".new")
    _remove(fresh)
    size = 32 if kind == "garbage" else dice.choice((0, 1, 15, 31, 33, 4096))
    {"empty": lambda: fresh.write_bytes(b""),
     "garbage": lambda: fresh.write_bytes(dice.randbytes(size)),
     "size": lambda: fresh.write_bytes(b"\0" * size),
     "zeroes": lambda: fresh.write_bytes(b"\0" * 32),
     "full": lambda: fresh.write_bytes(b"\xff\xff\xff\x7f" + b"\0" * 28),
     "directory": fresh.mkdir,
     "link": lambda: fresh.symlink_to(dice.choice(("/etc/hostname", str(path), "/dev/zero", "."))),
     "fifo": lambda: os.mkfifo(fresh),
     "unreadable": lambda: fresh.write_bytes(b"\0" * 32)}[kind]()
    if fresh.is_file() and not fresh.is_symlink():
        fresh.chmod(0 if kind == "unreadable" else 0o666)
    with contextlib.suppress(OSError):
        _remove(path)
        fresh.rename(path)


def _remove(path):
    if path.is_dir() and not path.is_symlink():
        shutil.rmtree(path, ignore_errors=True)
    else:
        path.unlink(missing_ok=True)


KINDS = ("empty", "garbage", "size", "zeroes", "full", "directory", "link", "fifo", "unreadable")


class Semaphores(rig.RigExperiment):
    name = "semaphores"
    says = "what is not a semaphore in a semaphore's place, replaced and removed while it is opened"
    how = ("empty, garbage, wrong size, full, directory, link, pipe, unreadable; changed at full "
           "speed")
    trials = 20
    quick_trials = 2

    def rig_of_the_trial(self):
        if self.rig is None or self.used == self.trials_of_a_rig:
            os.chmod(PLACE, 0o1777)
            launcher = []
            if os.geteuid() == 0:  # root may read everything
                launcher = ["setpriv", "--reuid", str(USER), "--regid", str(USER),
                            "--clear-groups"]
            rig = self.new_rig(launcher=launcher)
            if launcher:
                self._give_away(rig)
            rig.start()
            rig.device.wait_for_config()
        self.used += 1
        return self.rig

    def _give_away(self, rig):
        for folder in (self.folder, rig.folder):
            folder.chmod(0o755)
        for path in (rig.device.folder, *rig.device.folder.iterdir()):
            os.chown(path, USER, USER)
        for path in rig.device.folder.iterdir():
            path.chmod(0o644)

    def trial(self, trial):
        rig, dice = self.rig_of_the_trial(), trial.dice
        stem = f"sem.kivfault.{trial.number}."
        changing = threading.Event()
        changer = threading.Thread(target=self._change, args=(stem, dice.random(), changing))
        changer.start()
        try:
            for number in range(EVENTS):
                name = dice.choice((*KINDS, "moving", "moving", "missing"))
                if name in KINDS and not os.path.lexists(PLACE / (stem + name)):
                    _make(name, PLACE / (stem + name), dice)
                rig.post(syncsem=f"/{stem[4:]}{name}", text="x" * 20)
                if number % 50 == 25:
                    self._wake(trial, rig)
        finally:
            changing.set()
            changer.join()
            for path in PLACE.glob(stem + "*"):
                _remove(path)
        rig.settle(trial, BOUND_S, restart=False)
        descriptors, threads, _ = rig.footprint()
        if descriptors > 40 or threads > 20:
            trial.fail(f"{descriptors} descriptors, {threads} threads")

    @staticmethod
    def _change(stem, seed, stop):
        dice = random.Random(seed)
        path = PLACE / (stem + "moving")
        while not stop.is_set():
            with contextlib.suppress(OSError):
                _make(dice.choice(KINDS), path, dice)
                if dice.random() < 0.3:
                    _remove(path)

    def _wake(self, trial, rig):
        """A real one between them is posted."""
        begin = time.monotonic()
        rig.device.send("usage.epg", {"text": "wakes"})
        seconds = time.monotonic() - begin
        trial.standstill_s = max(trial.standstill_s, seconds)
        if seconds > LONGEST_WAKE_S:
            trial.fail(f"a sender was woken after {seconds:.1f} s")
