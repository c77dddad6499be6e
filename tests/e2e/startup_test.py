#!/usr/bin/python3
"""Command line, order of the start-up and its lines."""
import json
import pathlib
import re
import signal
import sys
import unittest

from harness import (BUILD, DEVICE, MAC, PREFIX, WholeProgramTest, wait_until,
                     without_prefix)

VERSION = ["kivApp version: #0x442c3c4", "Build date: Fri 2019-05-17 03:00:13 UTC"]

USAGE = """Usage: PROGRAM [OPTIONS]
    -h, --help                      Print this help and exits
    -v, --verbose                   Switch on verbose mode
    -s, --silent                    Switch on silent mode
    -b, --bootfile <filename>       Set the bootfile to the given path
    -g, --globalinfofile <filename> Set the globalinfofile to the given path
    -c, --configfile <filename>     Set the configfile to the given path
    -e, --dbfile <filename>         Set the dbfile to the given path
    -t, --toudir <path>             Set the Tou directory to the given path
    -T, --testmode <path>           Set Aws in testmode and log to the file in given path
    -V, --version                   Show the version

"""


class CommandLineTest(WholeProgramTest):
    #: The program exits with 0 for version and help, with 255 for wrong options.
    def test_version_is_two_lines_and_reads_no_file(self):
        for option in ("-V", "--version"):
            ended = self.device.run("-g", "missing", "-d", "ignored", option)
            self.assertEqual(ended.stdout.splitlines(), VERSION)
            self.assertEqual(ended.returncode, 0)
        self.assertEqual([without_prefix(line) for line in ended.stderr.splitlines()],
                         ["UtcTime: Failed to parse time: ",
                          "CKivApp: Cannot read globalinfo file missing"])
        self.assertFalse(self.device.database.exists())
        self.assertEqual(self.device.run("-V").stderr, "")

    #: The program exits with 0 for version and help, with 255 for wrong options.
    def test_help_prints_the_usage_whole(self):
        for option in ("-h", "--help"):
            ended = self.device.run(option)
            self.assertEqual(ended.stdout.replace(str(BUILD / "kivApp"), "PROGRAM"), USAGE)
            self.assertEqual((ended.returncode, ended.stderr), (0, ""))

    #: The program exits with 0 for version and help, with 255 for wrong options.
    def test_unknown_option_ends_with_status_255(self):
        for arguments in (["-x"], ["--wrong"], ["-d"]):
            ended = self.device.run(*arguments)
            self.assertEqual(ended.returncode, 255, arguments)
            self.assertEqual(without_prefix(ended.stderr.splitlines()[-1]),
                             "CKivApp: Unknown option", arguments)

    #: The program exits with 0 for version and help, with 255 for wrong options.
    def test_verbose_and_silent_together_are_refused_before_any_file_is_written(self):
        for arguments in (["-v", "-s"], ["-s", "-v"], ["--silent", "--verbose"]):
            ended = self.device.run(*arguments)
            self.assertEqual(ended.returncode, 255, arguments)
            self.assertEqual(without_prefix(ended.stderr),
                             "CKivApp: Both verbose and silent option specified!\n", arguments)
            self.assertEqual(ended.stdout, "")
        self.assertFalse((self.device.folder / "Config").exists())


    #: SIGPIPE is ignored and SIGCHLD has its default, whatever was inherited, before
    #: anything else: a reader that goes away ends nothing, and no upload child's status is
    #: lost.
    def test_reader_that_goes_away_does_not_end_the_program(self):
        self.close_output()
        for option in ("-h", "-V"):
            self.assertEqual(self.device.run(option).returncode, 0, option)

    def close_output(self):
        """Has the daemon write its standard output into a pipe that nobody reads."""
        self.device.launcher = [
            sys.executable, "-c",
            "import os, signal, sys\n"
            "signal.signal(signal.SIGPIPE, signal.SIG_DFL)\n"
            "reading, writing = os.pipe()\n"
            "os.close(reading)\n"
            "os.dup2(writing, 1)\n"
            "os.execvp(sys.argv[1], sys.argv[1:])", *self.device.launcher]


class SignalTest(WholeProgramTest):
    def signals(self, name):
        """Numbers of the signals that are ignored ("SigIgn") or handled ("SigCgt")."""
        status = pathlib.Path(f"/proc/{self.device.process.pid}/status").read_text()
        mask = int(re.search(rf"^{name}:\s*(\w+)$", status, re.MULTILINE).group(1), 16)
        return {number for number in range(1, 65) if mask >> (number - 1) & 1}

    #: SIGPIPE is ignored and SIGCHLD has its default, whatever was inherited, before
    #: anything else: a reader that goes away ends nothing, and no upload child's status is
    #: lost.
    def test_inherited_dispositions_are_put_right_and_no_child_is_lost(self):
        self.device.launcher = [
            sys.executable, "-c",
            "import os, signal, sys\n"
            "signal.signal(signal.SIGPIPE, signal.SIG_DFL)\n"
            "signal.signal(signal.SIGCHLD, signal.SIG_IGN)\n"
            "os.execvp(sys.argv[1], sys.argv[1:])", *self.device.launcher]
        self.start_with_consent()
        self.assertIn(signal.SIGPIPE, self.signals("SigIgn"))
        self.assertNotIn(signal.SIGCHLD, self.signals("SigIgn"))
        self.assertNotIn(signal.SIGCHLD, self.signals("SigCgt"))
        path = self.device.folder / "a.log"
        path.write_text("content")
        self.device.send("usage.app", {"text": "x" * 90}, "--url", str(path))
        wait_until(lambda: self.device.alive() and self.cloud.objects(), "the file's arrival")
        wait_until(lambda: self.device.query("SELECT COUNT(*) FROM Files") == [(0,)],
                   "the child's success, which only its status tells")
        self.assertEqual(self.device.errors_beginning("kivAWSWrapper: "), 0, self.device.err())


