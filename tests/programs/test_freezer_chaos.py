# Many handshakes with a file system, in each of which agent, freezer or both are killed at a random
# moment: nothing stays frozen for longer than the limit and a second.

import os
import pathlib
import random
import signal
import time

import pytest

from support.calls import depart_done, init_snapshot, mirror_done, wait_for_depart
from support.program import SLACK, exists
from support.waiting import wait_until

pytestmark = pytest.mark.not_under("tsan")  # a freezer has no threads

HANDSHAKES = int(os.environ.get("FREEZER_CHAOS", 4))  # of each kind; the real thing is 300
LIMIT = 1  # seconds
LATE = SLACK if "FREEZER_CHAOS" in os.environ else 10  # beside other tests no freezer is as quick
LUNS = [f"00000000-0000-0000-0000-{number:012}" for number in range(HANDSHAKES)]
RUN = pathlib.Path("/run/plugin_agent")


@pytest.mark.slow
@pytest.mark.parametrize("victim", ["agent", "freezer", "both"])
def test_nothing_stays_frozen_whoever_is_killed(start_daemon, volume, hooks, start_agent, victim):
    daemon, chance = start_daemon(luns=LUNS), random.Random(victim)

    def start():
        return start_agent("--fs", volume.path, "--hooks", hooks.path, "--max-freeze", LIMIT, "--max-mirror", 1,
                           lun="any", serves=False)

    agent, longest, at_rest = start(), 0, 0
    for lun in LUNS:
        agent.wait_for_err("subscribed to ")
        (RUN / "pause").unlink(missing_ok=True)
        step, freezer = daemon.call.begin(init_snapshot(lun)), None
        # The daemon would wait for ever for a host that vanishes before.
        agent.wait_for_err(f"LUN {lun}: snapshot announced")
        moment = time.monotonic() + chance.uniform(0, 0.9)
        volume.longest_stall()
        to_come = [mirror_done, wait_for_depart] + chance.choice([[], [depart_done]])
        while time.monotonic() < moment:
            freezer = agent.find_freezer() or freezer
            if to_come and step.done():
                step = daemon.call.begin(to_come.pop(0)(lun))
            time.sleep(0.002)
        at_rest += hooks.is_frozen("10-a")
        if victim != "agent" and freezer and exists(freezer):
            os.kill(freezer, signal.SIGSTOP if victim == "both" else signal.SIGKILL)
        if victim != "freezer":
            agent.kill()
            if victim == "both" and freezer and exists(freezer):
                os.kill(freezer, signal.SIGKILL)
            agent = start()
        else:
            step = daemon.call.begin(depart_done(lun))
            wait_until(lambda: any(record["lun"] == lun for record in agent.records))
        wait_until(lambda: not (RUN / "frozen").exists())
        longest = max(longest, volume.longest_stall())
        assert longest < LIMIT + LATE, lun
        assert not hooks.is_frozen("10-a")
    print(f"{victim} killed: {HANDSHAKES} handshakes, {at_rest} at rest then, longest stall {longest:.2f} s")
