#!/usr/bin/python3
"""What ./run says and does before and while the set is at work, and whom its cloud answers."""
import http.client
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request

from harness import BUILD, ROOT, Cloud, refuse_to_disturb_a_daemon, wait_until

sys.path.insert(0, str(ROOT / "tools"))
import demo  # noqa: E402

DEMO = ["/usr/bin/python3", str(ROOT / "tools/demo.py"), "--build", str(BUILD)]
ISOLATED = "KIV_ISOLATED" in os.environ and os.geteuid() == 0


class RunTest(unittest.TestCase):
    def setUp(self):
        refuse_to_disturb_a_daemon()
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="kivrun."))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)

    def start(self, *command, **how):
        process = subprocess.Popen([str(word) for word in command], **how)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def fake_daemon(self, *before):
        """A process that has the daemon's name and does nothing."""
        shutil.copyfile("/bin/sleep", self.folder / "kivApp")
        (self.folder / "kivApp").chmod(0o755)
        process = self.start(*before, self.folder / "kivApp", "60")
        comm = pathlib.Path(f"/proc/{process.pid}/comm")
        wait_until(lambda: comm.read_text() == "kivApp\n", "the process")
        return process

    #: Help is there before anything is installed or built.
    def test_help_needs_no_build(self):
        tools = self.folder / "bin"
        tools.mkdir()
        for name in ("bash", "cat", "dirname"):
            (tools / name).symlink_to(shutil.which(name))
        for option in ("--help", "-h"):
            result = subprocess.run([shutil.which("bash"), str(ROOT / "run"), "--once", option],
                                    capture_output=True, text=True, timeout=10, check=False,
                                    env={"PATH": str(tools)})
            self.assertEqual(result.returncode, 0, result.stderr)
            for word in ("--once", "--bind", "--open-page", "--http-port", "--https-port"):
                self.assertIn(word, result.stdout)

    #: A mistake in an option is told before anything is built.
    def test_mistake_is_told_before_the_build(self):
        for words in (["--http-port", "70000"], ["--bind", "here"], ["--open-page"], ["--twice"]):
            result = subprocess.run([*DEMO, "--prepare", self.folder / "s.json", *words],
                                    capture_output=True, text=True, timeout=10, check=False)
            self.assertEqual((result.returncode, result.stdout), (2, ""), words)

    #: Other ports become those of the services that are built in.
    def test_other_ports_are_built_in(self):
        path = self.folder / "s.json"
        
        def prepare(*words):
            return subprocess.run([*DEMO, "--prepare", path, *words], capture_output=True,
                                  text=True, timeout=10, check=True).stdout
        self.assertEqual(prepare(), "local\n")
        self.assertFalse(path.exists())
        self.assertEqual(prepare("--http-port", "28480", "--https-port", "28443"), f"{path}\n")
        services = json.loads(path.read_text())
        self.assertEqual(services["geolocation-url"], "http://localhost:28480/json")
        self.assertEqual(services["environments"]["prod"]["web-time-url"],
                         "https://localhost:28443/prod/time")
        self.assertNotIn(":18443", path.read_text())

    #: A daemon that would share the queue is named; one with a queue of its own is no hindrance.
    @unittest.skipUnless(ISOLATED, "needs namespaces")
    def test_set_in_another_container_is_no_hindrance(self):
        self.fake_daemon("unshare", "--ipc", "--")
        demo.refuse_second_daemon()
        other = self.fake_daemon_beside()
        with self.assertRaisesRegex(demo.Failed, rf"kivApp runs already \(process {other.pid}\)"):
            demo.refuse_second_daemon()

    def fake_daemon_beside(self):
        self.folder = self.folder / "beside"
        self.folder.mkdir()
        return self.fake_daemon()

    #: A port that is taken is named with its owner and with the way around.
    def test_taken_port_is_named_with_its_owner(self):
        with socket.create_server(("127.0.0.1", demo.HTTP_PORT)):
            result = subprocess.run([*DEMO, "--once", "--scratch", self.folder / "s"],
                                    capture_output=True, text=True, timeout=30, check=False)
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stderr.splitlines(), [
            f"localcloud: port {demo.HTTP_PORT}: Address already in use by run_test.py (process "
            f"{os.getpid()}); stop that, or choose another port with --http-port",
            "run: the local cloud did not start; the line above says why"])

    #: The address of the page comes first; then a line only where something has changed.
    def test_page_is_named_and_lines_tell_changes(self):
        process = self.start(*DEMO, "--scratch", self.folder / "s", stdout=subprocess.PIPE,
                             text=True)
        self.addCleanup(process.stdout.close)
        lines = [process.stdout.readline()]
        page = re.match(r"page: (http://127\.0\.0\.1:18480/) ", lines[0])[1]
        with urllib.request.urlopen(page, timeout=10) as answer:
            self.assertIn(b"<title>Local cloud</title>", answer.read())
        while sum(line.startswith("posted ") for line in lines) < 3:
            began = time.monotonic()
            lines.append(process.stdout.readline())
            self.assertNotEqual(lines[-1], "", lines)
        self.assertGreater(time.monotonic() - began, 3)
        told = [line for line in lines if line.startswith("posted ")]
        self.assertRegex(told[-1], r"posted \d+ \(\+\d+\), received \d+( \(\+\d+\))? in \d+")
        self.assertEqual(len(set(told)), len(told))
        process.send_signal(signal.SIGINT)
        self.assertIn("ended; everything is still in the scratch directory", process.stdout.read())
        self.assertEqual(process.wait(20), 0)


@unittest.skipUnless(ISOLATED, "needs namespaces")
class BindTest(unittest.TestCase):
    ADDRESS = "10.99.0.1"

    @classmethod
    def setUpClass(cls):
        subprocess.run(["ip", "address", "add", cls.ADDRESS + "/32", "dev", "lo"], check=True)

    def start_cloud(self, *options):
        folder = pathlib.Path(tempfile.mkdtemp(prefix="kivbind."))
        self.addCleanup(shutil.rmtree, folder, ignore_errors=True)
        Cloud.options = options
        self.addCleanup(setattr, Cloud, "options", ())
        self.addCleanup(Cloud(folder).stop)

    def status(self, address, path):
        connection = http.client.HTTPConnection(address, 18480, timeout=5)
        self.addCleanup(connection.close)
        connection.request("GET", path)
        return connection.getresponse().status

    #: Without being told so the cloud can be reached on loopback only.
    def test_only_loopback_without_more(self):
        self.start_cloud()
        self.assertEqual(self.status("127.0.0.1", "/"), 200)
        with self.assertRaises(ConnectionRefusedError):
            self.status(self.ADDRESS, "/")

    #: Another address opens the services, not the page and the control interface.
    def test_other_address_opens_the_services_only(self):
        for address in (self.ADDRESS, "0.0.0.0"):
            with self.subTest(address):
                self.start_cloud("--bind", address)
                self.assertEqual([self.status(self.ADDRESS, path) for path in
                                  ("/json", "/", "/page/state", "/control/state")],
                                 [200, 403, 403, 403])
                self.assertEqual(self.status("127.0.0.1", "/"), 200)
                self.doCleanups()

    #: The page is opened to others only when that is asked for, too.
    def test_page_is_opened_when_asked_for(self):
        self.start_cloud("--bind", self.ADDRESS, "--open-page")
        self.assertEqual([self.status(self.ADDRESS, path) for path in ("/", "/control/state")],
                         [200, 200])


if __name__ == "__main__":
    unittest.main()
