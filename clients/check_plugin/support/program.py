# Programs that a test starts.

import os
import pathlib
import signal
import subprocess
import tempfile

from support.waiting import PATIENCE, wait_until

SOURCE = pathlib.Path(__file__).resolve().parents[3]
BUILD = pathlib.Path(os.environ["SCSI_PLUGIN_BUILD"])
SCSI_PLUGIN_SERVER = BUILD / "plugin_server/scsi_plugin_server"
PLUGIN_CTL = BUILD / "tools/plugin_ctl/plugin_ctl"
PLUGIN_GUARD = BUILD / "tools/plugin_guard/plugin_guard"
PLUGIN_AGENT = BUILD / "tools/plugin_agent/plugin_agent"
PLUGIN_FREEZER = BUILD / "tools/plugin_agent/plugin_freezer"
SANITIZED = BUILD.name in ("asan", "tsan")
SLACK = 3 if SANITIZED else 1  # seconds by which a promised limit may be exceeded, since machines are slow


class Program:
    """A program that runs beside the test; ended, by its pid, at the end of the test at the latest.

    `environment` is added to the test's own. What it prints is in `out` and `err`. `group`: in a
    process group of its own, which signal_group() reaches.
    """

    started = []  # all of this test

    def __init__(self, *command, environment=None, stdout=None, stdin=subprocess.DEVNULL, group=False):
        self._out, self._err = tempfile.TemporaryFile(), tempfile.TemporaryFile()
        self.command = [str(word) for word in command]
        self._process = subprocess.Popen(
            self.command, stdin=stdin, stdout=stdout or self._out, stderr=self._err,
            env={**os.environ, **(environment or {})}, start_new_session=group)
        Program.started.append(self)

    @property
    def pid(self):
        return self._process.pid

    @property
    def out(self):
        return _text(self._out)

    @property
    def err(self):
        return _text(self._err)

    @property
    def alive(self):
        return self._process.poll() is None

    @property
    def status(self):
        """Its exit code, or minus the signal that ended it; None while it runs."""
        return self._process.poll()

    def wait_for_out(self, part):
        self._wait_for(lambda: self.out, part)

    def wait_for_err(self, part):
        self._wait_for(lambda: self.err, part)

    def _wait_for(self, text, part):
        wait_until(lambda: part in text() or not self.alive)
        assert part in text(), f"ended with {self.status} before it said so"

    def wait(self, patience=PATIENCE):
        """Waits for its end: the status."""
        return self._process.wait(patience)

    def signal(self, number):
        self._process.send_signal(number)

    def signal_group(self, number):
        try:
            os.killpg(self.pid, number)
        except ProcessLookupError:
            pass  # all have ended

    def stop(self):
        """SIGSTOP; it has stopped when this returns."""
        self.signal(signal.SIGSTOP)
        os.waitid(os.P_PID, self.pid, os.WSTOPPED | os.WNOWAIT)

    def kill(self):
        self._process.kill()
        self._process.wait()


def run(*command, environment=None, patience=PATIENCE):
    """Runs a program to its end."""
    program = Program(*command, environment=environment)
    program.wait(patience)
    return program


def exists(pid):
    """Whether a process has not ended."""
    try:
        return pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] != "Z"
    except (FileNotFoundError, ProcessLookupError):
        return False


def end_all():
    """Ends all programs of the test. Fails when a sanitizer has reported anything about one."""
    for program in Program.started:
        program.kill()
    for program in Program.started:
        for complaint in ("Sanitizer:", "runtime error:"):
            assert complaint not in program.err, f"{program.command}:\n{program.err}"


def _text(file):
    return os.pread(file.fileno(), 1 << 26, 0).decode(errors="backslashreplace")
