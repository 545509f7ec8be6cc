# Exit code 0 of `plugin_ctl snapshot` means that the host was at rest throughout. The tests take
# snapshots of a file system in use, cause a fault during each at a random moment, and compare the
# verdict with a record of the writes that succeeded.

import contextlib
import json
import os
import random
import signal
import threading
import time

import pytest

from lun_cmd_pb2 import LunCmdResp
from plugin_service_pb2_grpc import PluginServiceServicer
from support.calls import TCP, Caller, serve
from support.network import lose_tcp
from support.program import PLUGIN_CTL, Program
from support.waiting import wait_until

pytestmark = pytest.mark.not_under("tsan")  # a freezer has no threads

# The full test is VERDICT_CHAOS=50: 1,000 snapshots in 50 parts, each with a seed of its own.
SEEDS = range(int(os.environ.get("VERDICT_CHAOS", 1)))
SNAPSHOTS = 20 if len(SEEDS) > 1 else 10
FAULTS = ["none", "agent killed", "freezer killed", "both killed", "agent stopped", "freezer stopped",
          "both stopped", "daemon stopped", "network down", "split too long", "told to stop twice"]
MAX_FREEZE, HOLD, MAX_SPLIT = 3, 1.5, 1.2  # seconds
LUNS = [f"lun-{number:04}" for number in range(SNAPSHOTS)]
PROXY = "127.0.0.1:3266"


class Snapshot:
    """A run of `plugin_ctl snapshot`, and when its split was under way."""

    def __init__(self, lun, seconds, max_split=MAX_SPLIT):
        reader, writer = os.pipe()
        self._lines = {}  # of the report: when it came
        split = f"sleep {seconds:.3f}; cut -d' ' -f1 /proc/uptime >/tmp/split_ended"
        self.program = Program(PLUGIN_CTL, "snapshot", "--p80", lun, "-o", "json", "--max-split", max_split,
                               "--split", split, stdout=writer)
        os.close(writer)
        self._reader = threading.Thread(target=self._read, args=(reader,))
        self._reader.start()

    def is_waited_for(self):
        return "wait_for_depart" in self._lines

    def was_called_good(self):
        """Waits for its end."""
        good = self.program.wait(patience=90) == 0
        self._reader.join()
        return good

    def was_written_to(self, volume):
        """From the end of the wait to the end of the split."""
        begin = self._lines["wait_for_depart"]
        with open("/tmp/split_ended", encoding="ascii") as ended:
            end = float(ended.read())
        return any(begin < began and ended < end for began, ended in list(volume.writes))

    def _read(self, reader):
        with open(reader, encoding="utf-8") as report:
            for line in report:
                self._lines[json.loads(line).get("step", "verdict")] = time.monotonic()


def signal_freezer(agent, number):
    """If there is one."""
    with contextlib.suppress(ProcessLookupError):
        if freezer := agent.find_freezer():
            os.kill(freezer, number)


def cause_fault(kind, agent, daemon):
    who, _, what = kind.partition(" ")
    number = {"killed": signal.SIGKILL, "stopped": signal.SIGSTOP}.get(what)
    if who in ("freezer", "both"):
        signal_freezer(agent, number)
    if who in ("agent", "both"):
        agent.signal(number)
    elif kind == "daemon stopped":
        daemon.stop()
    elif kind == "network down":
        lose_tcp(3265, True)
    elif kind == "told to stop twice":
        agent.signal(signal.SIGTERM)
        agent.signal(signal.SIGTERM)


def undo_fault(agent, daemon):
    lose_tcp(3265, False)
    for program in (daemon, agent):
        program.signal(signal.SIGCONT)
    signal_freezer(agent, signal.SIGCONT)


def wait_until_listed(agent, daemon):
    agent.wait_for_err("subscribed to")  # the daemon may still list one that was killed
    wait_until(lambda: daemon.call.ids() == ["host"])


