"""kill -9 at random moments: while events are stored, sent and deleted, files are sent, the
configuration is fetched anew, and during starts. The daemon is started again on the same folder."""
import random
import time

from lives import RigExperiment, Sender

READY_BOUND_S = 5.0  # from a start until everything that was left is accounted for
STARTS = 0.2  # of the kills come within a start


class Kill(RigExperiment):
    name = "kill"
    says = "kill -9 at a random moment; no event stored is lost, no child is left behind"
    trials = 500
    quick_trials = 15
    trials_of_a_rig = 50
    settle_each = 10  # trials: otherwise the next start comes at once

    def __init__(self, seed):
        super().__init__(seed)
        self.young_s = 0.0
        self.posted = self.gone = self.files = 0

    def trial(self, trial):
        if self.rig is None or self.used == self.trials_of_a_rig:
            self.fresh_rig()
        rig, dice = self.rig, trial.dice
        self.used += 1
        self._prepare(rig, dice)
        rig.start(ready=False)
        rig.watch()
        sender = Sender(rig, random.Random(dice.random()))
        try:
            self._wait_for_the_moment(rig, dice)
            rig.alive()
        finally:
            rig.watcher.stop()  # what it has seen by now was committed by now
            rig.kill()
            sender.stop()
            rig.stop_watching()
        rig.check_no_child_left(trial)
        rig.cloud.misbehave(firehose=None, s3=None)
        rig.look_at_store(trial)
        if self.used % self.settle_each == 0 or self.used == self.trials_of_a_rig:
            self.finish(trial)
        else:
            rig.judge(trial)

    @staticmethod
    def _prepare(rig, dice):
        rig.answers_were_lost()
        rig.next_boot()
        if dice.random() < 0.4 and rig.device.config():  # old enough to be fetched anew
            rig.device.change_config(**{"UTC-Time": int(time.time()) - 90000})
        mood = dice.random()
        if mood < 0.1:
            rig.cloud.misbehave(firehose="refuse")
        elif mood < 0.2:
            rig.cloud.misbehave(firehose={"action": "hang", "processed": True})
        elif mood < 0.35:  # a child is at work for as long as the daemon lives
            rig.cloud.misbehave(s3={"action": "hang", "processed": dice.random() < 0.5})

    @staticmethod
    def _wait_for_the_moment(rig, dice):
        if dice.random() < STARTS:
            time.sleep(dice.uniform(0, 0.12))
            return
        if dice.random() < 0.4:
            rig.announce(bytes(dice.randrange(256) for _ in range(dice.choice((10, 5000, 60000)))))
        time.sleep(dice.uniform(0.02, 0.4))
        if dice.random() < 0.4:  # when a transaction has just been seen
            rig.watcher.wait_for_change(limit_s=0.2)

    def finish(self, trial):
        """A start that is left alone: everything arrives."""
        rig = self.rig
        if rig is None:
            return
        rig.answers_were_lost()
        rig.next_boot()
        rig.start()
        seconds, missing = rig.drain(READY_BOUND_S)
        trial.standstill_s = max(trial.standstill_s, seconds)
        if seconds > READY_BOUND_S:
            trial.fail(f"not drained {seconds:.1f} s after the start")
        rig.stop_watching()
        rig.judge(trial, missing)
        rig.wait_for_files(READY_BOUND_S)
        rig.kill()
        rig.check_files(trial)
        rig.look_at_store(trial)

    def stop(self):
        if self.rig is not None:
            self.young_s = max(self.young_s, self.rig.young_s)
            self.posted += len(self.rig.ledger.posted)
            self.gone += len(self.rig.gone)
            self.files += len(self.rig.files)
        super().stop()

    def remarks(self):
        return [f"{self.posted} events, {self.files} files; {self.gone} events were in the memory "
                f"of a daemon that was killed, posted up to {self.young_s:.2f} s before"]
