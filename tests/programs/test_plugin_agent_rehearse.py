# `plugin_agent rehearse`: a rest of the host without an appliance.

import json
import signal

import pytest

from support.calls import LUN, depart_done
from support.program import PLUGIN_AGENT, Program, run
from support.waiting import wait_until

# Within one process gRPC hands over messages unseen by ThreadSanitizer.
pytestmark = pytest.mark.not_under("tsan")


def rehearse(*options):
    return run(PLUGIN_AGENT, "rehearse", *options)


def test_brings_the_host_to_rest_as_a_snapshot_does(volume, hooks):
    hooks.add("20-b")
    rehearsed = rehearse("--hooks", hooks.path, "--fs", volume.path, "--seconds", "0.7", "-o", "json")
    report = json.loads(rehearsed.out)
    record = report["record"]
    assert (rehearsed.status, report["as_asked"], record["verdict"]) == (0, True, "application-consistent")
    assert 0.7 < volume.longest_stall()
    assert 700 <= report["held_ms"] <= record["frozen_ms"] - record["freeze_ms"]
    assert record["freeze_ms"] > 0
    frozen, = report["file_systems"]
    assert frozen["mount_point"] == str(volume.path) and 0 < frozen["ms"] <= record["frozen_ms"]
    assert hooks.take_runs() == ["10-a prepare", "20-b prepare", "10-a freeze", "20-b freeze", "20-b thaw",
                                 "10-a thaw"]
    volume.wait_until_thawed()
    assert str(volume.path) in rehearse("--fs", volume.path, "--seconds", "0").out


@pytest.mark.parametrize("fault, verdict", [("prepare", "failed"), ("freeze", "failed"),
                                            ("thaw", "application-consistent"), ("slow freeze", "failed"),
                                            ("no hook", "crash-consistent")])
def test_fails_when_a_snapshot_would_not_be_what_was_asked_for(hooks, fault, verdict):
    options = []
    if fault == "no hook":
        (hooks.path / "10-a").unlink()
    elif fault == "slow freeze":
        hooks.block("10-a", "freeze")
        options = ["--hook-timeout", "0.3"]
    else:
        hooks.fail("10-a", fault)
    rehearsed = rehearse("--hooks", hooks.path, "--seconds", "0", *options, "-o", "json")
    report = json.loads(rehearsed.out)
    assert (rehearsed.status, report["as_asked"], report["record"]["verdict"]) == (1, False, verdict)
    assert not hooks.is_frozen("10-a") or fault == "thaw"


def test_refuses_to_begin_while_the_host_is_at_rest(daemon, hooks, start_agent):
    agent = start_agent("--hooks", hooks.path)
    daemon.call.go_to_split()
    refused = rehearse("--hooks", hooks.path)
    assert refused.status == 4 and f"agent {agent.pid} takes part in a snapshot of LUN {LUN}" in refused.err
    assert daemon.call.ask(depart_done(LUN))
    assert agent.record()["verdict"] == "application-consistent"
    agent.leave()
    other = Program(PLUGIN_AGENT, "rehearse", "--hooks", hooks.path, "--seconds", "20")
    wait_until(lambda: hooks.is_frozen("10-a"))
    assert "has this host at rest" in rehearse("--hooks", hooks.path).err
    other.signal(signal.SIGINT)
    assert other.wait() == 5
    assert not hooks.is_frozen("10-a")


def test_says_what_is_wrong_with_its_options(hooks):
    for options, complaint in (([], "plugin_agent.toml is not there"), (["--lun", "L"], "neither --hooks nor --fs is given"),
                               (["--hooks", hooks.path, "--seconds", "9", "--max-freeze", "9"], "--seconds is not less"),
                               (["--hooks", hooks.path, "--seconds", "61"], "is no number from 0 to 60"),
                               (["--fs", "relative"], "is no absolute path")):
        refused = rehearse(*options)
        assert refused.status == 2 and complaint in refused.err, refused.err
