# plugin_ctl snapshot: however it ends, the daemon is left without its handshake, and with everybody
# else's.

import json
import os
import pathlib
import re
import signal
import syslog
import threading
import time

import pytest

from plugin_cmd_pb2 import PluginCmdResp
from plugin_service_pb2_grpc import PluginServiceServicer
from support.calls import (LUN, LUN_NAA, REPLICA_LUN, TCP, depart_relation, init_snapshot,
                           is_mirror_done, serve, start_mirror)
from support.host_plugin import HostPlugin
from support.program import PLUGIN_CTL, exists, run
from support.waiting import PATIENCE, wait_until


@pytest.fixture
def snapshot(start_plugin_ctl):
    """Starts it."""
    return lambda *more, lun=LUN, **how: start_plugin_ctl(
        "snapshot", "--p80", lun, "-o", "json", *more, **how)


def outcomes(tool):
    """Of the steps. The verdict comes after them."""
    return " ".join(json.loads(line)["outcome"] for line in tool.out.splitlines()[:-1])


def verdict(tool):
    return json.loads(tool.out.splitlines()[-1])


def task_is_there(daemon):
    return daemon.call.ask(start_mirror(LUN))


NOBODY, STARTS, DEPARTS = {"starts": False}, {"departs": False}, {}
HANG = '(trap "" TERM; exec sleep 1000) & echo "child $!."; wait'
WITHDRAW = f"{PLUGIN_CTL} lun start-mirror {LUN} >/dev/null"


@pytest.mark.parametrize("options, host, interrupted_in, all_outcomes, status, told, err", [
    pytest.param(*case[1:], id=case[0]) for case in (
        ("well", ["--mirror", "true", "--split", "true"], DEPARTS, None,
         "DONE DONE DONE DONE DONE DONE DONE", 0, 0, ""),
        ("well, without commands", [], DEPARTS, None,
         "DONE SKIPPED DONE DONE SKIPPED DONE DONE", 0, 0, ""),
        ("mirror fails", ["--mirror", "exit 7"], DEPARTS, None,
         "DONE FAILED NOT_RUN NOT_RUN NOT_RUN NOT_RUN DONE", 4, 7, "the command exited with 7"),
        ("split fails", ["--split", "kill -KILL $$"], DEPARTS, None,
         "DONE SKIPPED DONE DONE FAILED NOT_RUN DONE", 4, 137, "ended by signal 9"),
        ("split takes too long", ["--max-split", "0.3", "--split", HANG], DEPARTS, None,
         "DONE SKIPPED DONE DONE FAILED NOT_RUN DONE", 4, 143, "--max-split"),
        ("host takes its departure back", ["--split", WITHDRAW], DEPARTS, None,
         "DONE SKIPPED DONE DONE DONE FAILED DONE", 1, 1, "the host did not stay at rest"),
        ("no mirror command", ["--mirror", "/no/such/program"], DEPARTS, None,
         "DONE FAILED NOT_RUN NOT_RUN NOT_RUN NOT_RUN DONE", 4, 127, "exited with 127"),
        ("somebody else ends it", ["--mirror", f"{PLUGIN_CTL} publish depart-done {LUN}"], STARTS, None,
         "DONE DONE SKIPPED FAILED NOT_RUN NOT_RUN NOT_RUN", 1, 0, "somebody else ended this handshake"),
        ("somebody else ends it in split", ["--split", f"{PLUGIN_CTL} publish depart-done {LUN}"], DEPARTS,
         None, "DONE SKIPPED DONE DONE DONE FAILED NOT_RUN", 1, 0, "somebody else ended this handshake"),
        ("deadline before a host starts", ["--timeout", "1.2"], NOBODY, None,
         "FAILED NOT_RUN NOT_RUN NOT_RUN NOT_RUN NOT_RUN DONE", 3, 1, "DEADLINE_EXCEEDED"),
        ("deadline before a host departs", ["--timeout", "2"], STARTS, None,
         "DONE SKIPPED DONE FAILED NOT_RUN NOT_RUN DONE", 3, 1, "DEADLINE_EXCEEDED"),
        ("interrupted in init", [], NOBODY, "init",
         "INTERRUPTED NOT_RUN NOT_RUN NOT_RUN NOT_RUN NOT_RUN DONE", 5, 1, "begin the next snapshot"),
        ("interrupted in mirror", ["--mirror", HANG], DEPARTS, "command",
         "DONE INTERRUPTED NOT_RUN NOT_RUN NOT_RUN NOT_RUN DONE", 5, 143, "the command was ended"),
        ("interrupted in wait", [], STARTS, "wait",
         "DONE SKIPPED DONE INTERRUPTED NOT_RUN NOT_RUN DONE", 5, 1, "a signal ended the wait"),
        ("interrupted in split", ["--split", HANG], DEPARTS, "command",
         "DONE SKIPPED DONE DONE INTERRUPTED NOT_RUN DONE", 5, 143, "the command was ended"),
    )])
