#!/usr/bin/python3
"""kivApp at work on this machine: what ./run runs.

Starts the local cloud and the daemon with a device of its own under a scratch directory, and
feeds it this machine's readings: idle time and free memory from /proc, kernel log lines where
they can be read, and its own log as an announced file. Says in plain lines what was stored, sent
and received, and where the page is that shows it. With --once it ends when everything has arrived
and has been verified. ./run --help lists the options.
"""
import argparse
import collections
import ctypes
import errno
import hashlib
import ipaddress
import json
import os
import pathlib
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
STREAM = "kiv-eventsrc-stream-test"
QUEUE = "/kiv_queue"
DEVICE = "TV-DEMO-1"
ONCE_EVENTS = 60
ONCE_LIMIT_S = 90
HTTPS_PORT, HTTP_PORT = 18443, 18480  # of services/local.json
READ_EVERY_S = 1
TELL_EVERY_S = 5


class Failed(Exception):
    """What went wrong, for the last line."""


# --- this machine's readings --------------------------------------------------------------------


def cpu_idle():
    """The first line of /proc/stat, as it is: jiffies by state since boot."""
    words = pathlib.Path("/proc/stat").read_text().splitlines()[0].split()
    return {"idle": int(words[4]), "total": sum(int(word) for word in words[1:])}


def available_memory():
    for line in pathlib.Path("/proc/meminfo").read_text().splitlines():
        if line.startswith("MemAvailable:"):
            return {"kB": int(line.split()[1])}
    return {"kB": 0}


class KernelLog:
    """Lines of the kernel's log, one at a time; none where it cannot be read."""

    def __init__(self):
        try:
            self._fd = os.open("/dev/kmsg", os.O_RDONLY | os.O_NONBLOCK)
        except OSError:
            self._fd = -1

    def next(self):
        while self._fd >= 0:
            try:
                line = os.read(self._fd, 8192).decode(errors="replace").split("\n")[0]
            except BrokenPipeError:  # lines were overwritten meanwhile: go on with the next
                continue
            except OSError:
                return None
            # The store takes no single quotes.
            return line.replace("'", '"')[:500]
        return None


# --- the parts of the demonstration -------------------------------------------------------------


class Cloud:
    def __init__(self, state, options):
        self.state = state
        command = ["/usr/bin/python3", ROOT / "localcloud/localcloud.py", "--state", state,
                   "--scenario", self._scenario(), "--bind", options.bind,
                   "--filter-program", options.build.resolve() / "tools/kivfilter"]
        if options.services != "local":
            command += ["--services", options.services]
        if options.open_page:
            command.append("--open-page")
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        ready = self.process.stdout.readline()
        if not ready.startswith("ready "):
            raise Failed("the local cloud did not start; the line above says why")
        words = dict(word.split("=", 1) for word in ready.split()[1:3])
        self.page = f"http://127.0.0.1:{words['http']}/"
        self.ca = ready.split("ca=")[1].strip()

    def _scenario(self):
        """Small thresholds, so that there is something to see."""
        path = self.state.parent / "scenario.json"
        path.write_text(json.dumps({"config": {"*": {
            "upload_events": {"min-size": 2000, "max-delay": 5}}}}))
        return path

    def records(self):
        return sorted((self.state / "records" / STREAM).glob("[0-9]*.json"))

    def objects(self):
        index = self.state / "objects/index.jsonl"
        lines = index.read_text().splitlines() if index.exists() else []
        return [json.loads(line) for line in lines]


