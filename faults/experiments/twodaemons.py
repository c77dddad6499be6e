"""A second daemon is started on the store of the first: it says in a line which process has the
store, and ends with a status of its own; with the queue of the first, or one of its own (of another
IPC namespace). The first loses nothing and sends nothing twice. Then it is killed, and a daemon that
is started at once has the store."""
import random
import shutil
import subprocess
import time

import harness
from lives import RigExperiment, Sender

SETTLE_BOUND_S = 8.0
READY_BOUND_S = 5.0
END_BOUND_S = 6.0  # it waits 2 s for a daemon that may be ending
RUN_S = (0.2, 1.0)
STORE_IN_USE = 3  # the exit status


class TwoDaemons(RigExperiment):
    name = "twodaemons"
    says = "a second daemon on a store ends with its line; the first loses and repeats nothing"
    trials = 20
    quick_trials = 2
    trials_of_a_rig = 5

    def __init__(self, seed):
        super().__init__(seed)
        self.second = None
        self.errors = None  # the file with its lines

    def trial(self, trial):
        if self.rig is None or self.used == self.trials_of_a_rig:
            self.fresh_rig()
        rig, dice = self.rig, trial.dice
        self.used += 1
        own_queue = trial.number % 2 == 0 and bool(shutil.which("unshare"))
        rig.next_boot()
        if dice.random() < 0.3:  # the first makes the store
            for path in rig.device.folder.glob("Db*"):
                path.unlink()
            rig.ledger.see_store(set())
        rig.start()
        if dice.random() < 0.5:
            time.sleep(dice.uniform(0, 0.3))
        rig.watch()
        sender = Sender(rig, random.Random(dice.random()))
        self._start_second(own_queue)
        self._judge_second(trial)
        time.sleep(dice.uniform(*RUN_S))
        sender.stop()
        seconds, missing = rig.settle(SETTLE_BOUND_S, also_stored=True)
        trial.standstill_s = max(trial.standstill_s, seconds)
        if rig.device.process.poll() is not None:
            trial.fail(f"the first ended with {rig.device.process.returncode}")
        rig.judge(trial, missing)
        rig.stop_watching()
        rig.kill()
        rig.look_at_store(trial)
        self._start_again(trial)
        if trial.failures:
            trial.fail("two queues" if own_queue else "one queue")

    def _start_second(self, own_queue):
        device = self.rig.device
        out, self.errors = (device.logs / f"second.{name}.{device.runs}" for name in ("out", "err"))
        before = ["unshare", "--ipc"] if own_queue else []
        with open(out, "w") as out, open(self.errors, "w") as err:
            self.second = subprocess.Popen(
                [*before, str(harness.BUILD / "kivApp"), "-g", "GlobalInfo", "-b", "BootInfo",
                 "-c", f"{device.folder}/Config", "-e", str(device.database),
                 "-t", f"{device.folder}/"],
                cwd=device.folder, env=device.environment, stdout=out, stderr=err)

    def _judge_second(self, trial):
        device = self.rig.device
        try:
            status = self.second.wait(END_BOUND_S)
        except subprocess.TimeoutExpired:
            trial.fail(f"the second runs after {END_BOUND_S:.0f} s")
            self._end_second()
            return
        line = f"Database {device.database} is in use by process {device.process.pid}\n"
        if status != STORE_IN_USE:
            trial.fail(f"the second ended with {status}")
        if line not in self.errors.read_text():
            trial.fail(f"the second said {self.errors.read_text()!r}")

    def _end_second(self):
        if self.second is not None and self.second.poll() is None:
            self.second.kill()
            self.second.wait()
        self.second = None

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
