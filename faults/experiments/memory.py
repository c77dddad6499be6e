"""A limit on the daemon's memory, for a while or from the start. It may die of it or live, but it
loses nothing that was stored and never hangs; where it lives it goes on by itself afterwards."""
import random
import resource
import time

from lives import RigExperiment, Sender

# From the limit's end until everything is accounted for: missing threads are tried again every 10 s.
RECOVERY_BOUND_S = 18.0
READY_BOUND_S = 5.0
START_BOUND_S = 10.0  # until a start with too little memory is up or has ended
LIMITS = {"address space": resource.RLIMIT_AS, "data": resource.RLIMIT_DATA}
# Bytes beyond what it has; a thread takes 8 MiB of address space.
ROOM = (0, 4096, 65536, 262144, 1 << 20, 4 << 20, 12 << 20)
AT_START = {"address space": (20 << 20, 240 << 20), "data": (1 << 19, 60 << 20)}
UNLIMITED = (resource.RLIM_INFINITY, resource.RLIM_INFINITY)


class Memory(RigExperiment):
    name = "memory"
    says = "a limit on memory, for a while or from the start; dies or lives, loses nothing stored"
    trials = 80
    quick_trials = 6
    trials_of_a_rig = 20

    def __init__(self, seed):
        super().__init__(seed)
        self.died = self.lived = 0

    def trial(self, trial):
        if self.rig is None or self.used == self.trials_of_a_rig:
            self.fresh_rig()
        rig, dice = self.rig, trial.dice
        self.used += 1
        rig.next_boot()
        if dice.random() < 0.5 and rig.device.config():
            rig.device.change_config(**{"UTC-Time": int(time.time()) - 90000})
        what = dice.choice(tuple(LIMITS))
        at_start = dice.random() < 0.3
        (self._limit_a_start if at_start else self._limit_a_run)(trial, what)
        alive = rig.is_up()
        self.lived += alive
        self.died += not alive
        if alive:
            resource.prlimit(rig.device.process.pid, LIMITS[what], UNLIMITED)
            self._check_recovery(trial)
        rig.stop_watching()
        rig.kill()
        rig.check_no_child_left(trial)
        rig.look_at_store(trial)
        self._start_again(trial)
        if trial.failures:
            trial.fail(f"{what} {'at the start' if at_start else 'while running'}; "
                       f"{'lived' if alive else 'died'}")

    def _limit_a_start(self, trial, what):
        """Through a shell's limit: that counts before the first instruction."""
        rig = self.rig
        size = trial.dice.randrange(*AT_START[what])
        option = "--as" if what == "address space" else "--data"
        rig.device.launcher = ["prlimit", f"{option}={size}:unlimited"]
        try:
            rig.start(ready=False)
        finally:
            rig.device.launcher = []
        end = time.monotonic() + START_BOUND_S
        while rig.is_up() and not rig.device.queue_exists() and time.monotonic() < end:
            time.sleep(0.005)
        if not rig.is_up():
            rig.has_ended()
            return
        rig.watch()
        self._work(trial.dice)

    def _limit_a_run(self, trial, what):
        rig, dice = self.rig, trial.dice
        rig.start(watch=True)
        rig.post()
        rig.settle(RECOVERY_BOUND_S)
        pid = rig.device.process.pid
        used = _used(pid, "VmSize" if what == "address space" else "VmData")
        limit = used + dice.choice(ROOM)
        resource.prlimit(pid, LIMITS[what], (limit, resource.RLIM_INFINITY))
        self._work(dice)

    def _work(self, dice):
        rig = self.rig
        sender = Sender(rig, random.Random(dice.random()), pause_s=(0.001, 0.04),
                        bursts=(1, 3, 20, 60))
        end = time.monotonic() + dice.uniform(0.3, 0.8)
        while rig.is_up() and time.monotonic() < end:
            time.sleep(0.005)
        sender.stop()
        if not rig.is_up():
            rig.has_ended()

    def _check_recovery(self, trial):
        rig = self.rig
        try:
            rig.post(limit_s=RECOVERY_BOUND_S)
        except AssertionError as error:
            trial.fail(f"after the limit's end: {error}")
            return
        seconds, missing = rig.settle(RECOVERY_BOUND_S, also_stored=True)
        trial.standstill_s = max(trial.standstill_s, seconds)
        missing -= rig.may_be_gone(missing)
        if not rig.is_up():
            trial.fail(f"ended with {rig.device.process.returncode} after the limit's end")
        else:
            self._refused(missing)
            if missing - rig.ledger.refused:
                trial.fail(f"not by itself within {seconds:.1f} s: "
                           f"{len(missing - rig.ledger.refused)} events")
        rig.judge(trial)

    def _refused(self, missing):
        """An event that the daemon could not handle for want of memory has its line; which event
        that was it does not say."""
        lines = sum(self.rig.device.errors_beginning(text) for text in REFUSALS)
        for name in sorted(missing - self.rig.ledger.committed.keys())[:lines]:
            self.rig.ledger.refuse(name)

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

    def remarks(self):
        return [f"{self.died} died of it, {self.lived} lived"]


# A message that cannot be parsed for want of memory is taken for one that is broken.
REFUSALS = ("kivGateway:Message could not be handled", "kivGateway:Event could not be handled",
            "kivGateway:Message could not be received", "kivGateway:Invalid JSON object")


def _used(pid, name):
    with open(f"/proc/{pid}/status") as status:
        return next(int(line.split()[1]) << 10 for line in status if line.startswith(name + ":"))