class Daemon:
    def __init__(self, binary, folder, ca, memory):
        self.folder = folder
        self.status = pathlib.Path(memory) / "status.json"
        self.database = folder / "Db"
        self.log = folder / "kivApp.log"
        self._write_device(folder)
        environment = dict(os.environ, CURL_CA_BUNDLE=ca, KIV_STATUS_FILE=str(self.status))
        environment.pop("KIV_SERVERENV", None)
        self.output = open(self.log, "w")
        self.process = subprocess.Popen(
            [binary, "-g", "GlobalInfo", "-b", "BootInfo", "-c", f"{folder}/Config",
             "-e", self.database, "-t", f"{folder}/"],
            cwd=folder, env=environment, stdout=self.output, stderr=subprocess.STDOUT)

    @staticmethod
    def _write_device(folder):
        (folder / "GlobalInfo").write_text(json.dumps({
            "deviceid": DEVICE, "component": "DEMO", "ufversion": "DEMO.1.0.0", "country": "BE",
            "ctn": "55DEMO0001/12", "serial": "DEMO0001", "menu-language": "en", "op_hour": 1,
            "builddate": "Thu, 07 Mar 2019 10:15:02 GMT"}))
        (folder / "BootInfo").write_text(json.dumps({"boot-count": 1, "standby-count": 1}))
        (folder / "current_tou.txt").write_text("CUL-TOU 1 TRUE")

    def is_ready(self):
        """Whether the server's configuration, with the consent, is in force, and the queue there."""
        try:
            given = json.loads((self.folder / "Config").read_text()).get("kiv_tou") is True
        except (OSError, ValueError):
            return False
        return given and queue_exists()

    def stored(self):
        """(events, files) waiting in the store."""
        try:
            with sqlite3.connect(f"file:{self.database}?mode=ro", uri=True, timeout=2) as store:
                return tuple(store.execute(f"SELECT COUNT(*) FROM {table}").fetchone()[0]
                             for table in ("Events", "Files"))
        except sqlite3.Error:
            return (0, 0)

    def check_alive(self):
        if self.process.poll() is not None:
            raise Failed(f"kivApp ended with status {self.process.returncode}; see {self.log}")


def queue_exists():
    """Whether there is a queue of the daemon's name, ours to use or not."""
    queues = ctypes.CDLL("librt.so.1", use_errno=True)
    queue = queues.mq_open(QUEUE.encode(), os.O_WRONLY | os.O_NONBLOCK)
    if queue >= 0:
        queues.mq_close(queue)
    return queue >= 0 or ctypes.get_errno() != errno.ENOENT


class Feeder:
    """Posts readings through kivsend, each with a number of its own in "sample"."""

    def __init__(self, binary):
        self.sent = 0
        self.kernel_log = KernelLog()
        self.kivsend = subprocess.Popen([binary], stdin=subprocess.PIPE, text=True)

    def post(self, event_type, data):
        self.sent += 1
        event = {"event-type": event_type, "data": dict(data, sample=self.sent)}
        self._write(event)

    def announce(self, path, name):
        self._write({"event-type": "debug.dump", "oob-url": str(path),
                     "data": {"oob-info": {"unique-id": name, "bucketname": "norvane-ddump"}}})

    def _write(self, event):
        try:
            self.kivsend.stdin.write(json.dumps(event) + "\n")
            self.kivsend.stdin.flush()
        except BrokenPipeError:
            raise Failed("kivsend ended") from None

    def readings(self):
        self.post("cpu.idle", cpu_idle())
        self.post("ram.availmem", available_memory())
        line = self.kernel_log.next()
        if line:
            self.post("usage.dev_kmsg", {"line": line})

    def end(self):
        self.kivsend.stdin.close()
        if self.kivsend.wait(10) != 0:
            raise Failed(f"kivsend ended with status {self.kivsend.returncode}")


def received_samples(cloud):
    """{sample: how often} over all records; each line of a record must be a JSON object."""
    counts = collections.Counter()
    for path in cloud.records():
        for line in path.read_text().splitlines():
            for event in json.loads(line)["events"]:
                if "sample" in event:
                    counts[event["sample"]] += 1
    return counts


# --- the two ways to run ------------------------------------------------------------------------


def wait_until(condition, what, daemon, limit_s=ONCE_LIMIT_S):
    end = time.monotonic() + limit_s
    while not condition():
        daemon.check_alive()
        if time.monotonic() > end:
            raise Failed(f"{what}: not within {limit_s} s; see {daemon.log}")
        time.sleep(0.05)


def progress(cloud, daemon, feeder):
    """{what: how many}, in the order in which it is told."""
    events, files = daemon.stored()
    return {"posted": feeder.sent, "received": sum(received_samples(cloud).values()),
            "records": len(cloud.records()), "files": len(cloud.objects()),
            "waiting": events, "files waiting": files}


