"""A small disk of an experiment's own, and its power switch.

An ext4 file system in an image file, mounted through a loop device in the mount namespace of the
experiment. `cut` ends it as the power does: what is not yet in the file system's log by then is
gone, and the next mount replays the log.
"""
import fcntl
import os
import pathlib
import shutil
import struct
import subprocess
import tempfile
import time

SHUTDOWN = 0x8004587D  # EXT4_IOC_SHUTDOWN
LOG_FLUSH, NO_LOG_FLUSH = 1, 2


class Disk:
    def __init__(self, folder, size_mib=16):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir(parents=True, exist_ok=True)
        self.image = self.folder / "disk.img"
        self.root = self.folder / "disk"
        self.root.mkdir(exist_ok=True)
        with open(self.image, "wb") as image:
            image.truncate(size_mib << 20)
        _run("mkfs.ext4", "-q", "-F", self.image)
        self.mounted = False

    def mount(self):
        """Replays the file system's log where the disk was cut off."""
        _run("mount", "-t", "ext4", "-o", "loop", self.image, self.root)
        self.mounted = True

    def unmount(self, limit_s=5):
        """Waits for the last user of a file to be gone."""
        end = time.monotonic() + limit_s
        while True:
            try:
                _run("umount", self.root)
                break
            except RuntimeError:
                if time.monotonic() > end:
                    raise
            time.sleep(0.01)
        self.mounted = False

    def cut(self, log_flush=False):
        """The power goes. Whoever writes or syncs from here on gets an error."""
        root = os.open(self.root, os.O_RDONLY)
        try:
            fcntl.ioctl(root, SHUTDOWN, struct.pack("I", LOG_FLUSH if log_flush else NO_LOG_FLUSH))
        finally:
            os.close(root)

    def sync(self):
        _run("sync", "-f", self.root)

    def statistics(self):
        """What the block device was told: (writes, sectors of 512 bytes written, flushes)."""
        number = os.stat(self.root).st_dev
        path = f"/sys/dev/block/{os.major(number)}:{os.minor(number)}/stat"
        fields = pathlib.Path(path).read_text().split()
        return int(fields[4]), int(fields[6]), int(fields[15])

    def copy_image(self, target):
        _run("cp", "--sparse=always", self.image, target)

    def remove(self):
        if self.mounted:
            self.unmount()
        shutil.rmtree(self.folder)


def why_not_possible():
    """Why this machine allows no such disk, in words; empty where it does."""
    if "KIV_ISOLATED" not in os.environ:
        return "no mount namespace of its own"
    if not shutil.which("mkfs.ext4"):
        return "no mkfs.ext4"
    folder = tempfile.mkdtemp(prefix="disk.")
    try:
        disk = Disk(folder, size_mib=4)
        disk.mount()
        try:
            disk.cut()
        finally:
            disk.unmount()
    except (RuntimeError, OSError) as error:
        return str(error).strip()
    finally:
        shutil.rmtree(folder, ignore_errors=True)
    return ""


def _run(*command):
    result = subprocess.run(command, capture_output=True, text=True)
    if result.returncode != 0:
        raise RuntimeError(f"{command[0]}: {result.stderr.strip() or result.returncode}")
