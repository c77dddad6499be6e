#!/usr/bin/python3
"""The Debian packages. The native one is installed, started, stopped and purged on a copy of this
machine's root that lives in memory; the machine itself stays as it is. The ARM one, which
./build-arm --package makes, is inspected.

    tests/tools/packaging_test.py BUILD-FOLDER
    tests/tools/packaging_test.py --arm
"""
import os
import pathlib
import re
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import time
import types
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
STATE = pathlib.Path("/var/lib/kivApp")
SHARED = pathlib.Path("/mnt")  # where the copy of the root sees the package and the set's files
INIT = "/etc/init.d/kivApp"
UNIT = pathlib.Path("/etc/systemd/system/kivApp.service")  # an administrator's, or /dev/null
AT_BOOT = pathlib.Path("/etc/systemd/system/multi-user.target.wants/kivApp.service")
# The run level is what init tells; a package starts its daemon only where there is one.
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "DEBIAN_FRONTEND": "noninteractive",
               "RUNLEVEL": "2", "PREVLEVEL": "N"}
FILES = """
/etc/default/kivApp
/etc/init.d/kivApp
/usr/bin/kivsend
/usr/bin/kivstat
/usr/lib/systemd/system/kivApp.service
/usr/sbin/kivApp
/usr/share/doc/kivapp/changelog.gz
/usr/share/doc/kivapp/copyright
/usr/share/man/man1/kivsend.1.gz
/usr/share/man/man1/kivstat.1.gz
/usr/share/man/man8/kivApp.8.gz
""".split()
LIBRARY_FILES = {
    "libkivevent0": """
/usr/lib/{arch}/libkivevent.so.0
/usr/lib/{arch}/libkivevent.so.0.1.0.0
""",
    "libkivevent-dev": """
/usr/include/kivevent.h
/usr/include/kivevent.hpp
/usr/lib/{arch}/libkivevent.a
/usr/lib/{arch}/libkivevent.so
/usr/lib/{arch}/pkgconfig/kivevent.pc
""",
    "python3-kivevent": """
/usr/lib/python3/dist-packages/kivevent.py
"""}
PROGRAM = """
#include <kivevent.hpp>
int main() {
    kivevent::Queue queue;
    queue.postSync(kivevent::Event("usage.app").add("compiled", true), std::chrono::seconds(20));
}
"""
# A root of its own over the machine's: what is written goes to memory. It has its own processes,
# queues, network (loopback alone), /tmp and /run, and asks no policy whether a daemon may start.
MAKE_ROOT = """
set -e
mount -t tmpfs tmpfs "$0"
mkdir "$0/upper" "$0/work" "$0/root"
mount -t overlay overlay -o "lowerdir=/,upperdir=$0/upper,workdir=$0/work" "$0/root"
cd "$0/root"
mount -t proc proc proc
mount -t tmpfs tmpfs dev
for device in null zero full random urandom; do
    touch dev/$device
    mount --bind /dev/$device dev/$device
done
mkdir dev/mqueue dev/shm
mount -t mqueue mqueue dev/mqueue
mount -t tmpfs tmpfs tmp
mount -t tmpfs tmpfs run
mount --bind "$1" mnt
rm -f usr/sbin/policy-rc.d
ip link set lo up
exec chroot . /usr/bin/python3 /mnt/packaging_test.py --inside
"""


def run(*command, status=0):
    """Runs a command, which must end with this status, and returns what it writes."""
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=120,
                          env=ENVIRONMENT)
    if done.returncode != status:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


def contents(deb):
    """{path: mode} of the files of a package."""
    lines = [line.split(None, 5) for line in run("dpkg-deb", "-c", deb).splitlines()]
    return {line[5][1:].split(" -> ")[0]: line[0] for line in lines if not line[5].endswith("/")}


def library_files(package, arch):
    """The files of one of the client library's packages, sorted."""
    papers = [f"/usr/share/doc/{package}/{name}" for name in ("changelog.gz", "copyright")]
    return sorted(LIBRARY_FILES[package].format(arch=arch).split() + papers)


# --- on the copy of the root ----------------------------------------------------------------------

def everything():
    """All paths where a package or a daemon may leave something; not the package system's own."""
    found = set()
    for top in ("/etc", "/usr", "/var", "/run", "/tmp", "/dev/mqueue", "/dev/shm"):
        for folder, folders, files in os.walk(top):
            found.update(os.path.join(folder, name) for name in folders + files)
    own = re.compile(r"/var/(lib/dpkg|cache/(man|debconf)|log)/|/usr/share/doc/$")
    return {path for path in found if not own.match(path)}


def daemons():
    """Process ids of all running daemons."""
    return [entry.name for entry in pathlib.Path("/proc").iterdir()
            if entry.name.isdigit() and (entry / "exe").exists()
            and os.readlink(entry / "exe").startswith("/usr/sbin/kivApp")]


def stored_event_types():
    with sqlite3.connect(f"file:{STATE}/Db?mode=ro", uri=True) as store:
        return [row[0] for row in store.execute("SELECT type FROM Events")]


