"""Another process locks the store: it writes for 1, 10 and 60 s, or reads in one transaction for
minutes. No sender waits, nor one that announces a file, a reader delays nothing at all, and what does
not fit into the 512 events kept in memory meanwhile is named by an overflow record. All files
arrive."""
import contextlib
import random
import sqlite3
import subprocess
import sys
import time

import harness
from lives import MOST_WAITING, RigExperiment, Sender

RECOVERY_BOUND_S = 8.0  # from the lock's end: the last pause of the storing thread is 5 s
READ_BOUND_S = 3.0  # until an event has been sent while somebody reads
FILES = 20
FILES_BOUND_S = 75.0  # one whose upload met the lock is tried again in a minute
SENDER_BOUND_S = 1.5  # for room on the queue, or an answer: the first attempt waits for 1 s
FAILS = "kivGateway:Events are kept in memory: the store fails"
# How the store is locked, for how long, and how many events are posted meanwhile.
CASES = (("writer", 1, 100), ("reader", 3, 100), ("writer", 2, 1500), ("exclusive", 10, 3000),
         ("reader", 20, 600), ("writer", 10, 300), ("writer", 60, 2000), ("reader", 120, 2000))
HOLDER = """
import sqlite3, sys
store = sqlite3.connect(sys.argv[1], isolation_level=None, timeout=20)
store.execute(sys.argv[2])
if sys.argv[2] == "BEGIN":
    print(len(store.execute("SELECT data FROM Events").fetchall()), flush=True)
print("held", flush=True)
sys.stdin.readline()
store.execute("ROLLBACK")
"""
STATEMENTS = {"writer": "BEGIN IMMEDIATE", "exclusive": "BEGIN EXCLUSIVE", "reader": "BEGIN"}


class Locks(RigExperiment):
    name = "locks"
    says = "another process locks the store for 1 to 60 s, or reads it for 2 minutes"
    trials = len(CASES)
    quick_trials = 2

    def __init__(self, seed):
        super().__init__(seed)
        self.lines = []

    def trial(self, trial):
        kind, seconds, events = CASES[(trial.number - 1) % len(CASES)]
        rig = self.fresh_rig()
        harness.forget_system_wide_names()
        rig.next_boot()
        rig.start(watch=True)
        rig.post()
        rig.settle(READ_BOUND_S)
        self._wait_for_rest(rig)
        with self._held(kind):
            longest_s, wait_s = self._work(trial, kind, seconds, events)
        begin = time.monotonic()
        rig.post()
        missing = rig.settle(RECOVERY_BOUND_S, also_stored=True)[1]
        recovery_s = time.monotonic() - begin
        files_s = self._wait_for_files(begin)
        rig.check_files(trial)
        trial.standstill_s = max(longest_s, recovery_s)
        if wait_s > SENDER_BOUND_S:
            trial.fail(f"a sender waited {wait_s:.1f} s")
        if recovery_s > RECOVERY_BOUND_S:
            trial.fail(f"{len(missing)} events not there {recovery_s:.1f} s after the lock's end")
        if kind == "reader" and longest_s > READ_BOUND_S:
            trial.fail(f"an event was sent only after {longest_s:.1f} s")
        named = sum(rig.ledger.is_named(name) for name in rig.ledger.posted
                    if name not in rig.ledger.accepted and name not in rig.watcher.ids)
        posted = len(rig.ledger.posted)
        room = MOST_WAITING - len(rig.files)  # one event follows each announcement
        if named > max(0, posted - room):
            trial.fail(f"{named} events dropped of {posted}, {room} fit in memory")
        self.lines.append(f"{kind} {seconds} s: {posted} events, {named} named; there again after "
                          f"{recovery_s:.2f} s, {len(rig.files)} files after {files_s:.2f} s, "
                          f"a sender waited up to {wait_s * 1000:.0f} ms")
        self._finish(trial, missing)
        if trial.failures:
            trial.fail(f"{kind} {seconds} s, {events} events")

    @staticmethod
    def _wait_for_rest(rig):
        """The upload, too, is done with the store."""
        with contextlib.suppress(AssertionError):
            rig.device.wait_for_empty_store() if rig.watcher is None else None
        end = time.monotonic() + READ_BOUND_S
        while rig.watcher.ids and time.monotonic() < end:
            time.sleep(0.01)

    def _wait_for_files(self, begin):
        """Seconds since `begin` until all of them have arrived, or the bound."""
        while time.monotonic() < begin + FILES_BOUND_S and self.rig.is_up():
            arrived = {key.split("/", 1)[-1] for _, key in self.rig.cloud.objects()}
            if arrived >= set(self.rig.files):
                break
            time.sleep(0.05)
        return time.monotonic() - begin

    @contextlib.contextmanager
    def _held(self, kind):
        process = subprocess.Popen(
            [sys.executable, "-c", HOLDER, str(self.rig.device.database), STATEMENTS[kind]],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        try:
            while process.stdout.readline() != "held\n":
                if process.poll() is not None:
                    raise sqlite3.OperationalError("the lock cannot be had")
            yield
        finally:
            with contextlib.suppress(BrokenPipeError):
                process.stdin.close()
            process.stdout.close()
            process.wait()

    def _work(self, trial, kind, seconds, events):
        """(longest stand-still of the sending, longest wait of a sender) while the store is
        held. The events come in the first half of the time: some of the oldest may be dropped."""
        rig = self.rig
        end = time.monotonic() + seconds
        sender = Sender(rig, random.Random(trial.dice.random()), most_bytes=events * 310,
                        pause_s=(0, 0.8 * seconds / events * 5), bursts=(1, 3, 5, 11),
                        characters=(5, 15))  # so many that 512 are below the store's limit
        longest_s = announcing_s = 0.0
        left = FILES
        pause_s = min(0.5, 0.5 * seconds / FILES)
        while time.monotonic() < end:
            if left:
                left -= 1
                rig.announce(f"file {left}".encode())
                begin = time.monotonic()
                rig.device.send("usage.app")  # answered after the announcement was handled
                announcing_s = max(announcing_s, time.monotonic() - begin)
                time.sleep(pause_s)
            if kind != "reader":
                time.sleep(0.05)
                continue
            name = rig.post()
            begin = time.monotonic()
            while name not in rig.ledger.accepted and time.monotonic() < begin + 10:
                rig.ledger.read_cloud(rig.cloud, "kiv-eventsrc-stream-test")
                time.sleep(0.01)
            longest_s = max(longest_s, time.monotonic() - begin)
            time.sleep(0.2)
        sender.stop()
        rig.alive()
        return longest_s, max(sender.longest_wait_s, announcing_s)

    def _finish(self, trial, missing):
        rig = self.rig
        rig.judge(trial, missing)
        rig.stop_watching()
        rig.kill()
        rig.look_at_store(trial)
        rig.answers_were_lost()
        rig.next_boot()
        rig.start()
        seconds, missing = rig.drain(RECOVERY_BOUND_S)
        if seconds > RECOVERY_BOUND_S:
            trial.fail(f"not drained {seconds:.1f} s after the start")
        rig.judge(trial, missing)

    def remarks(self):
        return self.lines
