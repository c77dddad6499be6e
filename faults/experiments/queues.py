"""No queue at the start: the user's limit is reached, or the kernel has no queues yet. The
receiving thread comes back by itself, 10 s after its first failure, then after 20 s."""
import errno
import resource
import time

import callfaults
import harness
from callfaults import FOR_EVER, CallFaults
from lives import RigExperiment

RECOVERY_BOUND_S = 5.0
FIRST_PAUSE_S = 10.0
SLACK_S = 1.5
# (what fails, when it ends, seconds after the start when the thread tries again)
CASES = (("limit", 3.0, FIRST_PAUSE_S), (errno.ENOSYS, 2.0, FIRST_PAUSE_S),
         ("limit", 13.0, 3 * FIRST_PAUSE_S), (errno.EACCES, 2.0, FIRST_PAUSE_S))


class Queues(RigExperiment):
    name = "queues"
    says = "the user's limit of queues is reached, or there are none, at the start; comes back"
    trials = 4
    quick_trials = 1

    def __init__(self, seed):
        super().__init__(seed)
        self.back = []  # seconds after the start

    def why_not_possible(self):
        return callfaults.why_not_possible()

    def trial(self, trial):
        what, until_s, back_s = CASES[(trial.number - 1) % len(CASES)]
        rig = self.fresh_rig()
        rig.next_boot()
        rig.device.launcher, faults = [], None
        if what == "limit":
            rig.device.launcher = ["prlimit", "--msgqueue=0:"]
        else:
            faults = CallFaults(self.folder)
            rig.device.environment.update(faults.environment)
            faults.arm("queue", error=what, last=FOR_EVER)
        harness.forget_system_wide_names()
        rig.start(ready=False)
        time.sleep(until_s)
        rig.alive()
        if rig.device.queue_exists():
            trial.fail("there is a queue in spite of the fault")
        if faults:
            faults.disarm()
        else:
            most = resource.getrlimit(resource.RLIMIT_MSGQUEUE)[1]
            resource.prlimit(rig.device.process.pid, resource.RLIMIT_MSGQUEUE, (most, most))
        while rig.is_up() and rig.uptime_s() < back_s + SLACK_S + RECOVERY_BOUND_S:
            if rig.device.queue_exists():
                break
            time.sleep(0.02)
        seconds = rig.uptime_s()
        self.back.append(seconds)
        trial.standstill_s = seconds
        if seconds > back_s + SLACK_S:
            trial.fail(f"no queue {seconds:.1f} s after the start, although the fault ended "
                       f"after {until_s} s")
            return
        rig.watch()
        for _ in range(50):
            rig.post()
        missing = rig.settle(RECOVERY_BOUND_S)[1]
        rig.judge(trial, missing)
        rig.alive()

    def remarks(self):
        return ["queue there after " + ", ".join(f"{seconds:.1f} s" for seconds in self.back)]
