"""A set of its own for a whole-program test: device files, local cloud, kivApp, kivsend.

Programs come from the build folder in $KIV_BUILD. Everything else is in a directory of the test's
own; the system-wide names (queue, pipe, ports) are private to the test where isolate.sh works.
"""
import ctypes
import json
import os
import pathlib
import re
import shutil
import signal
import sqlite3
import subprocess
import tempfile
import time
import unittest
import urllib.request

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
BUILD = pathlib.Path(os.environ["KIV_BUILD"]).resolve()
STREAM = "kiv-eventsrc-stream-test"
QUEUE = "/kiv_queue"
PIPE = "/tmp/MTKTimePipe"
DEVICE = "TV-E2E-1"
PREFIX = re.compile(r"\[\d+\]\(\d+,\d+\) ")
LIMIT_S = 30
RT = ctypes.CDLL("librt.so.1", use_errno=True)

GLOBAL_INFO = {
    "deviceid": DEVICE, "component": "E2E", "ufversion": "E2E.1.2.3", "country": "BE",
    "ctn": "55E2E0001/12", "serial": "E2E0001", "menu-language": "en", "op_hour": 7,
    "builddate": "Thu, 07 Mar 2019 10:15:02 GMT",
}


def wait_until(condition, what, limit_s=LIMIT_S):
    """Polls until the condition is true and returns its value."""
    end = time.monotonic() + limit_s
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"not within {limit_s} s: {what}")
        time.sleep(0.02)


def without_prefix(line):
    return PREFIX.sub("", line)


class Cloud:
    """The local cloud; `control` tells it to misbehave (localcloud/README.md)."""

    def __init__(self, state, scenario=None):
        self.state = pathlib.Path(state)
        self.state.mkdir(parents=True, exist_ok=True)
        command = ["/usr/bin/python3", str(ROOT / "localcloud/localcloud.py"),
                   "--state", str(self.state)]
        if scenario:
            path = self.state / "scenario.json"
            path.write_text(json.dumps(scenario))
            command += ["--scenario", str(path)]
        self._errors = open(self.state / "localcloud.log", "a")
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=self._errors,
                                        text=True)
        ready = dict(word.split("=", 1) for word in self.process.stdout.readline().split()[1:])
        if "ca" not in ready:
            raise AssertionError((self.state / "localcloud.log").read_text())
        self.ca = ready["ca"]
        self._control = ready["control"]

    def control(self, document):
        request = urllib.request.Request(self._control, data=json.dumps(document).encode())
        with urllib.request.urlopen(request, timeout=10) as answer:
            return json.load(answer)

    def requests(self, target=None, verdict=None):
        path = self.state / "requests.jsonl"
        lines = path.read_text().splitlines() if path.exists() else []
        entries = [json.loads(line) for line in lines]
        return [entry for entry in entries
                if (target is None or entry["target"] == target)
                and (verdict is None or entry["verdict"].startswith(verdict))]

    def records(self, stream=STREAM):
        """The accepted records as bytes, in order."""
        folder = self.state / "records" / stream
        return [path.read_bytes() for path in sorted(folder.glob("[0-9]*.json"))]

    def blocks(self):
        """All session blocks of all records, parsed."""
        return [json.loads(line) for record in self.records()
                for line in record.decode().splitlines()]

    def events(self, event_type=None):
        return [event for block in self.blocks() for event in block["events"]
                if event_type is None or event["event-type"] == event_type]

    def objects(self):
        """{(bucket, key): bytes}"""
        index = self.state / "objects/index.jsonl"
        lines = index.read_text().splitlines() if index.exists() else []
        entries = [json.loads(line) for line in lines]
        return {(entry["bucket"], entry["key"]):
                (self.state / "objects" / entry["file"]).read_bytes() for entry in entries}

    def stop(self):
        self.process.terminate()
        self.process.wait()
        self.process.stdout.close()
        self._errors.close()