def say_progress(now, before):
    """One line of what has changed, where something has."""
    def grown(name):
        more = now[name] - before.get(name, 0)
        return f"{now[name]} (+{more})" if more > 0 and before else str(now[name])

    if now != before:
        waiting = f", {now['files waiting']} files wait too" if now["files waiting"] else ""
        print(f"posted {grown('posted')}, received {grown('received')} in {grown('records')} "
              f"records and {grown('files')} files; {now['waiting']} wait in the set{waiting}",
              flush=True)
    return now


def run_on(cloud, daemon, feeder):
    """Until Ctrl-C."""
    before = {}
    for second in range(sys.maxsize):
        daemon.check_alive()
        if cloud.process.poll() is not None:
            raise Failed(f"the local cloud ended with status {cloud.process.returncode}")
        if second % READ_EVERY_S == 0:
            feeder.readings()
        if second % 60 == 59:
            announce_log(daemon, feeder, f"demo-log-{second // 60}.log")
        if second % TELL_EVERY_S == TELL_EVERY_S - 1:
            before = say_progress(progress(cloud, daemon, feeder), before)
        time.sleep(1)


def announce_log(daemon, feeder, name):
    """Announces a copy of the daemon's log; the copy is deleted once it was uploaded."""
    copy = daemon.folder / name
    shutil.copyfile(daemon.log, copy)
    digest = hashlib.sha256(copy.read_bytes()).hexdigest()
    feeder.announce(copy, name)
    return digest


def run_once(cloud, daemon, feeder):
    while feeder.sent < ONCE_EVENTS:
        feeder.readings()
    digest = announce_log(daemon, feeder, "demo-log.log")
    feeder.end()
    expected = set(range(1, feeder.sent + 1))
    wait_until(lambda: set(received_samples(cloud)) >= expected, "all events received", daemon)
    wait_until(lambda: daemon.stored() == (0, 0), "an empty store", daemon)
    say_progress(progress(cloud, daemon, feeder), {})
    verify_events(received_samples(cloud), expected)
    verify_file(cloud, digest)


def verify_events(counts, expected):
    strangers = sorted(set(counts) - expected)
    twice = sorted(sample for sample, count in counts.items() if count > 1)
    if strangers:
        raise Failed(f"events received that were never posted: {strangers}")
    if twice:
        raise Failed(f"events received twice: {twice}")
    print(f"verified: {len(expected)} events in, {len(counts)} out, nothing twice")


def verify_file(cloud, digest):
    arrived = [entry for entry in cloud.objects() if entry["key"].endswith("demo-log.log")]
    if not arrived:
        raise Failed("the announced file did not arrive")
    path = cloud.state / "objects" / arrived[0]["file"]
    if hashlib.sha256(path.read_bytes()).hexdigest() != digest:
        raise Failed(f"the announced file arrived with other bytes: {path}")
    print(f"verified: the announced file arrived whole ({path.stat().st_size} bytes)")


def refuse_second_daemon():
    """Two daemons with one queue would steal each other's events. One in another container has a
    queue of its own."""
    for entry in pathlib.Path("/proc").glob("[0-9]*/comm"):
        try:
            found = entry.read_text().strip() == "kivApp"
        except OSError:  # it has just ended
            continue
        if found and shares_our_queue(entry.parent):
            raise Failed(f"kivApp runs already (process {entry.parent.name}), and would share the "
                         "message queue with this one; stop it first")


def shares_our_queue(process):
    """Whether a process sees the message queues that we see."""
    try:
        return os.readlink(process / "ns/ipc") == os.readlink("/proc/self/ns/ipc")
    except FileNotFoundError:  # it has just ended
        return False
    except OSError:  # another user's
        return queue_exists()  # which its daemon has


def port_number(text):
    number = int(text)
    if not 1 <= number <= 65535:
        raise ValueError(text)
    return number


def address(text):
    return str(ipaddress.IPv4Address(text))