def violations(daemon, volume, start, chance):
    """Takes snapshots: how many were called good, and which of these were written to meanwhile."""
    agent, good, bad = start(), 0, []
    for lun in LUNS:
        kind = chance.choice(FAULTS)
        wait_until_listed(agent, daemon)
        wait_until(lambda: not os.path.exists("/run/plugin_agent/frozen"))
        for left in ("/run/plugin_agent/pause", "/tmp/split_ended"):  # no pause between two rests
            if os.path.exists(left):
                os.unlink(left)
        volume.writes.clear()
        snapshot = Snapshot(lun, chance.uniform(0, 1) + (MAX_FREEZE if kind == "split too long" else 0))
        if chance.random() < 0.7:
            wait_until(lambda: snapshot.is_waited_for() or not snapshot.program.alive)
        time.sleep(chance.uniform(0, 0.9))
        # A host that vanishes while it is told of a snapshot hangs the daemon.
        wait_until(lambda: lun in agent.err or not snapshot.program.alive)
        cause_fault(kind, agent, daemon)
        if kind in ("agent killed", "both killed", "told to stop twice"):
            agent.wait()
            agent = start()  # as a service manager does
        elif kind == "daemon stopped" or chance.random() < 0.5:
            time.sleep(chance.uniform(0, 1.5))
            undo_fault(agent, daemon)
        called_good = snapshot.was_called_good()
        undo_fault(agent, daemon)
        volume.wait_until_thawed()
        if called_good:
            good += 1
            if snapshot.was_written_to(volume):
                bad.append((lun, kind))
    return good, bad


@pytest.fixture(name="daemon")
def daemon_with_many_luns(start_daemon):
    return start_daemon(luns=LUNS)


@pytest.fixture
def starter(volume, start_agent):
    """starter(appliance): what starts an agent for it."""
    return lambda appliance: lambda: start_agent(
        "--fs", volume.path, "--max-freeze", MAX_FREEZE, "--hold", HOLD, appliance=appliance, lun="any",
        serves=False)


@pytest.mark.fault
@pytest.mark.parametrize("seed", SEEDS)
def test_what_is_called_good_was_not_written_to(daemon, volume, starter, seed):
    """snapshots of a file system in use, while agent, freezer or both are killed or stopped, the daemon
    is stopped, the agent's network is down, or the split takes too long, at random moments

    Must hold: whenever `plugin_ctl snapshot` exits with 0, no write succeeded from the end of
    wait_for_depart to the end of the split
    """
    good, bad = violations(daemon, volume, starter("127.0.0.1"), random.Random(seed))
    print(f"seed {seed}: {good} of {SNAPSHOTS} called good, written to: {bad}")
    assert not bad
    assert good > 0


class IgnoresWithdrawals(PluginServiceServicer):
    """The daemon, except that it does not learn of departures that are taken back."""

    def __init__(self):
        self._daemon, self._departed = Caller(TCP).stub, set()

    def Subscribe(self, request, context):
        yield from self._daemon.Subscribe(request)

    def PluginConnList(self, request, context):
        return self._daemon.PluginConnList(request)

    def UnSubscribe(self, request, context):
        return self._daemon.UnSubscribe(request)

    def LunOp(self, request, context):
        if request.HasField("depart_relation_req"):
            self._departed.add(request.depart_relation_req.src_lun_id)
        elif request.HasField("start_mirror_req") and request.start_mirror_req.src_lun_id in self._departed:
            return LunCmdResp(success=True)
        return self._daemon.LunOp(request)


@pytest.mark.slow
def test_the_record_of_writes_finds_a_host_that_does_not_take_its_departure_back(daemon, volume, starter):
    serve(IgnoresWithdrawals(), PROXY)
    agent = starter(PROXY)()
    wait_until_listed(agent, daemon)
    snapshot = Snapshot(LUNS[0], 2 * MAX_FREEZE, max_split=20)
    wait_until(snapshot.is_waited_for)
    signal_freezer(agent, signal.SIGKILL)
    assert snapshot.was_called_good()
    assert snapshot.was_written_to(volume)