def test_ends_what_it_began(log, daemon, snapshot, options, host, interrupted_in, all_outcomes, status,
                            told, err):
    plugin = HostPlugin(daemon, **host)
    tool = snapshot(*options)
    child = None
    if interrupted_in == "init":
        assert plugin.announced.wait(PATIENCE)
    elif interrupted_in == "wait":
        log.wait_for("Wait for depart relation [")
    elif interrupted_in == "command":
        child = wait_until(lambda: re.search(r"child (\d+)\.", tool.err))[1]
        assert exists(child)
    if interrupted_in:
        tool.signal(signal.SIGINT)
    assert tool.wait() == status
    assert outcomes(tool) == all_outcomes
    assert err in tool.err
    assert plugin.told(LUN) == told
    assert not task_is_there(daemon)
    assert not child or not exists(child), "the command's own child goes on"
    told_at_last = verdict(tool)
    assert told_at_last["verdict"] == ("consistent" if status == 0 else "failed")
    assert (told_at_last["at_rest_seconds"] > 0) == (status == 0)
    history = [line for line in log.lines() if line.tag == "scsi-plugin-snapshot"]
    assert [(line.priority, json.loads(line.text)) for line in history] == [
        (syslog.LOG_NOTICE if status == 0 else syslog.LOG_ERR, told_at_last)]


def test_goes_on_without_a_host_when_it_is_told_to(log, daemon, snapshot):
    refused = snapshot("--split", "touch /tmp/was_split")
    assert refused.wait() == 1 and not os.path.exists("/tmp/was_split")
    assert "no host is subscribed" in verdict(refused)["reason"]
    mistyped = snapshot(lun=LUN.upper())
    assert mistyped.wait() == 1 and "nothing was announced" in mistyped.err
    assert log.count("Init snapshots broadcast") == 0
    mistyped = snapshot("--no-host", "crash-consistent", lun=LUN.upper())
    assert mistyped.wait() == 0 and "warning: the daemon does not know the LUN" in mistyped.err
    alone = snapshot("--split", "touch /tmp/was_split", "--no-host", "crash-consistent")
    assert alone.wait() == 0
    assert outcomes(alone) == "SKIPPED SKIPPED SKIPPED SKIPPED DONE SKIPPED NOT_RUN"
    assert verdict(alone)["verdict"] == "crash-consistent" and os.path.exists("/tmp/was_split")
    # Somebody else's handshake for the LUN is no missing host.
    host = daemon.subscribe("esx")
    somebody = daemon.call.begin(init_snapshot(LUN))
    host.next_cmd()
    busy = snapshot("--no-host", "crash-consistent")
    assert busy.wait() == 1 and verdict(busy)["verdict"] == "failed"
    assert task_is_there(daemon) and somebody.result().success


@pytest.mark.parametrize("wanted, status, told", [([], 0, 0), (["--host", "esx"], 1, 1)])
def test_names_hosts_that_were_lost_meanwhile(daemon, snapshot, wanted, status, told):
    plugin, _ = HostPlugin(daemon), daemon.subscribe("esx")
    leave = f"{PLUGIN_CTL} unsubscribe esx >/dev/null"
    tool = snapshot("--split", leave, "--host", "", *wanted)
    assert tool.wait() == status
    assert plugin.told(LUN) == told
    assert verdict(tool)["hosts"] == ["", "esx"] or verdict(tool)["hosts"] == ["esx", ""]
    assert verdict(tool)["lost_hosts"] == ["esx"]
    assert "the host esx" in tool.err


def test_announces_nothing_without_the_hosts_that_it_needs(daemon, snapshot):
    host = daemon.subscribe("esx")
    tool = snapshot("--host", "esx", "--host", "other")
    assert tool.wait() == 1
    assert "the host other is not listed" in tool.err
    assert host.waiting == 0


def test_leaves_a_task_alone_that_is_not_its_own(daemon, snapshot):
    host = daemon.subscribe("esx")
    somebody = daemon.call.begin(init_snapshot(LUN))
    host.next_cmd()
    refused = snapshot()
    assert refused.wait() == 1
    assert outcomes(refused) == "FAILED NOT_RUN NOT_RUN NOT_RUN NOT_RUN NOT_RUN NOT_RUN"
    assert "a handshake for this LUN is under way" in refused.err
    assert task_is_there(daemon)
    assert somebody.result().success


def test_goes_on_with_a_lun_that_needs_no_mirror(daemon, snapshot):
    """The host's question whether its mirror is done answers itself, so that the local caller's report
    of it comes too late."""
    host = daemon.subscribe("esx")
    departed = pathlib.Path("/tmp/departed")
    tool = snapshot("--mirror", f"until [ -e {departed} ]; do sleep 0.01; done", lun=REPLICA_LUN)
    host.next_cmd()
    assert daemon.call.ask(start_mirror(REPLICA_LUN))
    tool.wait_for_out("init_snapshot")
    assert daemon.call.ask(is_mirror_done(REPLICA_LUN))
    assert daemon.call.ask(depart_relation(REPLICA_LUN))
    departed.touch()
    assert tool.wait() == 0, tool.err
    assert outcomes(tool) == "DONE DONE SKIPPED DONE SKIPPED DONE DONE"


