# One rest of the host, for all LUNs that are ready together; and what the appliance hears when it ends
# too early.

import os
import signal
import time

import grpc
import pytest

from support.calls import (LUN, OTHER_LUN, depart_done, init_snapshot, mirror_done, start_mirror,
                           wait_for_depart)
from support.program import PLUGIN_AGENT, PLUGIN_CTL, SLACK, Program, run
from support.waiting import wait_until


@pytest.fixture
def start(daemon, hooks, start_agent):
    return lambda *options, **more: start_agent("--hooks", hooks.path, *options, lun="any", **more)


def stands(daemon, lun=LUN):
    """Whether the host's departure stands."""
    try:
        return daemon.call.ask(wait_for_depart(lun), timeout=0.3)
    except grpc.RpcError:
        return False


def go_to_split(daemon, *luns):
    """Of all of them, announced and mirrored together."""
    for request in (init_snapshot, mirror_done, wait_for_depart):
        assert all(call.result().success for call in [daemon.call.begin(request(lun)) for lun in luns])


def test_luns_that_are_ready_together_share_one_rest(daemon, hooks, start):
    agent = start()
    go_to_split(daemon, LUN, OTHER_LUN)
    assert daemon.call.ask(depart_done(LUN))
    wait_until(lambda: not daemon.call.ask(start_mirror(LUN)))
    assert hooks.is_frozen("10-a"), "the other one's split is not over"
    assert daemon.call.ask(depart_done(OTHER_LUN))
    records = {agent.record(index)["lun"]: agent.record(index) for index in (0, 1)}
    assert [records[lun]["shared_with"] for lun in (LUN, OTHER_LUN)] == [[OTHER_LUN], [LUN]]
    assert {record["verdict"] for record in records.values()} == {"application-consistent"}
    assert len({record["frozen_ms"] for record in records.values()}) == 1
    assert hooks.take_runs() == 2 * ["10-a prepare"] + ["10-a freeze", "10-a thaw"]


def test_a_handshake_that_was_only_prepared_does_not_thaw_the_rest_of_another(log, daemon, hooks, start):
    agent = start()
    go_to_split(daemon, LUN)
    assert daemon.call.ask(init_snapshot(OTHER_LUN))
    assert daemon.call.ask(depart_done(OTHER_LUN))
    log.wait_for(f"handle_cmd_wait_for_depart Task not exists: [{OTHER_LUN}]")
    time.sleep(0.5)
    assert hooks.is_frozen("10-a") and stands(daemon)
    assert daemon.call.ask(depart_done(LUN))
    verdicts = {agent.record(index)["lun"]: agent.record(index)["verdict"] for index in (0, 1)}
    assert verdicts == {LUN: "application-consistent", OTHER_LUN: "failed"}
    assert hooks.take_runs() == ["10-a prepare", "10-a freeze", "10-a prepare", "10-a thaw", "10-a thaw"]


@pytest.mark.parametrize("hold, runs", [(5, 1), (30 - SLACK, 2)], ids=["joins", "too late"])
def test_a_latecomer_joins_while_there_is_time(daemon, hooks, start, hold, runs):
    agent = start("--hold", hold)
    go_to_split(daemon, LUN)
    daemon.call.ask(init_snapshot(OTHER_LUN))
    time.sleep(SLACK if runs == 2 else 0)
    daemon.call.ask(mirror_done(OTHER_LUN))
    other = daemon.call.begin(wait_for_depart(OTHER_LUN))
    if runs == 1:
        assert other.result().success
    else:
        wait_until(lambda: '"step":"turn"' in run(PLUGIN_AGENT, "status", "-o", "json").out)
    assert daemon.call.ask(depart_done(LUN))
    assert other.result().success
    assert daemon.call.ask(depart_done(OTHER_LUN))
    assert {agent.record(index)["verdict"] for index in (0, 1)} == {"application-consistent"}
    assert hooks.take_runs().count("10-a freeze") == runs


def test_a_member_that_fails_does_not_end_the_rest_of_the_others(daemon, hooks, start):
    agent = start()
    go_to_split(daemon, LUN, OTHER_LUN)
    assert daemon.call.ask(depart_done(LUN))
    somebody = Program(PLUGIN_CTL, "publish", "init-snapshot", "--p80", LUN)  # supersedes the first
    wait_until(lambda: daemon.call.ask(start_mirror(LUN)))
    assert stands(daemon, OTHER_LUN) and hooks.is_frozen("10-a")
    assert daemon.call.ask(depart_done(OTHER_LUN))
    assert agent.record(1)["verdict"] == "application-consistent"
    somebody.kill()


def test_departs_only_with_time_left(daemon, hooks, start):
    agent = start("--max-freeze", "2", "--hold", "1.5")
    hooks.block("10-a", "freeze")
    daemon.call.ask(init_snapshot(LUN))
    daemon.call.ask(mirror_done(LUN))
    hooks.wait_until_blocked()
    time.sleep(0.6)
    hooks.unblock()
    assert "--hold 1.5 s" in agent.record()["reason"]
    assert not stands(daemon)


@pytest.mark.parametrize("options", [["--hold", "30"], ["--max-freeze", "1", "--hold", "1"]])
def test_refuses_to_hold_longer_than_it_freezes(start_agent, options):
    agent = start_agent(*options, serves=False)
    assert agent.wait() == 2
    assert "--hold must be less than --max-freeze" in agent.err


# Under TSan plugin_agent --withdraw may need more than the second that a command before a thaw has.
BY_COMMAND = [pytest.param(end, marks=pytest.mark.not_under("tsan")) for end in ("agent killed", "both killed")]


@pytest.mark.parametrize("end", ["limit", "two signals", "freezer killed", "freezer told", "freezer stopped",
                                 *BY_COMMAND])
def test_takes_its_departure_back_before_the_thaw(log, daemon, hooks, start, end):
    options = ("--max-freeze", "2", "--hold", "0.1")
    agent = start(*options)
    daemon.call.go_to_split()
    assert stands(daemon)
    freezer = agent.freezer()
    hooks.block("10-a", "thaw")
    if end == "both killed":
        os.kill(freezer, signal.SIGSTOP)
        agent.kill()
        os.kill(freezer, signal.SIGKILL)
        assert stands(daemon), "nothing has been thawed yet"
        start(*options, serves=False)
    elif end == "agent killed":
        agent.kill()
    elif end.startswith("freezer"):
        os.kill(freezer, {"killed": signal.SIGKILL, "told": signal.SIGTERM, "stopped": signal.SIGSTOP}[end[8:]])
    elif end == "two signals":
        agent.signal(signal.SIGTERM)
        agent.signal(signal.SIGTERM)
    hooks.wait_until_blocked()
    assert not stands(daemon)
    hooks.unblock()
    hooks.wait_until_thawed("10-a")
    if end not in ("agent killed", "both killed"):
        assert agent.record()["verdict"] == "failed"
