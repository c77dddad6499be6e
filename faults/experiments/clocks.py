"""The system clock starts in any year and jumps by seconds, days and years, while events are
posted, stored and sent; boot count and standby count change; time comes from the web, from the
pipe, or from both."""
import contextlib
import os
import time

import clock
import rig

import harness

BOUND_S = 30.0  # from the end of the jumps until everything is there, one restart included
RUN_S = 4.0
MOST_OFF_MS = 5000  # of the web's time
NO_DATE = {"action": "date", "kind": "missing"}


class Clocks(rig.RigExperiment):
    name = "clocks"
    says = "the clock starts in 1970, 2037, 2110 and jumps by seconds, days, years"
    how = ("a preloaded library moves the daemon's clock; restarts in other cycles; time of the "
           "web, of the pipe, of both")
    trials = 30
    quick_trials = 2
    trials_of_a_rig = 10

    def why_not_possible(self):
        return super().why_not_possible() or clock.why_not_possible()

    def rig_of_the_trial(self):
        if self.rig is None or self.used == self.trials_of_a_rig:
            rig = self.new_rig()
            self.clock = clock.Clock(rig.folder)
            self.clock.use(rig.device, self.folder)
            rig.start()
        self.used += 1
        return self.rig

    def trial(self, trial):
        rig, dice = self.rig_of_the_trial(), trial.dice
        source = dice.choice(("web", "pipe", "both"))
        if source == "pipe":
            rig.cloud.misbehave(time=NO_DATE, config="reset")
        start = dice.choice(sorted(clock.YEARS.values()))
        stored = source == "pipe" or dice.random() < 0.7  # a configuration of before, or none
        restart = {"cycle": self._cycle(rig, dice), "kill": dice.random() < 0.5}
        self.clock.set(start - int(time.time()))
        rig.restart(**restart, meanwhile=lambda: self._forget(rig, stored))
        rig.device.wait_for_config()  # without the server's yes no event is taken
        for _ in range(2):
            self._run(rig, dice, source)
            if dice.random() < 0.5:
                rig.restart(cycle=self._cycle(rig, dice), kill=dice.random() < 0.5)
        rig.cloud.control({"misbehave": None})
        begin = time.monotonic()
        if dice.random() < 0.5:  # else it stays wrong
            self.clock.set(0)
        rig.restart()
        rig.settle(trial, BOUND_S, restart=False, since=begin)
        self._look_at_times(trial)

    @staticmethod
    def _forget(rig, stored):
        if not stored:
            (rig.device.folder / "Config").unlink(missing_ok=True)

    @staticmethod
    def _cycle(rig, dice):
        boot, standby = rig.cycle
        return (boot, standby + 1) if dice.random() < 0.5 else (boot + 1, 1)

    def _run(self, rig, dice, source):
        end = time.monotonic() + RUN_S / 2
        while time.monotonic() < end:
            for _ in range(dice.choice((1, 2, 20))):
                rig.post(text="x" * dice.randrange(10, 100))
            if source != "web":
                self._tell(dice)
            self.clock.jump(dice)
            time.sleep(dice.uniform(0.02, 0.2))
            rig.device.alive()

    def _tell(self, dice):
        """The middleware's clock is as wrong as the set's own."""
        seconds = int(time.time()) + dice.choice((0, self.clock.ahead))
        with contextlib.suppress(OSError):  # nobody reads it while the web's time is known
            pipe = os.open(harness.PIPE, os.O_WRONLY | os.O_NONBLOCK)
            try:
                os.write(pipe, str(seconds * 1000).encode())
            finally:
                os.close(pipe)

    def _look_at_times(self, trial):
        """What the web has told holds in the records whatever the clock did. 0: it told nothing in
        that cycle."""
        now = time.time_ns() // 10**6 - harness.kernel_ms()
        for block in self.rig.cloud.blocks():
            for told in block.get("times", []):
                if told["src"] == "web" and told["utc"] and abs(told["utc"] - now) > MOST_OFF_MS:
                    trial.fail(f"a record's web time is off by {told['utc'] - now} ms")
                    return
