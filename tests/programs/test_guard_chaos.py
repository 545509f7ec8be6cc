# Many handshakes while hosts are killed at random: every handshake ends.

import concurrent.futures
import itertools
import os
import random
import signal
import threading
import time

import pytest

from support.guard import guard_status
from support.program import PLUGIN_CTL, run
from support.waiting import wait_until

LUNS = [f"00000000-0000-0000-0000-00000000000{i}" for i in range(6)]

# GUARD_CHAOS=300 makes 300 handshakes with the guard's and the caller's usual time limits, which takes a
# quarter of an hour. Without it the test is short, with short limits.
HANDSHAKES = int(os.environ.get("GUARD_CHAOS", 24))
if "GUARD_CHAOS" in os.environ:
    GUARD_OPTIONS, CALL_TIMEOUT, HOST_LIFE, LONGEST_PAUSE = (), 65, 30, 8
else:
    GUARD_OPTIONS, CALL_TIMEOUT, HOST_LIFE, LONGEST_PAUSE = ("--fail-after", 3, "--timeout", 0.6), 10, 12, 2


def snapshot(lun, *commands, patience):
    """Makes six calls, each with its own deadline."""
    return run(PLUGIN_CTL, "--timeout", CALL_TIMEOUT, "snapshot", "--p80", lun, *commands,
               patience=patience)


@pytest.mark.slow
def test_every_handshake_ends(supervise, start_guard, start_agent):
    supervisor = supervise(luns=LUNS)
    guard = start_guard(*GUARD_OPTIONS)
    over, begun, kills = threading.Event(), itertools.count(), itertools.count()

    def be_killed_repeatedly(index):
        """A host that is killed again and again: mostly at once, now and then after standing still."""
        chance = random.Random(index)
        while not over.is_set():
            agent = start_agent("--plugin-id", f"host-{index}", "--run-dir", f"/run/agent-{index}",
                                lun=LUNS[index], serves=False)
            over.wait(1 + chance.expovariate(1 / HOST_LIFE))
            if chance.random() < 0.3:
                agent.signal(signal.SIGSTOP)
                over.wait(3 * chance.random())
            agent.kill()
            next(kills)
            over.wait(2 * chance.random())

    def take_snapshots(index):
        """A local caller, one handshake after the other: how each ended."""
        chance, ends = random.Random(100 + index), []
        while next(begun) < HANDSHAKES:
            time.sleep(chance.uniform(0, LONGEST_PAUSE))
            took = snapshot(LUNS[index], "--mirror", "true", "--split", "true",
                            patience=6 * CALL_TIMEOUT + 10)
            assert took.status == 0 or took.err, "failed without a report"
            ends.append(took.status)
        return ends

    with concurrent.futures.ThreadPoolExecutor(2 * len(LUNS)) as pool:
        hosts = pool.map(be_killed_repeatedly, range(len(LUNS)))
        try:
            ends = [end for ends in pool.map(take_snapshots, range(len(LUNS))) for end in ends]
        finally:
            over.set()
    list(hosts)

    # When no host is killed any more all is well, at the latest after one more restart.
    start_agent(lun=LUNS[0], serves=False)
    wait_until(lambda: snapshot(LUNS[0], patience=60).status == 0, patience=90)
    wait_until(lambda: guard_status().status == 0)
    print(f"hosts killed {next(kills)} times, restarts {supervisor.restarts}, exit codes {sorted(ends)}")
    assert 0 in ends
    assert "does not end" not in guard.err
