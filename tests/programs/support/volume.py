# File systems to freeze.

import errno
import fcntl
import itertools
import os
import pathlib
import signal
import threading
import time

import pytest

from support.program import Program, run
from support.waiting import wait_until

_FIFREEZE, _FITHAW = 0xC0045877, 0xC0045878
_FROZEN = 0.15  # seconds; longer than a write takes on a busy machine


def mount_image(image, path, kind="ext4", size="16M"):
    """A new file system. Skips the test where there can be none."""
    def run_or_skip(*command):
        tried = run(*command)
        if tried.status != 0:
            pytest.skip(f"{command[0]}: {tried.err}")
        return tried.out.strip()

    run_or_skip("truncate", "--size", size, image)
    run_or_skip(f"mkfs.{kind}", "-q", image)
    # "mount -o loop" would look at every other loop device first, and hang while one is stalled.
    device = run_or_skip("losetup", "--find", "--show", image)
    run_or_skip("mount", device, path)
    run_or_skip("losetup", "--detach", device)  # when it is unmounted


class Volume:
    """ext4 on an image, mounted by loop, and a thread that writes to it, each time to the disk.

    Skips the test where there can be none. End it with close(). With `stalling`, stall() holds up all
    writes to the image until resume().
    """

    def __init__(self, path, stalling=False):
        if os.geteuid() != 0 or pathlib.Path("/proc/self/uid_map").read_text().split()[2] == "1":
            pytest.skip("only root can mount and freeze file systems")
        self.path = pathlib.Path(path)
        self.path.mkdir()
        image, self._storage = f"{path}.image", None
        if stalling:
            for folder in (f"{path}.below", f"{path}.image"):
                pathlib.Path(folder).mkdir()
            self._storage = Program("bindfs", "-f", "-o", "attr_timeout=0,entry_timeout=0", f"{path}.below", image)
            wait_until(lambda: os.path.ismount(f"{path}.image") or not self._storage.alive)
            if not self._storage.alive:
                pytest.skip(f"bindfs: {self._storage.err}")
            image += "/image"
        mount_image(image, self.path)
        self._root = os.open(self.path, os.O_RDONLY | os.O_DIRECTORY)
        self._over = False
        self._began = time.monotonic()  # the last write
        self._longest = 0
        self.writes = []  # when each began and ended that succeeded, on the monotonic clock
        self._writer = threading.Thread(target=self._write_on, daemon=True)
        self._writer.start()

    def stall(self):
        self._storage.stop()

    def resume(self):
        self._storage.signal(signal.SIGCONT)

    def close(self):
        if self._storage:
            self.resume()
        left_frozen = self.thaw() == 0
        self._over = True
        self._writer.join()
        os.close(self._root)
        assert run("umount", "--lazy", self.path).status == 0
        assert not left_frozen, f"{self.path} was left frozen"

    def freeze(self):
        """0 or an errno, like thaw()."""
        return self._ioctl(_FIFREEZE)

    def thaw(self):
        return self._ioctl(_FITHAW)

    def wait_until_frozen(self):
        """Until the writer has made no progress for some time."""
        wait_until(lambda: self._stalled_for() >= _FROZEN)

    def wait_until_thawed(self):
        """Until the writer makes progress."""
        wait_until(lambda: self._stalled_for() < _FROZEN / 3)

    def longest_stall(self):
        """The seconds that the longest write since the last call has taken, one under way included."""
        longest, self._longest = max(self._longest, self._stalled_for()), 0
        return longest

    def _stalled_for(self):
        return time.monotonic() - self._began

    def _ioctl(self, request):
        try:
            fcntl.ioctl(self._root, request, 0)
            return 0
        except OSError as error:
            assert error.errno in (errno.EBUSY, errno.EINVAL), error
            return error.errno

    def _write_on(self):
        file = os.open(self.path / "written", os.O_WRONLY | os.O_CREAT, 0o600)
        for number in itertools.count():
            if self._over:
                break
            self._began = time.monotonic()
            os.pwrite(file, bytes([number % 256]), 0)
            os.fdatasync(file)
            ended = time.monotonic()
            self.writes.append((self._began, ended))
            self._longest = max(self._longest, ended - self._began)
            time.sleep(0.003)
        os.close(file)