def parse_arguments():
    """The options that ./run explains, and three of its own."""
    parser = argparse.ArgumentParser(prog="./run", add_help=False, allow_abbrev=False,
                                     usage="./run [options]; ./run --help lists them")
    parser.add_argument("--once", action="store_true")
    parser.add_argument("--scratch", default=ROOT / "scratch", type=pathlib.Path)
    parser.add_argument("--http-port", default=HTTP_PORT, type=port_number)
    parser.add_argument("--https-port", default=HTTPS_PORT, type=port_number)
    parser.add_argument("--bind", default="127.0.0.1", type=address)
    parser.add_argument("--open-page", action="store_true")
    parser.add_argument("--build", default=ROOT / "build/run", type=pathlib.Path)
    parser.add_argument("--services", default="local")
    parser.add_argument("--prepare", type=pathlib.Path)
    options = parser.parse_args()
    if options.open_page and options.bind == "127.0.0.1":
        parser.error("--open-page goes with --bind ADDRESS: without it only this machine gets here")
    return options


def prepare(options):
    """Prints which services file the program is to be built with; with other ports than usual it
    is made."""
    refuse_second_daemon()
    if (options.http_port, options.https_port) == (HTTP_PORT, HTTPS_PORT):
        print("local")
        return
    text = (ROOT / "services/local.json").read_text()
    text = text.replace(f":{HTTPS_PORT}", f":{options.https_port}")
    text = text.replace(f":{HTTP_PORT}", f":{options.http_port}")
    path = options.prepare.resolve()
    if not path.exists() or path.read_text() != text:
        path.write_text(text)
    print(path)


def demonstrate(options, started, memory):
    refuse_second_daemon()
    scratch = options.scratch.resolve()
    for old in ("device", "cloud"):  # nothing else: the directory may be somebody's
        shutil.rmtree(scratch / old, ignore_errors=True)
    (scratch / "device").mkdir(parents=True)
    cloud = Cloud(scratch / "cloud", options)
    started.append(cloud.process)
    daemon = Daemon(options.build.resolve() / "kivApp", scratch / "device", cloud.ca,
                    memory)
    started.append(daemon.process)
    print(f"page: {cloud.page} shows live what arrives, and can make the cloud misbehave\n"
          f"device {DEVICE}: files, database and log in {scratch / 'device'}\n"
          f"cloud: records in {cloud.state / 'records' / STREAM}, "
          f"objects in {cloud.state / 'objects'}, requests in {cloud.state / 'requests.jsonl'}\n"
          f"whether it delivers: {options.build / 'tools/kivstat'} --status {daemon.status} "
          "(add --watch to go on, doctor to try the servers)",
          flush=True)
    say_what_is_open(options)
    wait_until(daemon.is_ready, "the configuration with consent", daemon)
    feeder = Feeder(options.build.resolve() / "tools/kivsend")
    started.append(feeder.kivsend)
    if options.once:
        run_once(cloud, daemon, feeder)
    else:
        print(f"feeding it this machine's readings, a line each {TELL_EVERY_S} s where something "
              "changed; Ctrl-C ends", flush=True)
        run_on(cloud, daemon, feeder)


def say_what_is_open(options):
    if options.bind == "127.0.0.1":
        return
    where = "all addresses of this machine" if options.bind == "0.0.0.0" else options.bind
    print(f"open: whoever reaches {where} can send records and objects to ports "
          f"{options.https_port} and {options.http_port}, and ask for a configuration; "
          + ("the page and the control service answer them too, without a password"
             if options.open_page else "page and control service answer this machine only"),
          flush=True)


def main():
    options = parse_arguments()
    started = []
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        if options.prepare:
            prepare(options)
        else:
            # What the daemon says of itself is kept in memory, as on a set.
            with tempfile.TemporaryDirectory(prefix="kivApp-run.", dir="/dev/shm") as memory:
                demonstrate(options, started, memory)
    except Failed as failure:
        print(f"run: {failure}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("\nended; everything is still in the scratch directory")
    finally:
        for process in reversed(started):
            process.terminate()
            process.wait()
    return 0


if __name__ == "__main__":
    sys.exit(main())
