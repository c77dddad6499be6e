"""kill -9 at each system call of a thread in turn, over a scripted run.

A first run without a fault counts the calls of each thread; each trial is killed in the place of
another one of them. The trials take every call once before any comes again, in an order that is
spread over the run. Which call has a number differs a little from run to run: threads wait.
"""
import math
import time

import callfaults
from callfaults import FOR_EVER, CallFaults
from lives import RigExperiment

READY_BOUND_S = 5.0  # from the start after the kill until everything is accounted for
SCRIPT_S = 6.0
EVENTS = 26
ROUNDS = (12, 13)  # after these of them the storing thread gets its time
FLOOD = 700  # events; above the store's limit
# (what is done, thread): the storing thread is measured without its idle end.
PARTS = (("usual", "GatewayLogThread"), ("usual", "UploadThread"), ("usual", "main"),
         ("flood", "GatewayLogThread"), ("flood", "DBPruneAboveSizeThread"))


class KillCall(RigExperiment):
    name = "killcall"
    says = "kill -9 at each system call of the threads that store, upload, prune and start"
    trials = 500
    quick_trials = 8
    trials_of_a_rig = 40

    def __init__(self, seed):
        super().__init__(seed)
        self.faults = None
        self.places = []  # (script, thread, number of its call)
        self.counts = {}
        self.hit = {}  # kind of call: how often
        self.completed = {}  # part: runs that were done before their call came

    def why_not_possible(self):
        return callfaults.why_not_possible()

    def _rig_with_faults(self):
        self.fresh_rig()
        if self.faults is None:
            self.faults = CallFaults(self.folder)
        self.preload()

    def preload(self):
        self.rig.device.environment.update(self.faults.environment)

    def trial(self, trial):
        if self.rig is None or self.used == self.trials_of_a_rig:
            self._rig_with_faults()
        self.used += 1
        if not self.places:
            self._count_calls(trial)
        script, thread, number = self._place(trial.number)
        self._run(script, thread, number)
        self._after(trial, f"{script}, {thread}, call {number}")

    def _count_calls(self, trial):
        for script, thread in PARTS:
            self._run(script, thread, FOR_EVER)
            self.counts[script, thread] = self.faults.count
            self._after(trial, f"{script}, {thread}, no fault")
        self.completed.clear()
        for (script, thread), count in self.counts.items():
            self.places += [(script, thread, number)
                            for number in range(1, count + 1)]

    def _place(self, number):
        total = len(self.places)
        step = next(step for step in range(int(0.618 * total), total + 2)
                    if math.gcd(step, total) == 1)
        return self.places[number * step % total]

    def _run(self, script, thread, number):
        rig = self.rig
        rig.answers_were_lost()
        rig.next_boot()
        if rig.device.config():
            rig.device.change_config(**{"UTC-Time": int(time.time()) - 90000})
        if script == "flood":
            rig.cloud.misbehave(firehose="refuse")
        self.faults.arm(first=number, thread=thread)
        rig.start(ready=False)
        rig.watch()
        self._script(rig, FLOOD if script == "flood" else EVENTS, script == "flood")
        rig.watcher.stop()
        self.faults.disarm()
        kind = self.faults.last.split(" ")[0]
        if self.faults.hits:
            self.hit[kind] = self.hit.get(kind, 0) + 1
            rig.device.process.wait()
        else:
            self.completed[script, thread] = self.completed.get((script, thread), 0) + 1
        rig.kill()
        rig.stop_watching()
        rig.cloud.misbehave(firehose=None)

    @staticmethod
    def _script(rig, events, is_flood):
        """Until the daemon has ended or has done it all."""
        end = time.monotonic() + SCRIPT_S

        class Ended:
            @staticmethod
            def is_set():
                return not rig.is_up() or time.monotonic() > end

        for number in range(events):
            rig.post("x" * 300, stopped=Ended)
            if not is_flood and number in ROUNDS:
                time.sleep(0.22)  # the storing thread's rest: each round is a transaction
        if not is_flood and rig.is_up():
            rig.announce(b"content of a file")
        while not Ended.is_set():
            if is_flood and any('"logging.overflow"' in text for text in rig.watcher.texts):
                break
            if not is_flood and not rig.missing() and rig.watcher.ids == set() and \
                    rig.files.keys() <= {key.split("/", 1)[-1]
                                         for _, key in rig.cloud.objects()}:
                break
            time.sleep(0.01)

    def _after(self, trial, place):
        rig = self.rig
        before = len(trial.failures)
        rig.check_no_child_left(trial)
        rig.look_at_store(trial)
        rig.answers_were_lost()
        rig.next_boot()
        rig.start()
        seconds, missing = rig.drain(READY_BOUND_S)
        trial.standstill_s = max(trial.standstill_s, seconds)
        if seconds > READY_BOUND_S:
            trial.fail(f"not drained {seconds:.1f} s after the start")
        rig.judge(trial, missing)
        rig.wait_for_files(READY_BOUND_S)
        rig.check_files(trial)
        rig.stop_watching()
        rig.kill()
        if len(trial.failures) > before:
            trial.fail(f"killed at: {place}: {self.faults.last}")

    def remarks(self):
        counted = ", ".join(f"{script} {thread} {count}" for (script, thread), count
                            in self.counts.items())
        late = ", ".join(f"{script} {thread} {count}" for (script, thread), count
                         in self.completed.items() if (script, thread) in self.counts)
        hit = ", ".join(f"{kind} {count}" for kind, count in sorted(self.hit.items()))
        return [f"calls of a run: {counted}", f"killed at: {hit}",
                f"runs that were done before their call came: {late or 0}"]