class Device:
    """The set's files and the running daemon."""

    def __init__(self, folder, cloud):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir(parents=True, exist_ok=True)
        self.cloud = cloud
        self.database = self.folder / "Db"
        self.environment = {"PATH": os.environ["PATH"], "CURL_CA_BUNDLE": cloud.ca, "TZ": "UTC",
                            "HOME": str(self.folder)}
        for name, value in os.environ.items():
            if name.startswith(("ASAN_", "UBSAN_", "LSAN_", "QEMU_", "LD_LIBRARY_PATH")):
                self.environment[name] = value
        self.launcher = os.environ.get("KIV_LAUNCHER", "").split()
        self.process = None
        self.runs = 0
        self.write_global_info()
        self.write_boot(1, 1)
        self.write_consent("CUL-TOU 1 TRUE")

    # --- files ---

    def write_global_info(self, **changes):
        (self.folder / "GlobalInfo").write_text(json.dumps({**GLOBAL_INFO, **changes}))

    def write_boot(self, boot, standby):
        (self.folder / "BootInfo").write_text(
            json.dumps({"boot-count": boot, "standby-count": standby}))

    def write_consent(self, text):
        (self.folder / "current_tou.txt").write_text(text)

    def config(self):
        try:
            return json.loads((self.folder / "Config").read_text())
        except (OSError, ValueError):
            return {}

    # --- the daemon ---

    def start(self, *options, ready=True):
        """Starts kivApp; with `ready` waits until it takes messages."""
        self.runs += 1
        self.out_path = self.folder / f"out.{self.runs}"
        self.err_path = self.folder / f"err.{self.runs}"
        with open(self.out_path, "w") as out, open(self.err_path, "w") as err:
            self.process = subprocess.Popen(
                [*self.launcher, str(BUILD / "kivApp"), "-g", "GlobalInfo", "-b", "BootInfo",
                 "-c", f"{self.folder}/Config", "-e", str(self.database),
                 "-t", f"{self.folder}/", *options],
                cwd=self.folder, env=self.environment, stdout=out, stderr=err)
        if ready:
            wait_until(lambda: self.alive() and self.queue_exists(), "the message queue")
        return self.process

    @staticmethod
    def queue_exists():
        queue = RT.mq_open(QUEUE.encode(), os.O_WRONLY)
        if queue < 0:
            return False
        RT.mq_close(queue)
        return True

    def alive(self):
        status = self.process.poll()
        if status is not None:
            raise AssertionError(f"kivApp ended with {status}:\n{self.err()[-3000:]}")
        return True

    def stop(self, how=signal.SIGTERM):
        if self.process and self.process.poll() is None:
            self.process.send_signal(how)
            self.process.wait()

    def out(self):
        return self.out_path.read_text(errors="replace")

    def err(self):
        return self.err_path.read_text(errors="replace")

    def out_lines(self):
        return [without_prefix(line) for line in self.out().splitlines()]

    def err_lines(self):
        return [without_prefix(line) for line in self.err().splitlines()]

    def wait_for_config(self, **members):
        """Waits until the server's configuration with these members is on file."""
        members = members or {"kiv_tou": True}
        wait_until(lambda: self.alive() and all(self.config().get(name) == value
                                                for name, value in members.items()),
                   f"a configuration with {members}")

    # --- store and queue ---

    def query(self, sql, *arguments):
        with sqlite3.connect(f"file:{self.database}?mode=ro", uri=True, timeout=5) as store:
            return store.execute(sql, arguments).fetchall()

    def stored_events(self):
        rows = self.query("SELECT data FROM Events ORDER BY bootCount,standbyCount,kernelTime")
        return [json.loads(row[0]) for row in rows]

    def wait_for_empty_store(self):
        wait_until(lambda: self.alive() and not self.stored_events(), "an empty store")

    def send(self, event_type, data=None, *options, sync=True):
        """Posts one event through kivsend; with `sync` waits until it was handled."""
        command = [str(BUILD / "tools/kivsend"), *(["--sync=20"] if sync else []), *options,
                   event_type]
        if data is not None:
            command.append(json.dumps(data))
        subprocess.run(command, check=True)

    def send_lines(self, events, *options):
        """Posts whole events, one a line."""
        text = "".join(json.dumps(event) + "\n" for event in events)
        subprocess.run([str(BUILD / "tools/kivsend"), *options], input=text, text=True, check=True)

    def post_raw(self, message):
        """Puts any bytes on the queue."""
        queue = RT.mq_open(QUEUE.encode(), os.O_WRONLY)
        if queue < 0:
            raise OSError(ctypes.get_errno(), "mq_open")
        try:
            if RT.mq_send(queue, message, len(message), 0) != 0:
                raise OSError(ctypes.get_errno(), "mq_send")
        finally:
            RT.mq_close(queue)


class WholeProgramTest(unittest.TestCase):
    """Gives each test a cloud and a device; nothing of them is left behind."""

    maxDiff = None
    #: merged into the configuration of every device before the daemon starts
    configuration = {"upload_events": {"min-size": 100, "max-delay": 3500, "max-size": 131072}}

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="kive2e."))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.cloud = Cloud(self.folder / "cloud", {"config": {"*": self.configuration}})
        self.addCleanup(self.cloud.stop)
        self.device = Device(self.folder / "device", self.cloud)
        self.addCleanup(self.device.stop)

    def tearDown(self):
        outcome = getattr(self, "_outcome", None)
        failed = outcome and any(error for _, error in getattr(outcome, "errors", []) if error)
        if failed and self.device.runs:
            print(f"--- {self.id()}: standard output\n{self.device.out()[-6000:]}"
                  f"\n--- standard error\n{self.device.err()[-6000:]}")

    def start_with_consent(self, *options):
        self.device.start(*options)
        self.device.wait_for_config()

    def wait_for_events(self, count, event_type=None):
        wait_until(lambda: self.device.alive() and len(self.cloud.events(event_type)) >= count,
                   f"{count} events in the cloud")
        return self.cloud.events(event_type)

    def use_ping(self, script):
        """Puts a `ping` of the test's own first in the daemon's PATH."""
        folder = self.folder / "bin"
        folder.mkdir(exist_ok=True)
        (folder / "ping").write_text("#!/bin/sh\n" + script)
        (folder / "ping").chmod(0o755)
        self.device.environment["PATH"] = f"{folder}:{os.environ['PATH']}"