class RefusingDaemon(PluginServiceServicer):
    """Takes its time to say no."""

    def __init__(self):
        self.asked, self.told, self.answers = [], threading.Event(), threading.Event()

    def Publish(self, request, context):
        self.asked.append((request.WhichOneof("cmd_body"), context.time_remaining()))
        self.told.set()
        self.answers.wait()
        return PluginCmdResp(success=False)


@pytest.mark.parametrize("number, pause, err", [
    (signal.SIGINT, 0.3, "a handshake for this LUN is under way"),  # a signal waits for the refusal
    (0, 1.1, "no host answered with start_mirror"),
])
def test_a_no_at_once_is_a_refusal_and_a_later_one_a_missing_host(snapshot, plugin_ctl, number, pause, err):
    daemon = RefusingDaemon()
    serve(daemon)
    tool = snapshot("-t", TCP)
    assert daemon.told.wait(PATIENCE)
    tool.signal(number)
    time.sleep(pause)
    daemon.answers.set()
    assert tool.wait() == 1
    assert err in tool.err
    (asked, time_left), = daemon.asked
    assert asked == "init_snapshot_req" and time_left > 60
    assert plugin_ctl("publish", "init-snapshot", "--p80", LUN, "-t", TCP).status == 1
    assert daemon.asked[-1][1] > 60


@pytest.mark.parametrize("command, step, all_outcomes", [
    ("--mirror", "mirror_done", "DONE DONE FAILED NOT_RUN NOT_RUN NOT_RUN FAILED"),
    ("--split", "confirm", "DONE SKIPPED DONE DONE DONE FAILED FAILED"),
])
def test_says_that_a_task_may_be_left_when_the_daemon_dies(daemon, snapshot, command, step, all_outcomes):
    HostPlugin(daemon)
    daemon.may_end = True
    ended = snapshot(command, f"kill -KILL {daemon.pid}")
    assert ended.wait() == 3
    assert outcomes(ended) == all_outcomes
    assert f"{step}, " in ended.err and "came back: UNAVAILABLE" in ended.err
    assert "`plugin_ctl publish depart-done" in ended.err


def test_ends_the_handshake_when_the_connection_comes_back(daemon, snapshot):
    host = HostPlugin(daemon)
    tool = snapshot("-t", "127.0.0.7", "--timeout", "60", "--split",
                    "nft 'table inet cut { chain out { type filter hook output priority 0;"
                    "ip daddr 127.0.0.7 tcp dport 3265 reject with tcp reset; }; }'; ss --kill --tcp dst 127.0.0.7")
    tool.wait_for_out("confirm")
    assert run("nft", "delete", "table", "inet", "cut").status == 0
    assert tool.wait() != 0
    assert outcomes(tool) == "DONE SKIPPED DONE DONE DONE FAILED DONE"
    assert host.told(LUN) != 0 and not task_is_there(daemon)


def test_ends_the_handshake_even_if_nobody_reads_the_report(daemon, snapshot):
    host = HostPlugin(daemon)
    reader, writer = os.pipe()
    tool = snapshot("--mirror", "true", stdout=writer)
    os.close(reader)
    assert (tool.wait(), tool.err) == (141, "")
    assert host.told(LUN) == 0
    assert not task_is_there(daemon)


@pytest.mark.parametrize("caller", [("env", "--ignore-signal=CHLD"), ("sh", "-c", 'exec "$@" 2>&-', "sh")])
def test_runs_commands_whatever_it_inherits(daemon, caller):
    ended = run(*caller, PLUGIN_CTL, "snapshot", "--p80", LUN, "--no-host", "crash-consistent",
                "--mirror", "echo mirrored")
    assert ended.status == 0, ended.out


def test_tells_the_commands_which_lun(daemon, plugin_ctl):
    HostPlugin(daemon)
    ended = plugin_ctl(
        "snapshot", "--p80", LUN, "--p83", LUN_NAA, "--uuid", "U", "--dst-uuid", "D", "--dst-p80", "DP",
        "--dst-p83", "DN", "--replica", "--cmd-sn", "3", "--qel-sn", "Q", "--mirror", "env | grep ^VEXO_",
        environment={"VEXO_SRC_LUN_UUID": "of somebody else"})
    assert ended.status == 0
    told = dict(line.split("=", 1) for line in ended.err.splitlines() if line.startswith("VEXO_"))
    assert told.items() >= {
        "VEXO_CMD_SN": "3", "VEXO_COMMAND": "init_snapshot_req", "VEXO_DST_LUN_P80": "DP",
        "VEXO_DST_LUN_P83": "DN", "VEXO_DST_LUN_UUID": "D", "VEXO_IS_FOR_REPLICA": "true",
        "VEXO_QEL_SN": "Q", "VEXO_SRC_LUN_P80": LUN, "VEXO_SRC_LUN_P83": LUN_NAA,
        "VEXO_SRC_LUN_UUID": "U", "VEXO_TASK_ID": LUN}.items()
    header, first, *_ = ended.out.splitlines()
    assert header == "STEP             OUTCOME       SECONDS  REASON"
    assert first.startswith("init_snapshot    done            ")
