#!/usr/bin/python3
"""kivstat on sets that deliver, and on sets that do not: its first line names the cause."""
import contextlib
import json
import os
import pathlib
import re
import sqlite3
import subprocess
import time
import unittest

from harness import BUILD, DEVICE, LIMIT_S, QUEUE, RT, WholeProgramTest, wait_until

IN_1970 = "Thu, 01 Jan 1970 01:00:00 GMT"
NOBODY = 65534


def may_become_nobody():
    """Whether this namespace knows more users than one."""
    return os.geteuid() == 0 and int(pathlib.Path("/proc/self/uid_map").read_text().split()[2]) > NOBODY


class KivstatTest(WholeProgramTest):
    def setUp(self):
        super().setUp()
        self.status_file = self.device.folder / "status.json"
        self.device.environment["KIV_STATUS_FILE"] = str(self.status_file)
        self.environment = {"PATH": os.environ["PATH"], "TZ": "UTC", "CURL_CA_BUNDLE": self.cloud.ca}
        for name, value in os.environ.items():
            if name.startswith(("ASAN_", "UBSAN_", "LSAN_", "LD_LIBRARY_PATH")):
                self.environment[name] = value

    def kivstat(self, *words, given=None, **how):
        return subprocess.run([str(BUILD / "tools/kivstat"), "--status", str(self.status_file), *words],
                              input=given, capture_output=True, text=True, timeout=LIMIT_S,
                              env=self.environment, **how)

    def places(self):
        """The options with which kivstat finds a set whose daemon has written no document."""
        folder = self.device.folder
        return ["-g", f"{folder}/GlobalInfo", "-b", f"{folder}/BootInfo", "-c", f"{folder}/Config",
                "-e", f"{folder}/Db", "-t", f"{folder}/"]

    def first_line(self, *words):
        return self.kivstat(*words).stdout.split("\n")[0]

    def expect(self, pattern, status=1, *words):
        """Waits for a first line that is this, and the exit status that goes with it."""
        last = None

        def names_it():
            nonlocal last
            last = self.kivstat(*words)
            return re.fullmatch(pattern, last.stdout.split("\n")[0])
        try:
            wait_until(names_it, pattern)
        except AssertionError:
            raise AssertionError(f"not {pattern!r} but\n{last.stdout}{last.stderr}") from None
        self.assertEqual(last.returncode, status, last.stdout)
        return last.stdout

    def deliver_one(self):
        self.device.send("usage.epg", {"text": "x" * 200})
        self.wait_for_events(1, "usage.epg")

    # --- a set that delivers ---

    #: A set whose events arrive is said to deliver, with how many it has sent.
    def test_healthy_set_delivers(self):
        self.start_with_consent()
        self.deliver_one()
        text = self.expect(r"delivering: \d+ events sent, the last \d+ s ago, \d+ waits?", 0)
        self.assertRegex(text, rf"device files +ok +{DEVICE}, boot 1, standby 1\n")
        self.assertNotIn("->", text)

    #: For programs the same comes as one JSON object: verdict, findings, what is stored, the queue,
    #: and the daemon's own numbers.
    def test_json_tells_the_same_to_programs(self):
        self.start_with_consent()
        self.deliver_one()
        self.expect(r"delivering: \d+ events sent.*", 0)
        answer = json.loads(self.kivstat("--json").stdout)
        self.assertEqual((answer["status"], answer["delivers"]), (0, True))
        self.assertTrue(answer["verdict"].startswith("delivering: "))
        self.assertEqual([finding["subject"] for finding in answer["findings"]], [
            "daemon", "device files", "user's consent", "server's consent", "configuration",
            "event filter", "credentials", "clock", "network", "queue", "store", "events", "files",
            "last error"])
        self.assertEqual({finding["level"] for finding in answer["findings"]}, {"ok"})
        self.assertEqual(answer["queue"]["may-post"], True)
        self.assertEqual(answer["daemon"]["pid"], self.device.process.pid)
        self.assertGreaterEqual(answer["daemon"]["counts"]["events-sent"], 1)

    #: The counts of the status document are those of what was done: each event is received once, and
    #: is refused, stored or sent once.
    def test_counts_account_for_each_event(self):
        self.device.write_config(kiv_tou=True, **{
            "event-filter": {"exclude": [{"event-type": "usage.app"}]},
            "upload_events": {"min-size": 100000}})
        self.start_with_consent()
        for _ in range(3):
            self.device.send("usage.epg", {"channel": 5})
        for _ in range(2):
            self.device.send("usage.app", {"name": "x"})
        self.device.post_raw(b"[1]")
        self.device.post_raw(b'{"event-type":"usage.epg","data":{"text":"it\'s"}}')

        def counts():
            return json.loads(self.status_file.read_text())["counts"]
        # With "kiv.start", which the daemon reports itself.
        wait_until(lambda: counts()["stored"] == 5 and counts()["not-an-event"] == 1, "the counts")
        seen = counts()
        self.assertEqual((seen["received"], seen["refused-by-filter"], seen["refused-by-consent"],
                          seen["not-storable"]), (8, 2, 0, 1))

    #: Events below the upload's minimum wait, and that is no fault: they go when their time comes.
    def test_events_that_wait_for_their_time_are_no_fault(self):
        self.cloud.control({"config": {"*": {"upload_events": {"min-size": 100000}}}})
        self.start_with_consent()
        self.device.send("usage.epg", {"channel": 5})
        self.device.wait_for_stored(1)
        self.expect(r"delivering: nothing was sent yet, 1 waits", 0)
        wait_until(lambda: re.search(r"events +ok +0 sent in 0 records, the last never; "
                                     r"next in \d+ min, above 100000 bytes at once",
                                     self.kivstat().stdout), "the next upload")

    # --- sets that do not ---

    #: Without the user's consent the first line says so, and names the file.
    def test_no_consent(self):
        self.device.write_consent("CUL-TOU 1 FALSE")
        self.device.start()
        self.expect("not delivering: the user has not accepted the terms of use "
                    rf"\({self.device.folder}/current_tou\.txt\)")

    #: Where the user was never asked, the missing answer is the cause.
    def test_no_answer_of_the_user(self):
        (self.device.folder / "current_tou.txt").unlink()
        self.device.start()
        self.expect("not delivering: the user has not answered the terms of use "
                    rf"\({self.device.folder}/current_tou\.txt is missing\)")

    #: Where the server has no consent on record, that is the cause, not the user's.
    def test_server_has_no_consent(self):
        self.cloud.control({"config": {"*": {"kiv_tou": False}}})
        self.device.start()
        self.expect(r"not delivering: the server has no consent of this user on record "
                    rf'\("kiv_tou" is not true in {self.device.folder}/Config\)')

    #: An expired configuration that the server does not renew is the cause, with the server's word.
    def test_expired_configuration(self):
        self.device.write_config(age_s=7200, kiv_tou=True, expiry_tou=600)
        self.cloud.misbehave(config="server-error")
        self.device.start()
        self.expect("not delivering: the configuration expired 110 min ago, and the server gives no "
                    "new one: HTTP status 500")

    #: A CA file that does not vouch for the servers is the cause, in the words of the TLS library.
    def test_wrong_ca(self):
        ca = self.folder / "other-ca.pem"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout",
                        str(self.folder / "key"), "-out", str(ca), "-subj", "/CN=other", "-days", "9"],
                       check=True, capture_output=True)
        self.device.environment["CURL_CA_BUNDLE"] = self.environment["CURL_CA_BUNDLE"] = str(ca)
        self.device.start()
        self.expect("not delivering: a server cannot be reached: SSL certificate problem: "
                    "unable to get local issuer certificate")
        doctor = self.kivstat("doctor")
        self.assertEqual(doctor.returncode, 1)
        self.assertRegex(doctor.stdout, r"server +broken +localhost:18443 \(.*\): SSL certificate "
                                        r"problem: unable to get local issuer certificate; "
                                        r"its certificate: .*issued by .*valid until ")

    #: Where no name is resolved, the network is the cause of all that is missing behind it.
    def test_dead_dns(self):
        self.use_command("ping", 'echo "ping: $*: Temporary failure in name resolution" >&2\nexit 2\n')
        self.device.start()
        self.expect("not delivering: no network: ping gets no answer to the name localhost")

    #: A set that starts in 1970, and whose time server is there too, does not know the time.
    @unittest.skipIf(os.environ.get("KIV_LAUNCHER"), "an emulated daemon takes no preloaded library")
    def test_clock_at_1970(self):
        clock = {"LD_PRELOAD": str(BUILD / "wrongclock.so"),
                 "KIV_CLOCK_AHEAD": str(3600 - int(time.time()))}
        for environment in (self.device.environment, self.environment):
            environment.update(clock, ASAN_OPTIONS=environment.get("ASAN_OPTIONS", "")
                               + ":verify_asan_link_order=0")
        date = {"action": "date", "value": IN_1970}
        self.cloud.misbehave(time=date, config=date)
        self.device.start()
        text = self.expect("not delivering: the time is not known: the server's date cannot be now: "
                           + IN_1970)
        self.assertIn("The set's own clock (1970-01-01 01:", text)

    #: Credentials that the stream refuses are the cause, with the service's own words.
    def test_refused_credentials(self):
        self.start_with_consent()
        self.cloud.control({"credentials": {"session-token": "another"}})
        self.device.send("usage.epg", {"text": "x" * 200})
        self.expect("not delivering: the stream refuses the credentials: "
                    "The security token included in the request is invalid.*")

    #: A stream that fails for a reason of its own is the cause, not the credentials.
    def test_stream_that_fails(self):
        self.start_with_consent()
        self.cloud.misbehave(firehose={"action": "refuse", "code": "ServiceUnavailableException",
                                       "status": 503, "message": "Slow down."})
        self.device.send("usage.epg", {"text": "x" * 200})
        self.expect("not delivering: the stream does not take the events: .*Slow down.*")

    #: A daemon that is gone is the cause, and has an exit status of its own.
    def test_daemon_that_does_not_run(self):
        self.start_with_consent()
        self.deliver_one()
        self.device.kill()
        text = self.expect("not running: kivApp does not run", 2)
        self.assertRegex(text, r"store +ok +")  # the rest is looked at all the same

    #: Whoever may not post is told so, and who may.
    @unittest.skipUnless(may_become_nobody(), "needs a second user")
    def test_queue_that_the_caller_may_not_write(self):
        self.start_with_consent()
        self.deliver_one()
        self.folder.chmod(0o755)
        self.expect("delivering: .*", 0)
        answer = self.kivstat(user=NOBODY, group=NOBODY, extra_groups=[])
        self.assertRegex(answer.stdout.split("\n")[0], r"^delivering, but you may not post on /kiv_queue "
                         r"\((mode 06[46]0, user root( and group root)? may post|"
                         r"who may cannot be seen from here)\)$")
        self.assertEqual(answer.returncode, 1)

    #: A queue that somebody removed is the cause: nobody can post.
    def test_queue_that_is_gone(self):
        self.start_with_consent()
        self.deliver_one()
        RT.mq_unlink(QUEUE.encode())
        self.expect(r"not delivering: the message queue /kiv_queue is not there")

    #: A store that another program keeps locked is the cause.
    def test_store_that_fails(self):
        self.start_with_consent()
        self.deliver_one()
        with contextlib.closing(sqlite3.connect(self.device.database, isolation_level=None)) as other:
            other.execute("BEGIN EXCLUSIVE")
            self.device.send("usage.epg", {"channel": 5}, sync=False)
            self.expect(r"not delivering: the store fails: database is locked "
                        rf"\({self.device.database}\)")
            other.execute("ROLLBACK")
        self.expect("delivering: .*", 0)

    #: A filter that refuses everything is the cause; explain names the rule.
    def test_filter_that_keeps_nothing(self):
        self.device.write_config(kiv_tou=True, **{"event-filter": {
            "include": [{"event-type": "usage.nothing"}]}})
        self.device.start()
        self.device.send("usage.epg", {"channel": 5})
        self.expect("not delivering: the event filter has kept nothing: it refused all 2 events since "
                    "the start")

    #: A device file that is missing is the first cause of all.
    def test_device_file_that_is_missing(self):
        (self.device.folder / "GlobalInfo").unlink()
        self.device.start()
        self.expect("not delivering: the device information cannot be read "
                    rf"\({self.device.folder}/GlobalInfo\)")

    #: Events that wait for a minimum that may never come are named as such.
    def test_upload_minimum_that_is_not_reached(self):
        self.cloud.control({"config": {"*": {"upload_events": {"min-size": 100000, "max-delay": 0}}}})
        self.start_with_consent()
        self.device.send("usage.epg", {"channel": 5})
        self.device.wait_for_stored(1)
        self.expect(r"delivering, but 1 event waits for the upload minimum \(\d+ of 100000 bytes\), "
                    'however long that takes: "max-delay" is off')

    #: Announced files that the object service refuses are named, with how often they were tried.
    def test_file_that_is_not_taken(self):
        self.start_with_consent()
        self.deliver_one()
        self.cloud.misbehave(s3="refuse")
        path = self.folder / "player.log"
        path.write_text("text")
        self.device.send("debug.dump", None, "--url", str(path), "--info", '{"unique-id": "x"}')
        self.expect(rf"delivering, but announced files are not taken: 1 waits, {path} was tried once")

    # --- looking changes nothing ---

    #: A look writes nothing into the set's folder, and makes no file of a log that is not there.
    def test_look_leaves_the_folder_as_it_was(self):
        self.start_with_consent()
        self.device.send("usage.epg", {"channel": 5})
        for how in ("running", "killed", "without a log"):
            if how == "killed":
                self.device.kill()
            if how == "without a log":
                with contextlib.closing(sqlite3.connect(self.device.database)) as store:
                    store.execute("PRAGMA wal_checkpoint(TRUNCATE)")
                for name in ("Db-wal", "Db-shm"):
                    (self.device.folder / name).unlink(missing_ok=True)
            trace = self.folder / "trace"
            before = self.everything()
            subprocess.run(["strace", "-f", "-e", "trace=file,write,pwrite64,ftruncate,mmap", "-o",
                            str(trace), str(BUILD / "tools/kivstat"), "--status",
                            str(self.status_file), *self.places()], env=self.environment,
                           capture_output=True, timeout=LIMIT_S, check=False)
            self.assertRegex(trace.read_text(), rf'openat\(.*"{self.device.database}"', how)
            for line in trace.read_text().splitlines():
                opened = re.search(r'open(at)?\(.*"([^"]*)", ([A-Z_|]*)', line)
                if opened and opened.group(2).startswith(str(self.device.folder)):
                    # SQLite opens a log that is there in this way, whatever for.
                    if not opened.group(2).endswith("/Db-wal"):
                        self.assertNotRegex(opened.group(3), "O_RDWR|O_WRONLY|O_CREAT", how)
                self.assertNotRegex(line, r" (pwrite64|ftruncate|unlink|rename)", how)
                self.assertNotRegex(line, r" write\((?!1,)", how)
                self.assertNotRegex(line, r"mmap\(.*PROT_WRITE.*MAP_SHARED", how)
            if how != "running":
                self.assertEqual(self.everything(), before, how)

    def everything(self):
        return {path.name: (path.stat().st_mtime_ns, path.stat().st_size)
                for path in self.device.folder.iterdir()}

    #: Where the status document lies on a disk, none is written, with a line; without a name for it
    #: none is written either, without one. The rest of the set is looked at all the same.
    def test_daemon_without_a_document(self):
        del self.device.environment["KIV_STATUS_FILE"]
        self.start_with_consent()
        self.deliver_one()
        self.assertFalse(self.status_file.exists())
        self.assertNotIn("kivStatus", self.device.err())
        self.assertRegex(self.first_line(*self.places()),
                         rf"delivering, but process \d+ runs, but says nothing of itself in "
                         rf"{self.status_file}")

    #: Again and again, until interrupted.
    def test_watch_looks_again(self):
        self.start_with_consent()
        with subprocess.Popen([str(BUILD / "tools/kivstat"), "--status", str(self.status_file),
                               "--interval", "0.1"], stdout=subprocess.PIPE, text=True,
                              env=self.environment) as watching:
            verdicts = 0
            while verdicts < 3:
                verdicts += watching.stdout.readline().startswith("delivering")
            watching.terminate()

    # --- explain, doctor ---

    #: Explain tells which consent or which rule decides, as the daemon's filter does.
    def test_explain(self):
        self.device.write_config(kiv_tou=True, **{"event-filter": {
            "include": [{"event-type": "usage.app"}, {"event-type": "usage.epg"}],
            "exclude": [{"data": {"channel": 9}}]}})
        event = self.folder / "event.json"

        def told(text, *words):
            event.write_text(text)
            answer = self.kivstat("explain", str(event), *self.places(), *words)
            return answer.returncode, answer.stdout.split("\n")[0]
        epg = '{"event-type": "usage.epg", "data": {"channel": %s}}'
        self.assertEqual(told(epg % 5), (0, "kept: event filter: rule 2 of include matches"))
        self.assertEqual(told(epg % 9), (1, "not kept: event filter: rule 1 of exclude matches"))
        self.assertEqual(told('{"event-type": "cpu.idle"}'),
                         (1, "not kept: event filter: no rule of include matches"))
        self.assertEqual(told("[]"), (1, "not kept: text: it is not a JSON object"))
        self.assertEqual(told(epg % '"it\'s"'), (
            1, "not kept: store: there is a single quote in it, which the store does not take"))
        self.device.write_consent("CUL-TOU 1 FALSE")
        self.assertEqual(told(epg % 5), (
            1, "not kept: user's consent: the user has not accepted the terms of use "
               f"({self.device.folder}/current_tou.txt)"))
        self.device.write_config(kiv_tou=False)
        self.assertEqual(told(epg % 5), (
            1, f'not kept: server\'s consent: "kiv_tou" is not true in {self.device.folder}/Config'))
        answer = self.kivstat("--json", *self.places(), "explain", "-", given=epg % 5)
        self.assertEqual(json.loads(answer.stdout)["kept"], False)

    #: kivstat takes the user's answer as the daemon takes it, whatever stands in the file.
    def test_consent_is_read_as_the_daemon_reads_it(self):
        self.device.write_config(kiv_tou=True)
        texts = ["CUL-TOU 1 TRUE", " CUL-TOU\n2\tTRUE and more", "CUL-TOU 1 true", "CUL-TOU 0 TRUE",
                 "CUL-TOU 1x TRUE", "CUL-TOU +3 TRUE", "CUL-TOU 2147483648 TRUE", "CUL-TOU -1 TRUE",
                 "cul-tou 1 TRUE", "CUL-TOU 1", "", "CUL-TOU 1 FALSE"]
        for text, demanded in [*((text, 0) for text in texts), (texts[0], 2), ("CUL-TOU 2 TRUE", 2)]:
            self.device.write_consent(text)
            if demanded:
                (self.device.folder / "tou_server_answer.txt").write_text(
                    json.dumps({"version": demanded}))
            kept = self.kivstat("explain", "-", *self.places(), given="{}").returncode == 0
            self.device.start(ready=False)
            self.device.wait_for_output("TOU accepted in TV")
            accepted = "CKivApp: TOU accepted in TV       : true" in self.device.out_lines()
            self.assertEqual(kept, accepted, (text, demanded))
            self.device.kill()

    #: What explain says is what the daemon then does.
    def test_explain_agrees_with_the_daemon(self):
        self.device.write_config(kiv_tou=True, **{
            "event-filter": {"exclude": [{"data": {"channel": {"$>=": 900}}}]},
            "upload_events": {"min-size": 100000}})
        self.start_with_consent()
        for channel in (5, 899, 900, 1000):
            event = {"event-type": "usage.epg", "data": {"channel": channel}}
            kept = self.kivstat("explain", "-", given=json.dumps(event)).returncode == 0
            self.device.send(event["event-type"], event["data"])
            self.assertEqual(kept, channel < 900)
        events = self.device.wait_for_stored(3)
        self.assertEqual([event["data"]["channel"] for event in events[1:]], [5, 899])

    #: The doctor finds a sound set in order without the daemon, asks no server for anything, and
    #: names what is not.
    def test_doctor(self):
        self.start_with_consent()
        self.deliver_one()
        self.device.stop()
        forgotten = RT.mq_unlink(QUEUE.encode())
        asked = len([entry for entry in self.cloud.requests() if entry["target"] != "https"])
        answer = self.kivstat("doctor")
        self.assertRegex(answer.stdout, r"server +ok +localhost:18443 \(configuration, terms of use, "
                                        r"time, events, files\) at \S+; its certificate: ")
        self.assertRegex(answer.stdout, rf"store +ok +{self.device.database} is whole, \d+ bytes")
        self.assertRegex(answer.stdout, rf"folder +ok +{self.device.folder}/ can be written")
        self.assertNotIn("broken", answer.stdout, forgotten)
        self.assertEqual(
            len([entry for entry in self.cloud.requests() if entry["target"] != "https"]), asked)
        self.device.database.write_bytes(b"not a database" * 1000)
        self.cloud.stop()
        answer = self.kivstat("doctor")
        self.assertEqual(answer.returncode, 1)
        self.assertRegex(answer.stdout, r"server +broken +localhost:18443 \(.*\) at \S+: .*")
        self.assertRegex(answer.stdout, rf"store +broken +{self.device.database}, \d+ bytes: "
                                        "file is not a database")

    #: Wrong usage, and an event that cannot be read, are "unable".
    def test_wrong_usage(self):
        for words in (["nonsense"], ["explain"], ["--interval", "0"], ["explain", "/nowhere/event"]):
            answer = self.kivstat(*words)
            self.assertEqual((answer.returncode, answer.stdout), (2, ""), words)
            self.assertTrue(answer.stderr.startswith("kivstat: "), words)


if __name__ == "__main__":
    unittest.main()
