# The daemon, and a supervisor that restarts it.

import json
import pathlib
import shutil

from support.calls import Caller, Host
from support.program import SCSI_PLUGIN_SERVER, SOURCE, Program
from support.waiting import wait_until

SAMPLE_LUNS = SOURCE / "iscsi_conf/standin/sample_luns.json"


class Daemon(Program):
    """A process of the real daemon, and `call`, a local caller of it.

    Returns when it serves, unless `serves` is false.

    `luns`: the inventory has these instead of the sample's. `directory`: whether /tmp/iscsi is
    there, and empty; None leaves it as it is.
    `limits`: as prlimit takes them, {"nofile": "64:64", "nproc": "20"}.
    `may_raise_limits`: with CAP_SYS_RESOURCE. `before`: in front of the command line.
    """

    def __init__(self, log, *, luns=None, directory=True, limits=None, may_raise_limits=True,
                 environment=None, serves=True, before=()):
        inventory = SAMPLE_LUNS
        if luns is not None:
            inventory = pathlib.Path("/tmp/luns.json")
            inventory.write_text(json.dumps({"storage_objects": [{"wwn": lun} for lun in luns]}))
        if directory is not None:
            shutil.rmtree("/tmp/iscsi", ignore_errors=True)
        if directory:
            pathlib.Path("/tmp/iscsi").mkdir()
        command = [*before]
        if limits:
            command += ["prlimit", *(f"--{name}={value}" for name, value in limits.items())]
        if not may_raise_limits:
            command += ["setpriv", "--bounding-set=-sys_resource"]
        variables = {"VEXO_ISCSI_CONF": inventory, **(environment or {})}
        command += ["env", *(f"{name}={value}" for name, value in variables.items())]
        served_before = log.count("listening on unix:")
        super().__init__(*command, SCSI_PLUGIN_SERVER, "--arguments", "have no effect")
        self.call = Caller()
        self.may_end = not serves
        if serves:
            wait_until(lambda: not self.alive or log.count("listening on unix:") > served_before)
            assert self.alive, f"ended at its start with {self.status}"

    def subscribe(self, plugin_id, *more):
        """A host, which is connected and listed."""
        host = Host(plugin_id, *more)
        wait_until(lambda: self.call.is_listed(plugin_id))
        return host

    def kill(self):
        assert self.alive or self.may_end, f"the daemon ended with {self.status}:\n{self.err}"
        self.may_end = True
        super().kill()


class Supervisor(Daemon):
    """Restarts the daemon whenever it has ended, as a service manager does."""

    _LOOP = 'while :; do "$@" & echo $!; wait $!; done'

    def __init__(self, log, **options):
        super().__init__(log, before=("sh", "-c", self._LOOP, "sh"), **options)

    @property
    def pid(self):
        """Of the daemon that was started last."""
        return int(self.out.split()[-1])

    @property
    def restarts(self):
        return len(self.out.split()) - 1
