"""Signals at random moments. What ends the daemon ends it at once and leaves no child; what does
not leaves it at work. It has no orderly shutdown: what was not stored yet goes with its memory."""
import random
import signal
import time

from lives import RigExperiment, Sender

READY_BOUND_S = 5.0
END_BOUND_S = 1.0  # from the signal to the end of the process
AT_WORK_BOUND_S = 3.0  # from the signal, or the end of a stop, until everything is accounted for
STOPPED_S = (0.05, 1.0)
ENDS = (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGUSR1, signal.SIGUSR2,
        signal.SIGQUIT)
STAYS = (signal.SIGPIPE, signal.SIGCONT, signal.SIGSTOP, signal.SIGCHLD, signal.SIGWINCH,
         signal.SIGURG, signal.SIGALRM)


class Signals(RigExperiment):
    name = "signals"
    says = "signals at random moments; what does not end the daemon leaves it at work"
    trials = 130
    quick_trials = 13
    trials_of_a_rig = 26

    def __init__(self, seed):
        super().__init__(seed)
        self.longest_s = 0.0
        self.ended = {}  # name of the signal: how often it ended the daemon

    def trial(self, trial):
        if self.rig is None or self.used == self.trials_of_a_rig:
            self.fresh_rig()
        rig, dice = self.rig, trial.dice
        self.used += 1
        kind = (*STAYS, *ENDS)[trial.number % (len(STAYS) + len(ENDS))]
        rig.next_boot()
        rig.start(watch=True)
        if kind == signal.SIGALRM:  # until the first file it has its default action
            rig.announce(b"first")
            rig.wait_for_files(READY_BOUND_S)
        sender = Sender(rig, random.Random(dice.random()))
        try:
            if dice.random() < 0.3:
                rig.announce(b"x" * dice.randrange(1, 50000))
            time.sleep(dice.uniform(0.02, 0.4))
            if kind in ENDS:
                self._end(trial, kind)
            else:
                self._disturb(trial, kind)
        finally:
            sender.stop()
        if rig.is_up():
            self._check_at_work(trial, kind)
        rig.stop_watching()
        rig.kill()
        rig.look_at_store(trial)
        self._start_again(trial)
        if trial.failures:
            trial.fail(f"after {kind.name}")

    def _end(self, trial, kind):
        process = self.rig.device.process
        begin = time.monotonic()
        process.send_signal(kind)
        while process.poll() is None and time.monotonic() < begin + 10 * END_BOUND_S:
            time.sleep(0.001)
        self.rig.has_ended()
        seconds = time.monotonic() - begin
        self.longest_s = max(self.longest_s, seconds)
        if seconds > END_BOUND_S:
            trial.fail(f"ended only after {seconds:.2f} s")
        if process.poll() != -kind:
            trial.fail(f"ended with {process.poll()}")
        self.ended[kind.name] = self.ended.get(kind.name, 0) + 1
        self.rig.check_no_child_left(trial)

    def _disturb(self, trial, kind):
        process = self.rig.device.process
        for _ in range(trial.dice.choice((1, 1, 5))):
            process.send_signal(kind)
            if kind == signal.SIGSTOP:
                time.sleep(trial.dice.uniform(*STOPPED_S))
                process.send_signal(signal.SIGCONT)
        time.sleep(0.05)

    def _check_at_work(self, trial, kind):
        rig = self.rig
        rig.post()
        seconds, missing = rig.settle(AT_WORK_BOUND_S)
        missing -= rig.may_be_gone(missing)
        trial.standstill_s = max(trial.standstill_s, seconds)
        if not rig.is_up():
            trial.fail(f"{kind.name} ended it with {rig.device.process.returncode}")
        elif missing:
            trial.fail(f"{len(missing)} events not sent {seconds:.1f} s after {kind.name}")
        rig.judge(trial)

    def _start_again(self, trial):
        rig = self.rig
        rig.answers_were_lost()
        rig.next_boot()
        rig.start()
        seconds, missing = rig.drain(READY_BOUND_S)
        if seconds > READY_BOUND_S:
            trial.fail(f"not drained {seconds:.1f} s after the start")
        rig.judge(trial, missing)
        rig.wait_for_files(READY_BOUND_S)
        rig.stop_watching()
        rig.kill()
        rig.check_files(trial)

    def remarks(self):
        ended = ", ".join(f"{name} {count}" for name, count in sorted(self.ended.items()))
        return [f"ended by {ended}; the longest end took {self.longest_s:.3f} s"]
