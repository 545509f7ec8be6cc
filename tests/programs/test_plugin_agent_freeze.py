# The host agent and a real file system, in use while it is frozen. Whatever happens to the agent, no
# write waits for longer than the limit and a second.

import json
import os
import pathlib
import re
import shutil
import signal
import time

import pytest

from support import agent
from support.calls import LUN, OTHER_LUN, depart_done, init_snapshot, mirror_done
from support.program import PLUGIN_AGENT, SANITIZED, SLACK, SOURCE, Program, exists, run
from support.waiting import wait_until

pytestmark = pytest.mark.not_under("tsan")  # a freezer has no threads

LIMIT = 3 if SANITIZED else 1  # seconds, like the next two
LONGEST_STALL = LIMIT + SLACK
FAR_LIMIT = 20  # for tests of what is thawed before it
STEPS = ["prepare", "mirror", "freeze", "depart", "hold", "thaw"]


@pytest.fixture
def start_freezer(daemon, volume, start_agent):
    return lambda *options, limit=LIMIT: start_agent("--fs", volume.path, "--max-freeze", limit,
                                                     "--hold", 0.1, *options)


@pytest.fixture
def go_to(daemon, volume, hooks):
    """support.agent.go_to with a step "depart": the host is frozen, and a stopped daemon does not answer."""
    def go_to(step):
        agent.go_to("freeze" if step == "depart" else step, daemon.call, hooks)
        if step == "depart":
            daemon.stop()
            hooks.unblock()
        if step in ("depart", "hold"):
            volume.wait_until_frozen()
    return go_to


@pytest.fixture
def start_over(daemon, volume, hooks):
    """Ends what is left of the handshake, and goes through a whole one."""
    def start_over(agent, index):
        assert daemon.call.ask(depart_done(LUN))
        daemon.call.wait_until_listed("host")
        daemon.call.go_to_split()
        volume.wait_until_frozen()
        assert daemon.call.ask(depart_done(LUN))
        assert agent.record(index)["verdict"] == "application-consistent"
        volume.wait_until_thawed()
        assert not hooks.is_frozen("10-a")
    return start_over


@pytest.mark.parametrize("step", STEPS)
def test_killed_at_any_step_the_host_is_thawed_at_once(daemon, volume, hooks, start_freezer, go_to,
                                                       start_over, step):
    agent = start_freezer("--hooks", hooks.path, limit=FAR_LIMIT)
    go_to(step)
    agent.kill()
    volume.wait_until_thawed()
    assert volume.longest_stall() < FAR_LIMIT / 2
    if step == "thaw":
        hooks.unblock()  # and the one that runs it again
    hooks.wait_until_thawed("10-a")
    hooks.unblock()
    daemon.signal(signal.SIGCONT)
    start_over(start_freezer("--hooks", hooks.path, limit=FAR_LIMIT), 0)


@pytest.mark.parametrize("step", STEPS)
def test_stopped_at_any_step_the_host_is_thawed_at_the_limit(daemon, volume, hooks, start_freezer, go_to,
                                                             start_over, step):
    agent = start_freezer("--hooks", hooks.path, "--hook-timeout", "60")
    volume.longest_stall()
    go_to(step)
    agent.stop()
    if step != "thaw":
        time.sleep(LONGEST_STALL)
    if step == "freeze":
        wait_until(lambda: "10-a thaw" in hooks.take_runs())
    hooks.unblock()
    volume.wait_until_thawed()
    hooks.wait_until_thawed("10-a")
    agent.signal(signal.SIGCONT)
    daemon.signal(signal.SIGCONT)
    if step in ("prepare", "mirror"):
        assert daemon.call.ask(depart_done(LUN))
    else:
        assert agent.record()["verdict"] == ("application-consistent" if step == "thaw" else "failed")
        assert volume.longest_stall() < LONGEST_STALL
        start_over(agent, 1)
    agent.leave()


def test_thaws_at_the_limit_when_the_split_takes_longer(daemon, volume, start_freezer):
    agent = start_freezer()
    daemon.call.go_to_split()
    record = agent.record()
    assert (record["verdict"], record["reason"]) == ("failed", f"the host was thawed at the limit of {LIMIT} s")
    assert record["frozen_ms"] >= 700 * LIMIT  # its last quarter is for taking the departure back
    assert volume.longest_stall() < LONGEST_STALL


def test_thaws_when_its_freezer_is_killed(volume, start_freezer, go_to):
    agent = start_freezer(limit=FAR_LIMIT)
    go_to("hold")
    freezer = agent.freezer()
    locked_kib = int(re.search(r"VmLck:\s+(\d+) kB", pathlib.Path(f"/proc/{freezer}/status").read_text())[1])
    os.kill(freezer, signal.SIGKILL)
    assert agent.record()["reason"] == "the freezer has died"
    volume.wait_until_thawed()
    assert volume.longest_stall() < FAR_LIMIT / 2
    assert locked_kib > 0 or SANITIZED  # which lock no memory


def test_a_new_agent_thaws_what_agent_and_freezer_could_not(volume, hooks, start_freezer, go_to):
    agent = start_freezer("--hooks", hooks.path, limit=FAR_LIMIT)
    go_to("hold")
    freezer = agent.freezer()
    os.kill(freezer, signal.SIGSTOP)
    agent.kill()
    os.kill(freezer, signal.SIGKILL)
    wait_until(lambda: not exists(freezer))
    frozen = pathlib.Path("/run/plugin_agent/frozen")
    assert frozen.exists()
    volume.wait_until_frozen()
    thawed = run(PLUGIN_AGENT, "--thaw-and-exit")
    assert thawed.status == 0
    assert f"{volume.path} was left frozen" in thawed.err
    volume.wait_until_thawed()
    assert not hooks.is_frozen("10-a")
    assert not frozen.exists()


