"""Each system call on each of the daemon's files fails with EIO and ENOSPC, once or for a while,
from the start on or in the middle. When the fault has ended everything is there by itself: new
events are stored or sent, what could not be written meanwhile too; the files are whole. Consent and
configuration that could not be read at the start are read again within 10 s; until then events are
refused, with a line each when verbose. Then the daemon is started again without a fault, and everything is delivered."""
import errno
import json
import random
import time

import callfaults
from callfaults import CALLS, FOR_EVER, CallFaults
from lives import RigExperiment, Sender

# The store tries again after 200 ms, 1 s and 5 s, and is opened again at most once in 5 s.
RECOVERY_BOUND_S = 8.0
READY_BOUND_S = 5.0
READ_AGAIN_BOUND_S = 12.0  # consent and configuration are read again every 10 s
UNREADABLE = "cannot be read, nothing is collected until it can"
READABLE = ("can be read again", "is replaced without having been read")
FAULT_S = (0.3, 0.8)
REFUSED = "TOU not accepted: will not send event"
AFTER_START_S = 0.25  # how long a fault from the start lasts beyond it
ATOMIC = ("open", "write", "fsync", "rename", "unlink")
# Part of the path: the calls that the daemon makes there.
TARGETS = {
    "/Db": ("open", "write", "fsync", "truncate", "unlink", "mmap", "allocate", "close"),
    "/Db-wal": ("open", "write", "fsync", "truncate", "unlink"),
    "/Db-shm": ("open", "truncate", "mmap", "unlink"),
    "Config": ATOMIC,
    "dbuuid": ATOMIC,
    "pimversion": ATOMIC,
    "show_new_tou": ATOMIC,
    "/device": ("open", "write", "fsync", "rename", "unlink", "truncate", "mmap"),
}
CASES = [(path, call, error, phase, length)
         for phase in ("running", "start") for length in ("once", "while")
         for path, calls in TARGETS.items() for call in calls
         for error in (errno.EIO, errno.ENOSPC)]