def wait_until(condition, what):
    end = time.monotonic() + 20
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"not within 20 s: {what}")
        time.sleep(0.05)


class InstalledTest(unittest.TestCase):
    """One life of a package; the steps need each other."""

    #: The package starts the daemon when it is installed, the daemon takes an event and
    #: stops when told, and after a purge nothing of the package is left on the machine.
    def test_package_installs_starts_takes_an_event_stops_and_leaves_nothing(self):
        before = everything()
        deb = str(next(SHARED.glob("kivapp_*.deb")))

        run("dpkg", "-i", deb)
        self.assertEqual(len(daemons()), 1, "started by the installation")
        self.assertTrue(set(FILES) <= everything())
        self.assertTrue(AT_BOOT.is_symlink(), "systemd will start it, though it does not run here")
        run(INIT, "status")

        run(INIT, "stop")
        self.assertEqual(daemons(), [])
        self.assertIn("is not running", run(INIT, "status", status=3))
        run(INIT, "stop")

        for path in (SHARED / "set").iterdir():
            shutil.copy(path, STATE)
        with open("/etc/default/kivApp", "a", encoding="ascii") as settings:
            settings.write("KIV_LOG=/var/log/kivApp.log\nKIV_SERVERENV=dev\n")
        run(INIT, "start")
        run(INIT, "start")
        first = daemons()
        self.assertEqual(len(first), 1, "a second start changes nothing")
        environment = pathlib.Path(f"/proc/{first[0]}/environ").read_text()
        self.assertIn("KIV_SERVERENV=dev\0", environment)
        self.assertIn("LOC_NETWORK=true\0", environment)

        wait_until(pathlib.Path("/dev/mqueue/kiv_queue").exists, "the message queue")
        run("kivsend", "--sync=20", "usage.epg", '{"channel": 5}')
        wait_until(lambda: "usage.epg" in stored_event_types(), "the event in the store")
        # The places of an installed set are known to it; there is no server here, and no network.
        told = run("kivstat", status=1)
        self.assertRegex(told, r"^not delivering")
        self.assertIn(", has run for ", told)
        self.assertIn("CKivApp: Options summary:",
                      pathlib.Path("/var/log/kivApp.log").read_text())

        self.use_the_library()

        run(INIT, "restart")
        second = daemons()
        self.assertEqual(len(second), 1)
        self.assertNotEqual(second, first)
        self.assertIn("usage.epg", stored_event_types())

        AT_BOOT.unlink()
        run("dpkg", "-i", "--force-confold", deb)
        self.assertFalse(AT_BOOT.is_symlink(), "an administrator's choice stays")
        self.assertEqual(len(daemons()), 1, "running again after an upgrade")
        self.assertNotIn(second[0], daemons(), "the new one")
        self.assertIn("KIV_SERVERENV=dev", pathlib.Path("/etc/default/kivApp").read_text())

        run("dpkg", "--remove", "kivapp")
        self.assertEqual(daemons(), [])
        self.assertTrue((STATE / "Db").exists(), "removing keeps what was stored")
        self.assertEqual(os.readlink(UNIT), "/dev/null", "nor is the start script left a service")
        run("dpkg", "-i", "--force-confold", deb)
        self.assertFalse(UNIT.is_symlink())
        run("dpkg", "--remove", "kivapp")
        run("dpkg", "--purge", "kivapp")
        self.assertEqual(sorted(everything() - before), [])
        self.assertEqual(sorted(before - everything()), [])


    def use_the_library(self):
        """As a developer does: compiled programs and Python reach the daemon; nothing is left."""
        before = everything()
        run("dpkg", "-i", *(str(path) for package in LIBRARY_FILES
                            for path in SHARED.glob(f"{package}_*.deb")))
        pathlib.Path("/tmp/program.cpp").write_text(PROGRAM)
        events = stored_event_types().count("usage.app")
        for link in ("", "-static "):
            run("/bin/sh", "-ec", f"cd /tmp; c++ -std=c++17 {link}program.cpp -o program "
                f"$(pkg-config {link and '--static'} --cflags --libs kivevent); ./program")
        for path in ("/tmp/program.cpp", "/tmp/program"):
            os.unlink(path)
        run("/usr/bin/python3", "-c",
            "import kivevent; kivevent.Queue().post_sync('usage.app', {'key': 1}, timeout=20)")
        wait_until(lambda: stored_event_types().count("usage.app") == events + 3,
                   "the events of the programs and of Python")
        run("dpkg", "--purge", *LIBRARY_FILES)
        left = {path for path in everything() - before if not path.startswith("/var/")}
        self.assertEqual(left, set())


# --- on the machine itself ------------------------------------------------------------------------

