"""Messages that nobody should write, at full speed, and good events between them."""
import sys

import rig
from mutations import mutated

sys.setrecursionlimit(20000)  # to read deep events back

MESSAGES = 1300  # of a trial
GOOD_EVERY = 50
BOUND_S = 30.0  # from the last message until every good event is there
WARM_TRIALS = 10  # of a rig; what memory it has then is the measure
MOST_GROWTH_KIB = 6144
MOST_ERROR_BYTES = 900  # a message, on average


class Messages(rig.RigExperiment):
    name = "messages"
    says = "130 000 mutated messages at full speed, good events between them"
    how = "bytes changed, cut, nested, numbers, keys twice, odd UTF-8, wrong types, hostile names"
    trials = 100
    quick_trials = 5
    trials_of_a_rig = 50

    def __init__(self, seed):
        super().__init__(seed)
        self.memory = []  # KiB after each trial of the rig
        self.growth = 0

    def trial(self, trial):
        rig, dice = self.rig_of_the_trial(), trial.dice
        if self.used == 1:
            self.memory = []
        err = rig.device.err_path
        before = err.stat().st_size
        for number in range(MESSAGES):
            if not rig.put(mutated(dice)):
                trial.fail(f"no room on the queue for 10 s at message {number}")
                break
            if number % GOOD_EVERY == 0:
                rig.post(text="good")
        rig.settle(trial, BOUND_S, restart=False)
        each = (err.stat().st_size - before) / MESSAGES
        if each > MOST_ERROR_BYTES:
            trial.fail(f"{each:.0f} bytes of error lines for each message")
        self._look_at_memory(trial)

    def _look_at_memory(self, trial):
        descriptors, threads, memory = self.rig.footprint()
        self.memory.append(memory)
        if len(self.memory) > WARM_TRIALS:
            growth = memory - max(self.memory[:WARM_TRIALS])
            self.growth = max(self.growth, growth)
            if growth > MOST_GROWTH_KIB:
                trial.fail(f"memory grew by {growth} KiB: {self.memory}")
        if descriptors > 40 or threads > 20:
            trial.fail(f"{descriptors} descriptors, {threads} threads")

    def remarks(self):
        return [*super().remarks(),
                f"memory after the first {WARM_TRIALS} trials grew by at most {self.growth} KiB"]
