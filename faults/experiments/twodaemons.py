"""Two daemons on one store: they share the queue, or the second has one of its own (of another IPC
namespace). Every event is sent by one of them. A row that both have read is sent by both: such
copies no client of one store can avoid; they are counted."""
import contextlib
import json
import random
import shutil
import subprocess
import time

import harness
from lives import RigExperiment, Sender

SETTLE_BOUND_S = 8.0
READY_BOUND_S = 5.0
RUN_S = (1.0, 2.0)


class TwoDaemons(RigExperiment):
    name = "twodaemons"
    says = "two daemons on one store, with one queue or two; copies are counted as repeated"
    trials = 20
    quick_trials = 2
    trials_of_a_rig = 5

    def __init__(self, seed):
        super().__init__(seed)
        self.second = None
        self.copies = {True: 0, False: 0}

    def trial(self, trial):
        if self.rig is None or self.used == self.trials_of_a_rig:
            self.fresh_rig()
        rig, dice = self.rig, trial.dice
        self.used += 1
        own_queue = trial.number % 2 == 0 and bool(shutil.which("nsenter"))
        rig.next_boot()
        if dice.random() < 0.3:  # both make the store
            for path in rig.device.folder.glob("Db*"):
                path.unlink()
            rig.ledger.see_store(set())
        rig.start(ready=False)
        if dice.random() < 0.5:
            time.sleep(dice.uniform(0, 0.3))
        self._start_second(own_queue)
        harness.wait_until(rig.device.queue_exists, "the message queue")
        rig.watch()
        sender = Sender(rig, random.Random(dice.random()))
        end = time.monotonic() + dice.uniform(*RUN_S)
        while time.monotonic() < end:
            if own_queue:
                self._post_to_second(dice.choice((1, 5, 30)))
            time.sleep(0.05)
        sender.stop()
        seconds, missing = rig.settle(SETTLE_BOUND_S, also_stored=True)
        trial.standstill_s = max(trial.standstill_s, seconds)
        for which, process in (("first", rig.device.process), ("second", self.second)):
            if process.poll() is not None:
                trial.fail(f"the {which} ended with {process.returncode}")
        self._end_second()
        rig.stop_watching()
        rig.kill()
        harness.forget_system_wide_names()
        self._judge_copies(trial, own_queue)
        rig.judge(trial, missing)
        rig.look_at_store(trial)
        self._start_again(trial)
        if trial.failures:
            trial.fail("two queues" if own_queue else "one queue")

    def _start_second(self, own_queue):
        device = self.rig.device
        out, err = (open(device.logs / f"second.{name}.{device.runs}", "w")
                    for name in ("out", "err"))
        before = ["unshare", "--ipc"] if own_queue else []
        with out, err:
            self.second = subprocess.Popen(
                [*before, str(harness.BUILD / "kivApp"), "-g", "GlobalInfo", "-b", "BootInfo",
                 "-c", f"{device.folder}/Config", "-e", str(device.database),
                 "-t", f"{device.folder}/"],
                cwd=device.folder, env=device.environment, stdout=out, stderr=err)

    def _post_to_second(self, count):
        """Through kivsend, within the second one's namespace."""
        rig = self.rig
        names, lines = [], []
        for _ in range(count):
            name, message = rig.ledger.event("usage.epg", (rig.boot, 1))
            names.append(name)
            lines.append(json.dumps(json.loads(message)) + "\n")
        done = subprocess.run(
            ["nsenter", f"--ipc=/proc/{self.second.pid}/ns/ipc", "--",
             str(harness.BUILD / "tools/kivsend")], input="".join(lines), text=True,
            capture_output=True, timeout=harness.LIMIT_S)
        if done.returncode != 0:  # there is no queue yet, or some lines had been sent before
            for name in names:
                rig.ledger.forget(name)

    def _end_second(self):
        if self.second is not None and self.second.poll() is None:
            self.second.kill()
            self.second.wait()
        self.second = None

    def _judge_copies(self, trial, own_queue):
        rig = self.rig
        rig.answers_were_lost()
        with contextlib.suppress(KeyError):
            copies = {name for name, records in rig.ledger.accepted.items() if len(records) > 1}
            self.copies[own_queue] += len(copies - rig.ledger.repeated)
            for name in copies:
                rig.ledger.allowed[name] = len(rig.ledger.accepted[name])

    def _start_again(self, trial):
        rig = self.rig
        rig.answers_were_lost()
        rig.next_boot()
        rig.start()
        seconds, missing = rig.drain(READY_BOUND_S)
        if seconds > READY_BOUND_S:
            trial.fail(f"not drained {seconds:.1f} s after the start")
        rig.judge(trial, missing)
        rig.stop_watching()
        rig.kill()

    def stop(self):
        self._end_second()
        super().stop()

    def remarks(self):
        return [f"copies that two uploads made: {self.copies[False]} with one queue, "
                f"{self.copies[True]} with two"]