class StartUpTest(WholeProgramTest):
    def summary(self, verbose, boot=1, standby=1, accepted="true", device=DEVICE):
        folder = self.device.folder
        return ["CKivApp: " + line for line in (
            "Options summary:",
            f"verbose                  : {verbose}",
            f"Config file path         : {folder}/Config",
            f"DB file path             : {folder}/Db",
            f"Boot-cycle               : {boot}",
            f"Standby-cycle            : {standby}",
            "SWVersion                : " + ("E2E.1.2.3" if device else ""),
            f"DeviceId                 : {device}",
            f"TOU accepted in TV       : {accepted}",
            "TOU version in TV        : 1",
            "Config EventAgeThreshold : 3500",
            "Config GetExpiryPeriod   : 600",
        )]

    #: On success it prints version and options summary before anything else; a silent start
    #: writes no error.
    def test_first_lines_are_the_version_and_the_options_summary_whole(self):
        for run, options in enumerate(([], ["-s"]), start=1):
            self.device.write_boot(run, 7)
            self.start_with_consent(*options)
            self.device.wait_for_output("Request Server URL")
            self.assertEqual(self.device.out_lines()[:14], VERSION + self.summary(0, run, 7))
            for line in self.device.out().splitlines()[2:14]:
                self.assertRegex(line, PREFIX)
            self.device.stop()
            self.assertEqual(self.device.err(), "")

    #: A verbose start takes its steps in order.
    def test_verbose_start_takes_its_steps_in_order(self):
        self.device.start("-v")
        self.device.wait_for_config()
        self.device.wait_for_output("TOU: tou version=1, ")
        self.device.wait_for_output(" message received: ")
        lines = self.device.out_lines()
        summary = lines.index("CKivApp: Options summary:")
        self.assertEqual([line for line in lines[:summary] if line in VERSION], VERSION)
        self.assertEqual(lines[summary:summary + 12], self.summary(1))
        self.assertIn("TOU:TOU accepted is 1 for version 1", lines[:summary])
        self.assertIn("kivconfig:  persistent config not found, creating default one",
                      lines[:summary])
        steps = ["CKivApp: Initializing...",
                 "CKivApp: Options summary:",
                 f"kivDB: Opened database {self.device.database} successfully: ",
                 "kivDB: Table Event created successfully",
                 "kivDB: Table Files created successfully",
                 "kivDB: Table TimeOffsets created successfully",
                 "kivDB: Table OpTimes created successfully",
                 "kivDB: Table Location created successfully",
                 "kivDBUUID: loadDBUUIDFile : new UUID created: " + self.device.db_token(),
                 "kivDB: Take lock for setOpTime",
                 "kivDB: Destructor: close DB ",
                 "kivAWSWrapper: Initializing aws",
                 "kivUpload:  Send message 5 0",
                 "kivGateway:Gateway initialized",
                 'kivGateway: message received: {"event-type": "kiv.start"}']
        self.assert_in_order(steps, lines)
        self.assert_in_order(["kivUpload: Got message 5 0",
                              "kivUpload: Initializing: refreshing config, tou and pending upload",
                              "Request Server URL https://localhost:18443/prod/time took",
                              "kivconfig:  trying to load config from server... force=",
                              "TOU: tou version=1, url=https://localhost:18443/terms-of-use/1, "
                              "mandatory=false",
                              "kivUpload:  Send message 4 0"], lines)

    def assert_in_order(self, steps, lines):
        place = 0
        for step in steps:
            found = [at for at in range(place, len(lines)) if step in lines[at]]
            self.assertTrue(found, f"not after the step before it: {step}")
            place = found[0] + 1

    #: The start event arrives once consent is on record, once.
    def test_start_event_arrives_once_consent_is_on_record(self):
        self.start_with_consent()
        self.restart(2, 3)
        start, = self.wait_for_events(1, "kiv.start")
        self.assertEqual(start["eventid"], 202)
        block, = self.cloud.blocks()
        self.assertEqual((block["boot-count"], block["standby-count"]), (2, 3))
        self.device.wait_for_empty_store()
        self.assertEqual(len(self.cloud.events("kiv.start")), 1)

    #: The operating minutes of each cycle are recorded.
    def test_operating_minutes_of_the_cycle_are_recorded(self):
        self.device.start()
        self.device.write_global_info(op_hour=9)
        self.restart(1, 2)
        wait_until(lambda: self.device.query("SELECT * FROM OpTimes ORDER BY 1,2")
                   == [(1, 1, 420), (1, 2, 540)], "the second cycle's operating minutes")

    #: Unreadable information files are reported and the defaults read.
    def test_unreadable_information_files_are_reported_and_the_defaults_are_read(self):
        folder = self.device.folder
        (folder / "Zero").write_text('{"boot-count": 0, "standby-count": 4}')
        (folder / "Nobody").write_text('{"country": "BE"}')
        self.device.start("-b", "Zero", "-b", "nowhere", "-g", "Nobody")
        self.assertEqual(self.device.err_lines(),
                         ["CKivApp: Cannot read bootinfo file Zero",
                          "CKivApp: Cannot read bootinfo file nowhere"])
        self.device.wait_for_output("GetExpiryPeriod")
        self.assertEqual(self.device.out_lines()[:14], VERSION + self.summary(0))

    #: A set without identity never asks for a configuration.
    def test_set_without_identity_never_asks_for_a_configuration(self):
        (self.device.folder / "GlobalInfo").write_text("{}")
        self.device.start("-v")
        self.device.wait_for_output("kivconfig:  DeviceId is empty")
        unparsed = "UtcTime: Failed to parse time: "  # once for -g, once for the default file
        self.assertEqual(self.device.err_lines(),
                         [unparsed, "CKivApp: Cannot read globalinfo file GlobalInfo", unparsed])
        lines = self.device.out_lines()
        first = lines.index("CKivApp: Options summary:")
        self.assertEqual(lines[first:first + 12], self.summary(1, device=""))
        self.device.wait_for_output("TOU: tou version")
        self.assertEqual(self.cloud.requests("config"), [])

    #: Token and sibling's version stand beside the configuration.
    def test_files_stand_beside_the_configuration_file(self):
        folder = self.device.folder / "data"
        folder.mkdir()
        self.device.start("-c", str(folder / "Config"))
        self.device.send("pim.start", {"pim-version": "2.5", "pim-builddate": "today"})
        self.assertEqual(json.loads((folder / "pimversion.json").read_text()),
                         {"pim-version": "2.5", "pim-builddate": "today"})
        token = (folder / "dbuuid.json").read_text()
        self.assertRegex(token, r'\A\{"db-uuid": "[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}"\}\Z')
        self.assertFalse((self.device.folder / "dbuuid.json").exists())

    #: Without a network the start asks nothing of it and takes events.
    def test_start_waits_for_the_network_without_asking_anything_of_it(self):
        self.use_command("ping", "exit 1\n")
        self.device.start("-v")
        self.device.wait_for_output("kivUpload: Initialization not possible as network not "
                                    "available, will retry in 1 minute")
        self.device.send("usage.epg", {"channel": 1})
        self.assertEqual(self.cloud.requests(), [])

    #: "KIV_SERVERENV" chooses addresses and keys.
    def test_server_environment_chooses_addresses_and_keys(self):
        for name in ("dev", "acc"):
            (self.device.folder / "Config").unlink(missing_ok=True)
            self.device.environment["KIV_SERVERENV"] = name
            self.start_with_consent()
            self.device.send("usage.epg", {"environment": name, "text": "x" * 100})
            self.wait_for_events(1 if name == "dev" else 2, "usage.epg")
            self.device.stop()
        asked = {target: [entry["environment"] for entry in self.cloud.requests(target, "accepted")]
                 for target in ("config", "time", "tou")}
        self.assertEqual(asked["config"], ["dev", "acc"])
        self.assertEqual(asked["tou"], ["dev", "acc"])
        self.assertEqual(asked["time"], ["dev"])  # known by then for this cycle

    #: A request says which device asks.
    def test_request_says_which_device_asks(self):
        (self.device.folder / "pimversion.json").write_text('{"pim-version": "7.1"}')
        self.start_with_consent()
        headers = self.cloud.requests("config")[0]["headers"]
        sent = {name: headers[name] for name in (
            "x-api-key", "X-swversion", "X-CTN", "X-platform", "Accept-Language", "X-serial",
            "X-kivversion", "X-pimversion", "X-currentTou", "X-mac")}
        self.assertEqual(sent, {
            "x-api-key": "local-prod-api-key-4f7d2c", "X-swversion": "E2E.1.2.3",
            "X-CTN": "55E2E0001/12", "X-platform": "E2E", "Accept-Language": "en-BE",
            "X-serial": "E2E0001", "X-kivversion": "#0x442c3c4", "X-pimversion": "7.1",
            "X-currentTou": "1", "X-mac": MAC})
        self.assertRegex(self.cloud.requests("config")[0]["path"], re.escape("/" + DEVICE) + r"\Z")
        time_headers = self.cloud.requests("time")[0]["headers"]
        self.assertEqual([name for name in time_headers if name.startswith("X-")], [])


if __name__ == "__main__":
    unittest.main()
