"""Ten kills in a row during start, while events come in and files are sent, then a good start."""
import random
import time

from lives import RigExperiment, Sender

READY_BOUND_S = 5.0  # from the good start until everything is accounted for
KILLS = 10
START_S = 0.3  # a kill comes within so long after its start
MOST_BYTES = 3000  # posted during one start


class KillStart(RigExperiment):
    name = "killstart"
    says = "ten kills in a row during start, then a good one; everything is there"
    trials = 40
    quick_trials = 3
    trials_of_a_rig = 10

    def trial(self, trial):
        if self.rig is None or self.used == self.trials_of_a_rig:
            self.fresh_rig()
        rig, dice = self.rig, trial.dice
        self.used += 1
        self._leave_something(rig, dice)
        for _ in range(KILLS):
            self._kill_a_start(rig, dice)
            rig.check_no_child_left(trial)
        rig.look_at_store(trial)
        rig.cloud.misbehave(firehose=None, s3=None)
        rig.answers_were_lost()
        rig.next_boot()
        rig.start()
        seconds, missing = rig.drain(READY_BOUND_S)
        trial.standstill_s = max(trial.standstill_s, seconds)
        if seconds > READY_BOUND_S:
            trial.fail(f"not drained {seconds:.1f} s after the start")
        rig.judge(trial, missing)
        rig.wait_for_files(READY_BOUND_S)
        rig.stop_watching()
        rig.kill()
        rig.check_files(trial)

    @staticmethod
    def _leave_something(rig, dice):
        """Events that no upload has taken, and a file."""
        rig.cloud.misbehave(firehose="refuse", s3="hang")
        rig.next_boot()
        rig.start(watch=True)
        for _ in range(dice.randrange(1, 60)):
            rig.post()
        rig.announce(b"x" * dice.randrange(1, 20000))
        rig.settle(5, also_stored=True)
        rig.stop_watching()
        rig.kill()
        if dice.random() < 0.7:
            rig.cloud.misbehave(firehose=None, s3=None)

    @staticmethod
    def _kill_a_start(rig, dice):
        rig.answers_were_lost()
        rig.next_boot()
        if dice.random() < 0.4 and rig.device.config():
            rig.device.change_config(**{"UTC-Time": int(time.time()) - 90000})
        rig.start(ready=False, watch=True)
        sender = Sender(rig, random.Random(dice.random()), most_bytes=MOST_BYTES)
        time.sleep(dice.uniform(0, START_S))
        rig.watcher.stop()
        rig.kill()
        sender.stop()
        rig.stop_watching()
