# The reference host agent, and hooks for it.

import contextlib
import json
import pathlib
import signal

from support.calls import LUN, depart_done, init_snapshot, mirror_done, wait_for_depart
from support.program import PLUGIN_AGENT, Program
from support.waiting import wait_until


class Agent(Program):
    """The agent of one LUN, named "host" and with a short poll where `options` do not say otherwise.

    Returns when it is subscribed, unless `serves` is false. `before` is put in front of the command
    line.
    """

    def __init__(self, *options, appliance="127.0.0.1", lun=LUN, serves=True, environment=None,
                 before=()):
        for name, value in (("--plugin-id", "host"), ("--poll", "0.05")):
            if name not in options:
                options = (*options, name, value)
        super().__init__(*before, PLUGIN_AGENT, "--appliance", appliance, "--lun", lun, *options,
                         environment=environment)
        if serves:
            self.wait_for_err("subscribed to ")

    @property
    def records(self):
        """Its verdicts on the handshakes so far: the lines of JSON in its log."""
        return [json.loads(line) for line in self.err.splitlines(keepends=True)
                if line.startswith("{") and line.endswith("\n")]

    def record(self, index=0):
        """The verdict on one handshake, waiting for it."""
        wait_until(lambda: len(self.records) > index)
        return self.records[index]

    def leave(self):
        """Told to stop, it must end well."""
        self.signal(signal.SIGTERM)
        assert self.wait() == 0, self.err

    def freezer(self):
        """The process id of its freezer, the last that it has started, waiting for it."""
        return wait_until(self.find_freezer)

    def find_freezer(self):
        """The same, or None while there is none."""
        found = []
        for children in pathlib.Path(f"/proc/{self.pid}/task").glob("*/children"):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                for child in children.read_text().split():
                    if pathlib.Path(f"/proc/{child}/comm").read_text() == "plugin_freezer\n":
                        found.append(int(child))
        return max(found, default=None)


def go_to(step, call, hooks):
    """Brings the agent to a step, where it stays: it waits for the hook 10-a, or for the local caller.

    Returns the call that announces the snapshot, which is not answered in "prepare".
    """
    in_hook = step in ("prepare", "freeze", "thaw")
    if in_hook:
        hooks.block("10-a", step)
    announced = call.begin(init_snapshot(LUN))
    if step != "prepare":
        assert announced.result().success
        requests = (mirror_done, wait_for_depart, depart_done)
        for request in requests[:["mirror", "freeze", "hold", "thaw"].index(step)]:
            assert call.ask(request(LUN)), request.__name__
    if in_hook:
        hooks.wait_until_blocked()
    return announced


_HOOK = """#!/bin/sh
name=${0##*/}
state=${0%/*}/.state
echo "$name $1" >> "$state/runs"
if [ -e "$state/block.$name.$1" ]; then
  touch "$state/blocked"
  while [ -e "$state/block.$name.$1" ]; do sleep 0.02; done
fi
[ -e "$state/fail.$name.$1" ] && exit 3
case $1 in
  freeze) touch "$state/frozen.$name" ;;
  thaw) rm -f "$state/frozen.$name" ;;
esac
exit 0
"""


class Hooks:
    """A directory of hooks that note each run, and fail or block when a test wants it.

    Each of them "freezes" by creating a file, and "thaws" by removing it.
    """

    def __init__(self, *names):
        self.path = pathlib.Path("/tmp/hooks")
        self._state = self.path / ".state"
        self._state.mkdir(parents=True)
        self.add(*names)

    def add(self, *names, mode=0o755):
        for name in names:
            (self.path / name).write_text(_HOOK)
            (self.path / name).chmod(mode)

    def fail(self, name, phase):
        """From now on it exits with 3 in this phase."""
        (self._state / f"fail.{name}.{phase}").touch()

    def block(self, name, phase):
        """From now on it blocks in this phase, until unblock()."""
        (self._state / "blocked").unlink(missing_ok=True)
        (self._state / f"block.{name}.{phase}").touch()

    def unblock(self):
        for file in self._state.glob("block.*"):
            file.unlink()

    def wait_until_blocked(self):
        wait_until((self._state / "blocked").exists)

    def runs(self):
        """What was run, in order: ["10-app prepare", "10-app freeze"]."""
        runs = self._state / "runs"
        return runs.read_text().splitlines() if runs.exists() else []

    def take_runs(self):
        """What was run since this was last called. Not while a hook may be starting."""
        lines = self.runs()
        (self._state / "runs").unlink(missing_ok=True)
        return lines

    def is_frozen(self, name):
        return (self._state / f"frozen.{name}").exists()

    def wait_until_thawed(self, name):
        wait_until(lambda: not self.is_frozen(name))
