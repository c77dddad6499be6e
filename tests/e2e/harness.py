"""A set of its own for a whole-program test: device files, local cloud, kivApp, kivsend.

Programs come from the build folder in $KIV_BUILD. Everything else is in a directory of the test's
own; the system-wide names (queue, pipe, ports) are private to the test where isolate.sh works.
"""
import calendar
import contextlib
import ctypes
import errno
import json
import os
import pathlib
import re
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "localcloud"))

from configuration import Gateway, Services  # noqa: E402 (of the local cloud)
from scenario import Scenario, merged  # noqa: E402

BUILD = pathlib.Path(os.environ["KIV_BUILD"]).resolve()
STREAM = "kiv-eventsrc-stream-test"
QUEUE = "/kiv_queue"
PIPE = "/tmp/MTKTimePipe"
DEVICE = "TV-E2E-1"
MAC = "02:00:5e:10:00:01"
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


def kernel_ms():
    """The monotonic clock that dates events, milliseconds."""
    return time.clock_gettime_ns(time.CLOCK_MONOTONIC) // 1000000


def utc_text(utc_ms):
    """UTC milliseconds as records show them."""
    seconds = time.strftime("%Y-%m-%dT%H:%M:%S", time.gmtime(utc_ms // 1000))
    return f"{seconds}.{utc_ms % 1000:03d}Z"


def utc_ms(text):
    """The reverse of utc_text."""
    seconds = time.strptime(text[:19], "%Y-%m-%dT%H:%M:%S")
    return calendar.timegm(seconds) * 1000 + int(text[20:23])


def refuse_to_disturb_a_daemon():
    """The names of the queue and the pipe are the system's: without namespaces, a daemon at work
    would lose them."""
    if "KIV_ISOLATED" in os.environ:
        return
    for entry in pathlib.Path("/proc").glob("[0-9]*/comm"):
        try:
            if entry.read_text() == "kivApp\n":
                sys.exit(f"kivApp runs (process {entry.parent.name}), and this machine allows no "
                         "namespaces of the test's own: stop it first")
        except OSError:
            continue  # it has just ended


def forget_system_wide_names():
    """Takes away the queue and the pipe that a killed daemon leaves behind."""
    RT.mq_unlink(QUEUE.encode())
    try:
        os.unlink(PIPE)
    except FileNotFoundError:
        pass


class Cloud:
    """The local cloud; `control` tells it to misbehave (localcloud/README.md)."""

    options = ()  #: further ones of its command line

    def __init__(self, state, scenario=None):
        self.state = pathlib.Path(state)
        self.state.mkdir(parents=True, exist_ok=True)
        command = ["/usr/bin/python3", str(ROOT / "localcloud/localcloud.py"),
                   "--state", str(self.state), *self.options]
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
        self.page = self._control.replace("/control", "/")

    def control(self, document):
        request = urllib.request.Request(self._control, data=json.dumps(document).encode())
        with urllib.request.urlopen(request, timeout=10) as answer:
            return json.load(answer)

    def misbehave(self, **actions):
        """target=None behaves again, target="reset" or target={"action": ...} does not."""
        told = {target: {"action": action} if isinstance(action, str) else action
                for target, action in actions.items()}
        self.control({"misbehave": told})

    def requests(self, target=None, verdict=None):
        path = self.state / "requests.jsonl"
        lines = path.read_text().splitlines(keepends=True) if path.exists() else []
        entries = [json.loads(line) for line in lines if line.endswith("\n")]
        return [entry for entry in entries
                if (target is None or entry["target"] == target)
                and (verdict is None or entry["verdict"].startswith(verdict))]

    def exchanges(self, since=0):
        """Requests after this number with how their answers went ("duration" None: under way),
        and the number to ask with next time."""
        with urllib.request.urlopen(f"{self._control}/requests?since={since}",
                                    timeout=10) as answer:
            document = json.load(answer)
        return document["requests"], document["next"]

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

    def __init__(self, folder, cloud, logs=None):
        self.folder = pathlib.Path(folder)
        self.logs = pathlib.Path(logs or folder)  # elsewhere where the folder loses its power
        self.folder.mkdir(parents=True, exist_ok=True)
        self.cloud = cloud
        self.database = self.folder / "Db"
        self.environment = {"PATH": os.environ["PATH"], "CURL_CA_BUNDLE": cloud.ca, "TZ": "UTC",
                            "HOME": str(self.folder)}
        for name, value in os.environ.items():
            if name.startswith(("ASAN_", "UBSAN_", "LSAN_", "TSAN_", "QEMU_", "LD_LIBRARY_PATH")):
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
        """The persistent configuration; {} when there is none that can be read."""
        try:
            return json.loads((self.folder / "Config").read_text())
        except (OSError, ValueError):
            return {}

    def write_config(self, age_s=0, **changes):
        """A persistent configuration as if fetched `age_s` seconds ago, merged with changes."""
        services = Services(ROOT / "services/local.json")
        gateway = Gateway(services, Scenario())
        gateway.endpoint = f"https://localhost:{services.https_port}"
        document = gateway.config_document(services.environments["prod"])
        fetched = int(time.time()) - age_s
        document["Last-Modified"] = time.strftime("%a, %d %b %Y %H:%M:%S GMT",
                                                  time.gmtime(fetched))
        document["UTC-Time"] = fetched
        (self.folder / "Config").write_text(json.dumps(merged(document, changes)))

    def change_config(self, **changes):
        """Merges changes into the persistent configuration; only while the daemon is not running."""
        (self.folder / "Config").write_text(json.dumps(merged(self.config(), changes)))

    def db_token(self):
        return json.loads((self.folder / "dbuuid.json").read_text())["db-uuid"]

    # --- the daemon ---

    def start(self, *options, ready=True):
        """Starts kivApp; with `ready` waits until it takes messages."""
        self.runs += 1
        if self.runs == 1:
            refuse_to_disturb_a_daemon()
            forget_system_wide_names()
        self.out_path = self.logs / f"out.{self.runs}"
        self.err_path = self.logs / f"err.{self.runs}"
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

    def kill(self):
        """As a power cut ends the daemon: nothing of it can put anything in order."""
        self.stop(signal.SIGKILL)

    def run(self, *arguments):
        """Runs kivApp with these arguments alone until it ends; for options that end it."""
        return subprocess.run([*self.launcher, str(BUILD / "kivApp"), *arguments],
                              cwd=self.folder, env=self.environment, capture_output=True,
                              text=True, timeout=LIMIT_S)

    def tasks(self):
        """How many threads the daemon has."""
        return len(os.listdir(f"/proc/{self.process.pid}/task"))

    def descriptors(self):
        """What the daemon holds open, sorted."""
        folder = pathlib.Path(f"/proc/{self.process.pid}/fd")
        found = []
        for entry in folder.iterdir():
            try:
                found.append(os.readlink(entry))
            except FileNotFoundError:
                continue
        return sorted(found)

    def children(self):
        """Process ids of the daemon's children, dead ones that nobody waited for included."""
        found = []
        for task in pathlib.Path(f"/proc/{self.process.pid}/task").iterdir():
            try:
                found += (task / "children").read_text().split()
            except FileNotFoundError:
                continue
        return found

    def out(self):
        return self.out_path.read_text(errors="replace")

    def err(self):
        return self.err_path.read_text(errors="replace")

    def out_lines(self):
        return [without_prefix(line) for line in self.out().splitlines()]

    def err_lines(self):
        return [without_prefix(line) for line in self.err().splitlines()]

    def wait_for_error(self, text, count=1, limit_s=LIMIT_S):
        """Waits until `count` lines on standard error begin with the text (without prefix)."""
        wait_until(lambda: self.alive() and self.errors_beginning(text) >= count,
                   f"{count} times on standard error: {text}", limit_s)

    def errors_beginning(self, text):
        return sum(line.startswith(text) for line in self.err_lines())

    def wait_for_output(self, text, count=1, limit_s=LIMIT_S):
        """Waits until `count` lines on standard output contain the text."""
        wait_until(lambda: self.alive() and self.out().count(text) >= count,
                   f"{count} times on standard output: {text}", limit_s)

    def wait_for_config(self, **members):
        """Waits until the server's configuration with these members is on file."""
        members = members or {"kiv_tou": True}
        wait_until(lambda: self.alive() and all(self.config().get(name) == value
                                                for name, value in members.items()),
                   f"a configuration with {members}")

    # --- store and queue ---

    def query(self, sql, *arguments):
        """Rows of the last committed state. Only reads, which never delays the daemon."""
        if not self.database.exists():
            raise AssertionError("no database")
        wait_until(lambda: self._read("PRAGMA schema_version") != [(0,)], "a database with tables")
        return self._read(sql, *arguments)

    def _read(self, sql, *arguments):
        address = f"file:{self.database}?mode=ro"
        with contextlib.closing(sqlite3.connect(address, uri=True, timeout=10)) as store:
            return store.execute(sql, arguments).fetchall()

    def integrity(self):
        return self.query("PRAGMA integrity_check")[0][0]

    def stored_events(self):
        rows = self.query("SELECT data FROM Events ORDER BY bootCount,standbyCount,kernelTime")
        return [json.loads(row[0]) for row in rows]

    def wait_for_stored(self, count):
        """Waits until so many events are in the store and returns them."""
        wait_until(lambda: self.alive() and len(self.stored_events()) == count,
                   f"{count} stored events")
        return self.stored_events()

    def wait_for_empty_store(self):
        wait_until(lambda: self.alive() and not self.stored_events(), "an empty store")

    def send(self, event_type, data=None, *options, sync=True):
        """Posts one event through kivsend; with `sync` waits until it was handled."""
        command = [str(BUILD / "tools/kivsend"), *(["--sync=20"] if sync else []), *options,
                   event_type]
        if data is not None:
            command.append(json.dumps(data))
        subprocess.run(command, check=True, timeout=LIMIT_S)

    def send_lines(self, events, *options):
        """Posts whole events, one a line."""
        text = "".join(json.dumps(event) + "\n" for event in events)
        subprocess.run([str(BUILD / "tools/kivsend"), *options], input=text, text=True, check=True,
                       timeout=2 * LIMIT_S)

    @staticmethod
    def post_now(message):
        """Puts any bytes on the queue. Returns False when it is full."""
        queue = RT.mq_open(QUEUE.encode(), os.O_WRONLY | os.O_NONBLOCK)
        if queue < 0:
            raise OSError(ctypes.get_errno(), "mq_open")
        try:
            if RT.mq_send(queue, message, len(message), 0) == 0:
                return True
            if ctypes.get_errno() == errno.EAGAIN:
                return False
            raise OSError(ctypes.get_errno(), "mq_send")
        finally:
            RT.mq_close(queue)

    def post_raw(self, message):
        """Puts any bytes on the queue, waits while it is full."""
        wait_until(lambda: self.post_now(message), "room on the queue")


class WholeProgramTest(unittest.TestCase):
    """Gives each test a cloud and a device; nothing of them is left behind."""

    maxDiff = None
    #: merged into the configuration of every device before the daemon starts
    configuration = {"upload_events": {"min-size": 100, "max-delay": 3500, "max-size": 131072}}

    #: more that the cloud is told before the daemon starts
    scenario = {}

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="kive2e."))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.cloud = Cloud(self.folder / "cloud", {"config": {"*": self.configuration},
                                                   **self.scenario})
        self.addCleanup(self.cloud.stop)
        self.device = Device(self.folder / "device", self.cloud)
        self.addCleanup(self.device.stop)
        self.use_command("ifconfig", f'echo "eth0      Link encap:Ethernet  HWaddr {MAC}  "\n')

    def tearDown(self):
        result = self._outcome.result
        failed = any(test is self for test, _ in result.failures + result.errors)
        if failed and self.device.runs:
            print(f"--- {self.id()}: standard output\n{self.device.out()[-6000:]}"
                  f"\n--- standard error\n{self.device.err()[-6000:]}")

    def start_with_consent(self, *options):
        self.device.start(*options)
        self.device.wait_for_config()

    def restart(self, boot, standby, *options):
        """Ends the daemon, should it run, and starts it in another cycle."""
        self.device.stop()
        self.device.write_boot(boot, standby)
        self.device.start(*options)

    def wait_for_events(self, count, event_type=None):
        wait_until(lambda: self.device.alive() and len(self.cloud.events(event_type)) >= count,
                   f"{count} events in the cloud")
        return self.cloud.events(event_type)

    def use_command(self, name, script):
        """Puts a `ping` or `ifconfig` of the test's own first in the daemon's PATH."""
        folder = self.folder / "bin"
        folder.mkdir(exist_ok=True)
        (folder / name).write_text("#!/bin/sh\n" + script)
        (folder / name).chmod(0o755)
        self.device.environment["PATH"] = f"{folder}:{os.environ['PATH']}"

    def hold_network(self):
        """The daemon finds no end of its first ping until the returned function is called."""
        gate = self.folder / "network"
        self.use_command("ping", f'while [ ! -e {gate} ]; do sleep 0.05; done\n'
                                 'echo "PING localhost (127.0.0.1)"\n')
        return gate.touch
