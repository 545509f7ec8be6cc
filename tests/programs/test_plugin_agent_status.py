# `plugin_agent status`, and the agent's socket for it.

import json
import os
import pathlib
import socket

import pytest

from support.agent import go_to
from support.calls import LUN, depart_done
from support.program import PLUGIN_AGENT, run
from support.waiting import wait_until

RUN_DIR = pathlib.Path("/run/plugin_agent")


def ask(*options):
    return run(PLUGIN_AGENT, "status", *options)


def status():
    asked = ask("-o", "json")
    assert asked.status == 0, asked.err
    return json.loads(asked.out)


def test_shows_appliances_luns_hooks_and_file_systems(start_daemon, hooks, start_agent):
    daemon = start_daemon()
    hooks.add("20-everybodys", mode=0o757)
    agent = start_agent("--appliance", "127.0.0.9:1", "--hooks", hooks.path, "--fs", "/")
    agent.wait_for_err('info: subscribed to 127.0.0.1:3265 as "host"')
    here, nowhere = status()["appliances"]
    assert (here["appliance"], here["subscribed"], here["listed"], here["seen_as"]) == \
        ("127.0.0.1:3265", True, "YES", "127.0.0.1")
    wait_until(lambda: "Connection refused" in status()["appliances"][1]["reason"])
    assert (nowhere["subscribed"], nowhere["listed"]) == (False, "UNKNOWN")
    assert {each["name"]: each["refused"] for each in status()["hooks"]} == \
        {"10-a": "", "20-everybodys": "everybody may write to it"}
    assert [each["mount_point"] for each in status()["file_systems"]] == ["/"]
    assert (status()["luns"], status()["handshakes"], status()["last_verdicts"]) == ([LUN], [], [])
    daemon.kill()
    wait_until(lambda: not status()["appliances"][0]["subscribed"])


@pytest.mark.parametrize("step", ["prepare", "mirror", "freeze", "hold", "thaw"])
def test_names_the_step(daemon, hooks, start_agent, step):
    start_agent("--hooks", hooks.path, "--max-freeze", "60", "--hook-timeout", "60")
    announced = go_to(step, daemon.call, hooks)
    wait_until(lambda: [(each["lun"], each["step"]) for each in status()["handshakes"]] == [(LUN, step)])
    hooks.add("90-late")
    shown = ask().out
    assert LUN in shown
    assert ("90-late" in shown) == (step in ("prepare", "mirror")), "what may be frozen is not looked at"
    assert announced.done() or step == "prepare"


def test_keeps_the_last_verdicts(daemon, start_agent):
    agent = start_agent()
    for number in range(12):
        daemon.call.go_to_split()
        assert daemon.call.ask(depart_done(LUN))
        agent.record(number)
    wait_until(lambda: not status()["handshakes"])
    kept = status()["last_verdicts"]
    assert [each["time"] for each in kept] == [each["time"] for each in agent.records[:1:-1]]


def test_clients_that_do_not_read_do_not_hold_up_the_agent(daemon, start_agent):
    agent = start_agent()
    at, = RUN_DIR.glob("agent.*.sock")
    clients = [socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) for _ in range(100)]
    for client in clients:
        client.connect(str(at))
    daemon.call.whole_handshake()
    wait_until(lambda: status()["last_verdicts"])
    agent.leave()
    assert not list(RUN_DIR.glob("agent.*"))


def test_says_what_to_do_when_there_is_no_answer(daemon, start_agent):
    assert "no agent is running" in ask().err
    agent = start_agent("--max-freeze", "20")
    agent.stop()
    stopped = ask()
    assert stopped.status == 3 and f"agent {agent.pid} does not answer" in stopped.err
    agent.kill()
    gone = ask()
    assert gone.status == 3 and "systemctl start scsi-plugin-agent" in gone.err
    daemon.call.unsubscribe("host")
    agent = start_agent()
    assert [each.name for each in RUN_DIR.glob("agent.*")] == [f"agent.{agent.pid}.sock"]
    assert status()["pid"] == agent.pid
    if os.geteuid() == 0 and pathlib.Path("/proc/self/uid_map").read_text().split()[2] != "1":
        stranger = run("setpriv", "--reuid=40000", "--regid=40000", "--clear-groups", PLUGIN_AGENT, "status")
        assert stranger.status == 4 and "Permission denied; run as root" in stranger.err
