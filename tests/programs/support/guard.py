# The guard over a daemon.

import json

from support.program import PLUGIN_GUARD, Program, run

STATUS_FILE = "/tmp/guard_status.json"


class Guard(Program):
    """Returns when it has found the daemon in order, unless `serves` is false."""

    def __init__(self, *options, serves=True, environment=None):
        super().__init__(PLUGIN_GUARD, "--status-file", STATUS_FILE, *options,
                         environment=environment)
        self.wait_for_err("the daemon serves on both endpoints" if serves else "guarding:")


def guard_status():
    """plugin_guard --status."""
    return run(PLUGIN_GUARD, "--status", "-o", "json", "--status-file", STATUS_FILE)


def reported(key):
    """One value of the guard's status; None without a status."""
    said = guard_status().out
    return json.loads(said).get(key) if said else None
