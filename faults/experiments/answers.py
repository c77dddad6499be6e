"""Two or three targets misbehave at once, in another way every second, while events are posted."""
import contextlib
import os
import pathlib
import socket
import subprocess
import time

import rig

BOUND_S = 30.0  # from the end until everything is there, one restart included
PATIENT_BOUND_S = 200.0  # without a restart: 120 s of a request, 60 s of the pause after it
MISBEHAVE_S = 12
RESTARTED = 0.6  # of the seconds begin with a start, which asks for everything
PATIENT_TRIAL = 8  # this one has no restart

COMMON = [{"action": name} for name in (
    "refuse", "server-error", "not-json", "empty-object", "long-text", "portal", "redirect",
    "huge", "hang", "reset", "cut", "drip", "trickle")] + [
    {"action": "huge", "length": False}, {"action": "huge", "part": "headers"},
    {"action": "trickle", "part": "headers"}, {"action": "hang", "after": 10},
    {"action": "answer", "body": ""}, {"action": "answer", "body": "null"},
    {"action": "status", "status": 404}, {"action": "status", "status": 503},
    {"action": "date", "kind": "years-ahead"}, {"action": "date", "kind": "before-1970"},
    {"action": "date", "kind": "beyond-31-bits"}, {"action": "date", "kind": "beyond-32-bits"},
    {"action": "date", "kind": "missing"}]
PROCESSED = [{"action": "hang", "processed": True}, {"action": "reset", "processed": True}]
OWN = {
    "config": [{"action": "expired"}, {"action": "error-answer"}],
    "tou": [{"action": "error-answer"}],
    "time": [{"action": "error-answer"}],
    "geo": [{"action": "error-answer"}, {"action": "long-city"}],
    "firehose": PROCESSED + [{"action": "no-record-id", "form": form, "processed": processed}
                             for form in ("json", "empty", "html", "broken", "nothing")
                             for processed in (False, True)],
    "s3": PROCESSED + [{"action": "no-etag", "processed": processed}
                       for processed in (False, True)],
}
CERTIFICATES = [{"action": "certificate", "kind": kind}
                for kind in ("untrusted", "expired", "too-new", "other-host")]
EVERYTHING = [(target, action) for target, own in OWN.items() for action in COMMON + own] + [
    ("https", action) for action in CERTIFICATES + [{"action": "hang"}, {"action": "reset"}]]


class NameServer:
    """Takes every question and answers none, or is not there at all."""

    def __init__(self, folder, silent):
        self._socket = None
        if silent:
            self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            self._socket.bind(("127.0.0.53", 53))
        self._place = os.path.realpath("/etc/resolv.conf")
        text = pathlib.Path(folder) / "resolv.conf"
        text.write_text("nameserver 127.0.0.53\n")
        subprocess.run(["mount", "--bind", str(text), self._place], check=True)

    def close(self):
        if self._socket is not None:
            self._socket.close()
        subprocess.run(["umount", self._place], check=True)


class Answers(rig.RigExperiment):
    name = "answers"
    says = "two or three targets of the cloud misbehave at once, in another way every second"
    how = "the local cloud's actions by dice, name service dead or silent in one trial of four"
    trials = 14
    quick_trials = 1
    trials_of_a_rig = 7

    def __init__(self, seed):
        super().__init__(seed)
        self.met = {}  # action: requests that met it

    def trial(self, trial):
        rig, dice = self.rig_of_the_trial(), trial.dice
        with contextlib.ExitStack() as end:
            if trial.number % 4 == 3:
                self._lose_names(rig, dice, end)
            begin = time.monotonic()
            while time.monotonic() < begin + MISBEHAVE_S:
                rig.cloud.control({"misbehave": None})
                told = dict(dice.sample(EVERYTHING, dice.choice((2, 3))))
                rig.cloud.control({"misbehave": told})
                if dice.random() < RESTARTED:  # a pause after a failure ends with the run
                    rig.restart(kill=dice.random() < 0.5)
                self._post_for_a_second(rig, dice)
                rig.device.alive()
        rig.cloud.control({"misbehave": None})
        begin = time.monotonic()
        self._count()
        if trial.number % 4 == 3:  # the names lie in the configuration
            rig.restart(meanwhile=lambda: rig.device.write_config(**rig.members))
        if trial.number == PATIENT_TRIAL:
            rig.settle(trial, PATIENT_BOUND_S, restart=self._is_expired(rig),
                       since=begin)
        else:
            rig.settle(trial, BOUND_S, since=begin)
        rig.no_child_is_left(trial)

    def _lose_names(self, rig, dice, end):
        names = NameServer(rig.folder, silent=dice.random() < 0.5)
        end.callback(names.close)
        lost = {f"{target}_endpoint": f"https://{target}.kiv.example:18443"
                for target in ("firehose", "s3")}
        rig.restart(meanwhile=lambda: rig.device.write_config(**rig.members, **lost))

    @staticmethod
    def _is_expired(rig):
        """Then the stated pause is ten minutes."""
        return rig.device.config().get("expiry_tou") == 0

    def _post_for_a_second(self, rig, dice):
        end = time.monotonic() + 1
        while time.monotonic() < end:
            for _ in range(dice.choice((1, 1, 2, 30))):
                rig.post(text="x" * dice.randrange(10, 300))
            if dice.random() < 0.1:
                rig.announce(f"file.{len(rig.ledger.posted)}", dice.randbytes(1000))
            time.sleep(dice.uniform(0.02, 0.2))

    def _count(self):
        for entry in self.rig.cloud.requests():
            action = entry.get("misbehaviour", {}).get("action")
            if action:
                self.met.setdefault((entry["target"], action), 0)
                self.met[entry["target"], action] += 1

    def remarks(self):
        return [*super().remarks(),
                f"requests met {len(self.met)} pairs of target and misbehaviour"]