class PackagesTest(unittest.TestCase):
    build = None

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="kivpackage."))
        self.addCleanup(shutil.rmtree, self.folder)

    def make_package(self):
        run("cpack", "--config", f"{self.build}/CPackConfig.cmake", "-B", str(self.folder))
        shutil.rmtree(self.folder / "_CPack_Packages")
        return next(self.folder.glob("kivapp_*.deb"))

    def write_set(self):
        """The files of a set whose user and server have consented."""
        os.environ["KIV_BUILD"] = str(self.build)
        sys.path.insert(0, str(ROOT / "tests/e2e"))
        import harness
        harness.Device(self.folder / "set", types.SimpleNamespace(ca="")).write_config(kiv_tou=True)

    #: The package for this machine holds the listed files and passes that life on a copy of
    #: the machine's root.
    def test_native_package_lives_and_goes_without_a_trace(self):
        deb = self.make_package()
        files = contents(deb)
        self.assertEqual(sorted(files), FILES)
        self.assertEqual(run("dpkg-deb", "--ctrl-tarfile", deb) and
                         run("dpkg-deb", "-I", deb, "conffiles").split(), FILES[:2])
        for program in ("/usr/bin/kivsend", "/usr/sbin/kivApp", INIT):
            self.assertEqual(files[program], "-rwxr-xr-x")
        triplet = run("gcc", "-print-multiarch").strip()
        for package in LIBRARY_FILES:
            (library,) = self.folder.glob(f"{package}_*.deb")
            self.assertEqual(sorted(contents(library)), library_files(package, triplet))
        self.write_set()
        shutil.copy(__file__, self.folder)
        with tempfile.TemporaryDirectory() as place:
            as_root = [] if os.geteuid() == 0 else ["sudo", "-n"]
            print(run(*as_root, "unshare", "--mount", "--pid", "--fork", "--ipc", "--net", "--uts",
                      "/bin/sh", "-c", MAKE_ROOT, place, str(self.folder)))


class ArmPackageTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    #: The ARM package holds the same files, built for 32-bit ARM.
    def test_arm_package_is_for_the_set(self):
        debs = sorted((ROOT / "build/arm/packages").glob("kivapp_*_armhf.deb"))
        self.assertTrue(debs, "no ARM package: ./build-arm --package makes it")
        self.assertEqual(run("dpkg-deb", "-f", debs[-1], "Architecture").strip(), "armhf")
        self.assertEqual(sorted(contents(debs[-1])), FILES)
        run("dpkg-deb", "-x", debs[-1], str(self.folder))
        depends = re.findall(r"[a-z][a-z0-9.+-]+", run("dpkg-deb", "-f", debs[-1], "Depends"))
        needed = set()
        for program in ("usr/sbin/kivApp", "usr/bin/kivsend"):
            header = run("readelf", "-h", str(self.folder / program))
            self.assertRegex(header, r"Machine: +ARM\n")
            self.assertIn("hard-float ABI", header)
            self.assertNotIn(".symtab", run("readelf", "-SW", str(self.folder / program)))
            needed |= set(re.findall(r"NEEDED.*\[(.*)\]",
                                     run("readelf", "-d", str(self.folder / program))))
        packages = {self.package_of(library) for library in needed}
        self.assertEqual(packages - set(depends), set(), "a library without its package")
        libraries = {name for name in depends if name.startswith(("lib", "zlib"))}
        self.assertEqual(libraries - packages, set(), "a package that is not needed")

    #: The packages of the client library hold the same files for 32-bit ARM.
    def test_arm_library_is_for_the_set(self):
        folder = ROOT / "build/arm/packages"
        for package in LIBRARY_FILES:
            (deb,) = folder.glob(f"{package}_*.deb")
            self.assertEqual(sorted(contents(deb)), library_files(package, "arm-linux-gnueabihf"))
        (deb,) = folder.glob("libkivevent0_*_armhf.deb")
        run("dpkg-deb", "-x", deb, str(self.folder))
        library = str(next(self.folder.glob("**/libkivevent.so.0.*")))
        self.assertRegex(run("readelf", "-h", library), r"Machine: +ARM\n")
        needed = set(re.findall(r"NEEDED.*\[(.*)\]", run("readelf", "-d", library)))
        depends = set(re.findall(r"[a-z][a-z0-9.+-]+", run("dpkg-deb", "-f", deb, "Depends")))
        self.assertEqual({self.package_of(name) for name in needed} - depends, set())

    def package_of(self, library):
        """The Debian package of a library that the ARM programs name."""
        for archive in (ROOT / "build/arm-apt/cache/archives").glob("*.deb"):
            if re.search(rf"/{re.escape(library)}( ->|$)", run("dpkg-deb", "-c", archive), re.M):
                return run("dpkg-deb", "-f", archive, "Package").strip()
        self.fail(f"no package has {library}")


if __name__ == "__main__":
    if sys.argv[1:] == ["--inside"]:
        unittest.main(argv=sys.argv[:1], defaultTest="InstalledTest")
    if sys.argv[1:] == ["--arm"]:
        unittest.main(argv=sys.argv[:1], defaultTest="ArmPackageTest")
    PackagesTest.build = pathlib.Path(sys.argv[1]).resolve()
    unittest.main(argv=sys.argv[:1], defaultTest="PackagesTest")