class FailCall(RigExperiment):
    name = "failcall"
    says = "each system call on each file fails with EIO and ENOSPC; it recovers by itself"
    trials = len(CASES)
    quick_trials = 8
    trials_of_a_rig = 20

    def __init__(self, seed):
        super().__init__(seed)
        self.faults = None
        self.hits = {}  # (path, call): how many
        self.version = 0
        self.refused = 0  # events, for want of the consent on file
        self.was_sent = False  # whether the event after the fault's end was sent

    def why_not_possible(self):
        return callfaults.why_not_possible()

    def trial(self, trial):
        path, call, error, phase, length = CASES[trial.number * 37 % len(CASES)]
        if self.rig is None or self.used == self.trials_of_a_rig:
            self.fresh_rig()
            self.faults = self.faults or CallFaults(self.folder)
            self.rig.device.environment.update(self.faults.environment)
        self.used += 1
        place = (f"{call} of {path} with {callfaults.name_of(error)}, {length}, "
                 f"{'from the start' if phase == 'start' else 'running'}")
        rig = self.rig
        self._prepare(rig, path, phase)
        fault = {"error": error, "path": path, "last": FOR_EVER, "first": 1}
        if length == "once":
            fault["first"] = fault["last"] = trial.dice.randrange(1, 4)
        if phase == "start":
            self.faults.arm(call, **fault)
        # Verbose where the start meets the fault: events that are refused for want of the consent
        # on file then have their line.
        rig.start(*(["-v"] if phase == "start" else []))
        rig.watch()
        if phase == "running":
            rig.post()
            rig.settle(RECOVERY_BOUND_S, also_stored=True)
            self.faults.arm(call, **fault)
        self._work(rig, trial.dice, phase)
        rig.alive()
        self.faults.disarm()
        self.hits[path, call] = self.hits.get((path, call), 0) + self.faults.hits
        before = len(trial.failures)
        self._recover(trial)
        self._start_again(trial, path)
        if len(trial.failures) > before:
            trial.fail(f"{place}; hit {self.faults.hits} times, last {self.faults.last!r}")

    def _prepare(self, rig, path, phase):
        rig.next_boot()
        self.faults.disarm()
        if path in ("Config", "/device") and rig.device.config():
            rig.device.change_config(**{"UTC-Time": int(time.time()) - 90000})
        if path in ("dbuuid", "/device") and phase == "start":  # a store is made, and so a token
            for file in rig.device.folder.glob("Db*"):
                file.unlink()
            rig.ledger.see_store(set())
        if path in ("show_new_tou", "/device"):
            url = f"https://localhost:18443/terms-of-use/{rig.boot}"
            rig.cloud.control({"tou": {"version": rig.boot, "url": url}})

    def _work(self, rig, dice, phase):
        sender = Sender(rig, random.Random(dice.random()), pause_s=(0.005, 0.06),
                        bursts=(1, 1, 3, 10))
        self.version += 1
        rig.device.post_raw(json.dumps({"event-type": "pim.start", "data": {
            "pim-version": str(self.version), "pim-builddate": "2019-03-07"}}).encode())
        time.sleep(AFTER_START_S if phase == "start" else dice.uniform(*FAULT_S))
        sender.stop()

    def _recover(self, trial):
        rig = self.rig
        self._wait_for_files(trial)
        last = rig.post()  # the fault has ended: this one, too
        seconds, missing = rig.settle(RECOVERY_BOUND_S, also_stored=True)
        trial.standstill_s = max(trial.standstill_s, seconds)
        rig.judge(trial)
        # Token and version that could not be written are, when a record is made that has them.
        self.was_sent = last in rig.ledger.accepted
        if not rig.is_up():
            trial.fail(f"kivApp ended with {rig.device.process.returncode}")
        missing = self._without_refused(missing, last)
        if missing:
            trial.fail(f"not by itself within {seconds:.1f} s: {len(missing)} events")

    def _wait_for_files(self, trial):
        """Until what could not be read has been read again; each has a line for both."""
        device = self.rig.device

        def unread():
            ended = sum(device.out().count(text) for text in READABLE)
            return device.err().count(UNREADABLE) > ended

        end = time.monotonic() + READ_AGAIN_BOUND_S
        while unread() and time.monotonic() < end:
            time.sleep(0.1)
        if unread():
            trial.fail(f"consent or configuration not read again in {READ_AGAIN_BOUND_S:.0f} s")

    def _without_refused(self, missing, last):
        """Some were refused with a line each; the one after the fault's end must not be."""
        ledger = self.rig.ledger
        lines = self.rig.device.out().count(REFUSED) if missing else 0
        oldest = sorted(missing - {last}, key=lambda name: ledger.posted[name][2])[:lines]
        for name in oldest:
            ledger.refuse(name)
        self.refused += len(oldest)
        return missing - set(oldest)

    def _start_again(self, trial, path):
        rig = self.rig
        token = self._json("dbuuid.json").get("db-uuid")
        version = self._json("pimversion.json").get("pim-version")
        if version != str(self.version) and self.was_sent:
            trial.fail(f"version on file {version!r} instead of {self.version}")
        rig.stop_watching()
        rig.kill()
        rig.look_at_store(trial)
        rig.answers_were_lost()
        rig.next_boot()
        rig.start()
        rig.watch()
        seconds, missing = rig.drain(READY_BOUND_S)
        if seconds > READY_BOUND_S:
            trial.fail(f"not drained {seconds:.1f} s after the start")
        rig.judge(trial, missing)
        rig.device.wait_for_config()
        if self.was_sent and (not token or self._json("dbuuid.json").get("db-uuid") != token):
            trial.fail(f"token {self._json('dbuuid.json')} after {token!r}")
        rig.stop_watching()
        rig.kill()

    def _json(self, name):
        try:
            return json.loads((self.rig.device.folder / name).read_text())
        except (OSError, ValueError):
            return {}

    def remarks(self):
        never = [f"{call} of {path}" for path, calls in TARGETS.items() for call in calls
                 if self.hits.get((path, call)) == 0]
        return [f"{self.refused} events were refused, as the consent on file could not be read",
                f"{sum(self.hits.values())} calls failed; not called while a fault was set: "
                + (", ".join(never) or "none")]


assert all(call in CALLS for calls in TARGETS.values() for call in calls)