def test_fails_when_somebody_else_has_frozen_the_file_system(daemon, volume, start_freezer):
    agent = start_freezer(limit=FAR_LIMIT)
    assert volume.freeze() == 0
    assert daemon.call.ask(init_snapshot(LUN)) and daemon.call.ask(mirror_done(LUN))
    record = agent.record()
    assert record["verdict"] == "failed"
    assert "somebody else has frozen it" in record["reason"]
    assert volume.thaw() == 0, "it was not the agent's to thaw"


def test_fails_when_somebody_else_has_thawed_the_file_system(daemon, volume, start_freezer):
    agent = start_freezer(limit=FAR_LIMIT)
    daemon.call.go_to_split()
    assert volume.thaw() == 0
    assert daemon.call.ask(depart_done(LUN))
    assert agent.record()["reason"] == f"somebody else has thawed {volume.path}"


def test_refuses_a_path_that_nothing_is_mounted_at_any_more(daemon, volume, start_agent):
    bound = pathlib.Path("/tmp/bound")
    bound.mkdir()
    assert run("mount", "--bind", volume.path, bound).status == 0
    agent = start_agent("--fs", bound)
    assert run("umount", bound).status == 0
    assert daemon.call.ask(init_snapshot(LUN)) and daemon.call.ask(mirror_done(LUN))
    assert "nothing is mounted there" in agent.record()["reason"]
    agent.leave()


def test_the_ready_hook_freezes_what_its_file_names(daemon, volume, start_agent):
    ready = pathlib.Path("/tmp/ready")
    ready.mkdir()
    shutil.copy(SOURCE / "tools/plugin_agent/hooks/90-fsfreeze", ready)
    conf = pathlib.Path("/tmp/ready.conf")
    conf.write_text(f"# data\n{volume.path}\n")
    agent = start_agent("--hooks", ready, "--max-freeze", "5", environment={"FSFREEZE_CONF": str(conf)})
    daemon.call.go_to_split()
    volume.wait_until_frozen()
    assert daemon.call.ask(depart_done(LUN))
    assert agent.record()["verdict"] == "application-consistent"
    volume.wait_until_thawed()
    daemon.call.go_to_split()
    volume.wait_until_frozen()
    agent.kill()
    volume.wait_until_thawed()


def test_freezes_what_was_mounted_last_first(daemon, volume, hooks, make_volume, start_freezer):
    """One lies in an image on the other, and can be frozen only while the other still takes writes.

    A refused hook keeps the verdict from being application-consistent, although another hook was run.
    """
    inner = make_volume(volume.path / "inner")
    hooks.add("20-refused", mode=0o644)
    agent = start_freezer("--fs", inner.path, "--hooks", hooks.path, "--refused-hooks", "warn",
                          limit=FAR_LIMIT)
    daemon.call.go_to_split()
    volume.wait_until_frozen()
    assert daemon.call.ask(depart_done(LUN))
    assert agent.record()["verdict"] == "filesystem-consistent"
    agent.leave()


def test_a_killed_agent_does_not_hang_in_metrics_on_the_frozen_file_system(daemon, volume, start_agent):
    """Metrics are written when a handshake ends, but not while the host is at rest: a process that waits for
    a frozen file system cannot be killed, and the freezer would thaw only at the limit."""
    metrics = volume.path / "agent.prom"
    agent = start_agent("--fs", volume.path, "--metrics", metrics, lun="any")
    wait_until(metrics.exists)
    daemon.call.go_to_split()
    volume.wait_until_frozen()
    for _ in range(2):  # the second ends the first
        assert daemon.call.ask(init_snapshot(OTHER_LUN))
        assert daemon.call.ask(depart_done(OTHER_LUN))
    time.sleep(0.2)
    volume.longest_stall()
    agent.kill()
    volume.wait_until_thawed()
    assert volume.longest_stall() < 10, "thawed at the limit of 30 s only"


def test_a_log_on_the_frozen_file_system_is_written_afterwards(daemon, volume):
    """Or not at all by an agent that is killed, which it must not hold up."""
    log = volume.path / "log"
    agent = Program("sh", "-c", 'log=$1; shift; exec "$@" 2>$log', "sh", log, PLUGIN_AGENT, "--appliance",
                    "127.0.0.1", "--plugin-id", "host", "--poll", "0.05", "--lun", LUN, "--fs",
                    volume.path, "--verbose")
    daemon.call.wait_until_listed("host")
    daemon.call.whole_handshake()
    volume.wait_until_thawed()
    assert volume.longest_stall() < LIMIT + SLACK
    record = wait_until(lambda: [line for line in log.read_text().splitlines() if line.startswith("{")])[0]
    assert json.loads(record)["verdict"] == "filesystem-consistent"
    daemon.call.go_to_split()
    volume.wait_until_frozen()
    daemon.call.begin(init_snapshot(OTHER_LUN))  # which is not this host's, as it says
    time.sleep(0.2)
    volume.longest_stall()
    agent.kill()
    volume.wait_until_thawed()
    assert volume.longest_stall() < 10, "thawed at the limit of 30 s only"
