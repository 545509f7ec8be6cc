# The host agent beside the real daemon. What it does with real file systems is tested in
# test_plugin_agent_freeze.

import os
import pathlib
import re
import signal
import time

import pytest
from google.protobuf.empty_pb2 import Empty

from lun_cmd_pb2 import LunCmdResp
from plugin_cmd_pb2 import PluginClient, PluginClientList, PluginCmd
from plugin_service_pb2_grpc import PluginServiceServicer
from support.agent import go_to
from support.calls import (LUN, LUN_NAA, OTHER_LUN, depart_done, init_snapshot, mirror_done, serve,
                           start_mirror)
from support.program import PLUGIN_AGENT, Program, run
from support.waiting import wait_until

CONFIG = pathlib.Path("/tmp/agent.toml")


# Wrong usage ends with 2. What is not there may be there the next time, so it ends with 4.
def test_says_what_is_wrong_with_its_options():
    for status, options, complaint in (
            (2, "--lun L", "--appliance is required"),
            (2, "--appliance nas", "--lun is required"),
            (2, "--appliance nas --lun naa.60014051a2b3c4dd5e6fd7a8bd9c0dde", "the digits alone"),
            (2, "--appliance nas --lun 360014051a2b3c4dd5e6fd7a8bd9c0dde", "writes 60014051a2b3c4dd5e6fd7a8b"),
            (2, "--appliance nas --lun /dev/sda", '--lun "/dev/sda" is a path: "plugin_agent luns" shows'),
            (2, "--appliance nas --appliance nas:3265 --lun L", "--appliance nas:3265 is given twice"),
            (2, "--appliance [::1] --lun L", "IPv4 peers only"),
            (2, "--appliance unix:///tmp/s --lun L", "IPv4 peers only"),
            (2, "--appliance nas:70000 --lun L", "port"),
            (2, "--type os2", "--type: os2 not in"),
            (2, "--max-freeze inf", '--max-freeze: "inf" is no number from 0.1 to 60'),
            (2, "--max-mirror nan", "is no number from"),
            (2, "--hook-timeout -1", "is no number from"),
            (2, "--config /none", "/none cannot be read: No such file or directory"),
            (2, "--config /tmp", "/tmp cannot be read: Is a directory"),
            (4, "--appliance nas --lun L --hooks /none", "/none cannot be read"),
            (4, "--appliance nas --lun L --hooks /tmp", "/tmp is not used: everybody may write to it"),
            (4, "--appliance nas --lun L --hooks /etc/passwd", "/etc/passwd cannot be read"),
            (4, "--appliance nas --lun L --hooks /h --run-dir /proc/none", "/proc/none cannot be used"),
            (2, "--appliance nas --lun L --fs data", "no absolute path"),
            (2, "--appliance nas --lun L --fs /run", "lies on /run"),
            (4, "--appliance nas --lun L --fs /none", "mount it first"),
            (4, "--appliance nas --lun L --fs /usr/bin", "nothing is mounted there; mount it first"),
            (2, "--appliance nas --lun L --fs /proc", "a file system of type proc cannot be frozen"),
            (2, "--appliance nas --lun L --fs /tmp", "a file system of type tmpfs cannot be frozen")):
        refused = run(PLUGIN_AGENT, *options.split())
        assert refused.status == status and complaint in refused.err, refused.err


def test_says_what_is_wrong_with_its_file_and_in_which_line():
    for text, complaint in (
            ('lun = [\n"L"\n', ":2: Error while parsing array"),  # no closing bracket
            ('lun = "L\nverbose = true\n', ":1: Error while parsing string"),
            ('lun = 1a2b3c4d-5e6f\n', ":1: Error while parsing date: expected 4-digit year, saw 'a'; text stands in quotes"),
            ('lun = "L"\nlun = "M"\n', ":2: Error while parsing key-value pair: cannot redefine"),
            ('\n[agent]\nlun = "L"\n', ':2: "agent" is a section'),
            ('\n\nappliances = "nas"\n', ':3: no option is called "appliances"'),
            ('config = "x"\n', ':1: no option is called "config"'),
            ('poll = "1"\n', ":1: poll must be a number, not of type string"),
            ('lun = [\n"L",\n5]\n', ":3: lun must be a string, not of type integer"),
            ('hooks = ["/h"]\n', ":1: hooks must be a string, not of type array"),
            ("verbose = 1\n", ":1: verbose must be true or false, not of type integer"),
            ("\npoll = nan\n", ':2: --poll: "nan" is no number from'),
            ('type = "os2"\n', ":1: --type: os2 not in"),
            ('lun = [\n""]\nappliance = "nas"\n', ":1: --lun is empty"),
            ('lun = "L M"\nappliance = "nas"\n', ':1: --lun "L M" has blanks'),
            ('lun = "L"\nappliance = "nas"\nrun-dir = ""\n', ":3: --run-dir is empty"),
            ('lun = "L"\nappliance = "nas"\nhooks = ""\n', ":3: --hooks is empty"),
            ('lun = "L"\nappliance = "::1"\n', ":2: --appliance ::1: commands are pushed to IPv4"),
            ('appliance = "nas"\nlun = []\n', ": --lun is required")):
        CONFIG.write_text(text)
        refused = run(PLUGIN_AGENT, "--config", CONFIG)
        assert refused.status == 2 and f"plugin_agent: {CONFIG}{complaint}" in refused.err, refused.err


def test_reads_a_file_where_the_command_line_says_nothing(daemon):
    CONFIG.write_text(f'appliance = "127.0.0.1:3265"\nlun = [ # all\n"{OTHER_LUN}",\n"{LUN}",\n]\n'
                      'plugin-id = "filed"\ntype = "windows"\npoll = 60\nmax-freeze = 5e-1\n')
    agent = Program(PLUGIN_AGENT, "--config", CONFIG, "--poll", "0.05")
    agent.wait_for_err("subscribed to")
    host, = daemon.call.list()
    assert (host.plugin_id, host.type) == ("filed", PluginClient.WINDOWS)
    daemon.call.whole_handshake()
    agent.wait_for_err('"verdict":"crash-consistent"')
    agent.signal(signal.SIGTERM)
    assert agent.wait() == 0


def test_runs_hooks_in_order_and_undoes_in_reverse(daemon, hooks, start_agent):
    hooks.add("20-b")
    agent = start_agent("--hooks", hooks.path)
    daemon.call.whole_handshake()
    record = agent.record()
    assert (record["verdict"], record["lun"]) == ("application-consistent", LUN)
    assert record["frozen_ms"] > 0
    assert len(record["hooks"]) == 6
    assert hooks.take_runs() == ["10-a prepare", "20-b prepare", "10-a freeze", "20-b freeze",
                                 "20-b thaw", "10-a thaw"]
    agent.leave()
    assert not daemon.call.ask(init_snapshot(LUN), timeout=10)  # which meets no vanished host


@pytest.mark.parametrize("options", [(), ("--refused-hooks", "warn")])
def test_a_refused_hook_is_logged_at_the_start_and_fails_each_snapshot(daemon, hooks, start_agent, options):
    """Its application would not be brought to rest. `warn` needs file systems, which are not given."""
    hooks.add("20-not-executable", mode=0o644)
    hooks.add("30-everybodys", mode=0o757)
    agent = start_agent("--hooks", hooks.path, *options)
    assert "error: hook 30-everybodys is refused: everybody may write to it" in agent.err
    announced = daemon.call.begin(init_snapshot(LUN))
    record = agent.record()
    assert (record["verdict"], record["reason"]) == (
        "failed", "hook 20-not-executable is refused: it is not executable")
    assert record["refused_hooks"] == ["20-not-executable", "30-everybodys"]
    assert not hooks.take_runs() and not announced.done()


@pytest.mark.parametrize("hangs", [False, True])
@pytest.mark.parametrize("phase", ["prepare", "freeze"])
def test_a_hook_that_fails_ends_the_handshake(log, daemon, hooks, start_agent, phase, hangs):
    """The appliance is never told to split, and what was begun is undone."""
    hooks.add("20-b", "30-c")
    (hooks.block if hangs else hooks.fail)("20-b", phase)
    agent = start_agent("--hooks", hooks.path, "--hook-timeout", "1")
    announced = daemon.call.begin(init_snapshot(LUN))
    if phase == "freeze":
        assert announced.result().success
        assert daemon.call.ask(mirror_done(LUN))
    record = agent.record()
    assert (record["verdict"], record["reason"]) == ("failed", f"{phase} hook 20-b " + (
        "exited with 3" if not hangs else
        "took too long" if phase == "prepare" else "took longer than 1 s"))
    # What is left of a killed hook could freeze something later, so it is thawed once more then.
    thaws = [run for run in hooks.take_runs() if run.endswith("thaw")]
    begun = ["30-c thaw"] * (phase == "freeze") + ["20-b thaw", "10-a thaw"]
    assert thaws[:len(begun)] == begun
    assert "30-c thaw" in begun or "30-c thaw" not in thaws
    assert not hooks.is_frozen("10-a")
    assert log.count("Depart relation start") == 0
    agent.leave()


@pytest.mark.parametrize("end", ["given up at the appliance", "freezer killed", "agent killed"])
def test_what_was_prepared_is_undone_when_the_mirror_comes_to_nothing(daemon, hooks, start_agent, end):
    hooks.add("20-b")
    agent = start_agent("--hooks", hooks.path)
    assert daemon.call.ask(init_snapshot(LUN))
    if end == "agent killed":
        agent.kill()
    else:
        if end == "freezer killed":
            os.kill(agent.freezer(), signal.SIGKILL)
        assert daemon.call.ask(depart_done(LUN, 7))
        assert agent.record()["reason"].startswith("the appliance no longer has the handshake")
        assert [run["phase"] for run in agent.record()["hooks"]] == 2 * ["prepare"] + 2 * ["thaw"]
    wait_until(lambda: "10-a thaw" in hooks.runs())
    assert hooks.runs() == ["10-a prepare", "20-b prepare", "20-b thaw", "10-a thaw"]


def test_writes_metrics(daemon, hooks, start_agent):
    page = pathlib.Path("/tmp/agent.prom")
    agent = start_agent("--hooks", hooks.path, "--metrics", page)
    hooks.fail("10-a", "freeze")
    assert daemon.call.ask(init_snapshot(LUN)) and daemon.call.ask(mirror_done(LUN))
    agent.record()
    failed = 'scsi_plugin_agent_handshakes_total{verdict="failed"} 1'
    wait_until(lambda: failed in page.read_text())
    assert "last_success" not in page.read_text()
    (hooks.path / ".state/fail.10-a.freeze").unlink()
    assert daemon.call.ask(depart_done(LUN))
    daemon.call.whole_handshake()
    wait_until(lambda: 'verdict="application-consistent"} 1' in page.read_text())
    lines = page.read_text().splitlines()
    for line in ('scsi_plugin_agent_subscribed{appliance="127.0.0.1:3265"} 1', failed,
                 'scsi_plugin_agent_frozen_seconds_bucket{le="60"} 2'):
        assert line in lines
    last, = (float(line.split()[1]) for line in lines if line.startswith("scsi_plugin_agent_last_success"))
    assert time.time() - 60 < last <= time.time()
    assert page.stat().st_mode & 0o777 == 0o644
    agent.leave()
    assert 'subscribed{appliance="127.0.0.1:3265"} 0' in page.read_text()


def test_its_lines_have_priorities_in_the_journal(daemon, start_agent):
    """The service manager names the journal by device and inode. A line has no time, as the journal adds it."""
    agent = start_agent(before=("sh", "-c", 'JOURNAL_STREAM=$(stat -Lc %d:%i /proc/self/fd/2) exec "$@"', "sh"))
    daemon.call.whole_handshake()
    agent.wait_for_err('<6>{"time":')
    assert daemon.call.ask(init_snapshot(LUN))
    agent.leave()
    assert '<3>{"time":' in agent.err
    assert agent.err.startswith('<6>subscribed to 127.0.0.1:3265 as "host"')


def test_ignores_luns_of_other_hosts(log, daemon, start_agent):
    agent = start_agent()
    other = daemon.call.begin(init_snapshot(OTHER_LUN))
    agent.wait_for_err(f"LUN {OTHER_LUN}: not this host's")
    assert log.count("Start mirror") == 0
    assert daemon.call.ask(start_mirror(OTHER_LUN))
    assert other.result().success
    daemon.call.whole_handshake()
    assert agent.record()["verdict"] == "crash-consistent"


def test_knows_a_lun_by_either_page_and_goes_on_with_its_latest_announcement(daemon, start_agent):
    start_agent(lun=LUN_NAA)
    announcement = PluginCmd(init_snapshot_req={"src_lun_p80": LUN, "src_lun_p83": LUN_NAA})
    for _ in range(2):
        assert daemon.call.ask(announcement, timeout=10)
        assert daemon.call.ask(depart_done(LUN))


def test_a_thaw_hook_that_fails_is_run_again(daemon, hooks, start_agent):
    hooks.fail("10-a", "thaw")
    agent = start_agent("--hooks", hooks.path)
    daemon.call.whole_handshake()
    agent.record()
    assert hooks.take_runs().count("10-a thaw") == 2
    run(PLUGIN_AGENT, "--thaw-and-exit")
    assert "10-a thaw" in hooks.take_runs(), "it is on record"


@pytest.mark.parametrize("result, verdict, reason", [
    (0, "crash-consistent", ""),
    (7, "failed", "the appliance reports result 7 of the split"),
])
def test_the_subscriber_without_a_name_is_told_that_the_split_is_over(daemon, start_agent, result,
                                                                     verdict, reason):
    agent = start_agent("--plugin-id", "", "--poll", "0.2")
    daemon.call.go_to_split()
    assert daemon.call.ask(depart_done(LUN, result))
    record = agent.record()
    assert (record["verdict"], record["reason"]) == (verdict, reason)
    agent.leave()


@pytest.mark.parametrize("step", ["mirror", "freeze"])
def test_told_to_stop_before_the_split_it_undoes(daemon, hooks, start_agent, step):
    agent = start_agent("--hooks", hooks.path)
    go_to(step, daemon.call, hooks)
    agent.signal(signal.SIGTERM)
    assert daemon.call.is_listed("host")
    hooks.unblock()
    assert agent.wait() == 0
    assert agent.record()["reason"] == "the agent was told to stop"
    assert not hooks.is_frozen("10-a")


def test_told_to_stop_while_the_mirror_is_split_it_finishes(daemon, hooks, start_agent):
    agent = start_agent("--hooks", hooks.path)
    daemon.call.go_to_split()
    agent.signal(signal.SIGTERM)
    time.sleep(0.2)  # polls go by, and nothing happens
    assert hooks.is_frozen("10-a")
    assert daemon.call.ask(depart_done(LUN))
    assert agent.wait() == 0
    assert agent.record()["verdict"] == "application-consistent"
    assert not hooks.is_frozen("10-a")


def test_told_to_stop_twice_while_the_mirror_is_split_it_thaws(daemon, hooks, start_agent):
    agent = start_agent("--hooks", hooks.path)
    daemon.call.go_to_split()

    def tell():  # two signals that come together count once
        agent.signal(signal.SIGTERM)
        time.sleep(0.02)
        return not hooks.is_frozen("10-a")
    wait_until(tell)
    assert daemon.call.ask(depart_done(LUN))
    assert agent.record()["verdict"] == "failed"


@pytest.mark.parametrize("step", ["prepare", "mirror", "freeze", "hold", "thaw"])
def test_comes_back_when_the_daemon_is_started_anew(log, start_daemon, hooks, start_agent, step):
    daemon = start_daemon()
    agent = start_agent("--hooks", hooks.path, "--max-freeze", "20", "--hook-timeout", "20")
    announced = go_to(step, daemon.call, hooks)
    log.clear()
    daemon.kill()
    assert announced.done() or announced.exception()
    daemon = start_daemon()
    hooks.unblock()
    log.wait_for("Connected: Plugin ID=host IP=127.0.0.1")
    assert agent.record()["verdict"] == ("application-consistent" if step == "thaw" else "failed")
    assert not hooks.is_frozen("10-a")
    daemon.call.wait_until_listed("host")
    daemon.call.whole_handshake()
    assert agent.record(1)["verdict"] == "application-consistent"
    agent.leave()


def test_two_agents_of_one_name_replace_each_other_ever_more_slowly(daemon, start_agent):
    agents = start_agent("--verbose"), start_agent("--verbose")
    for agent in agents:
        agent.wait_for_err('another plugin subscribed as "host"')
        wait_until(lambda: agent.err.count("subscribing again in") > 1)
        first, second = re.findall(r"again in ([\d.]+) s", agent.err)[:2]
        assert 1 <= float(first) <= 1.5 and 2 <= float(second) <= 3
    for agent in agents:
        agent.leave()


def test_waits_for_an_appliance_that_is_not_there(start_daemon, start_agent):
    agent = start_agent("--appliance", "no-such-appliance.invalid", serves=False)
    agent.wait_for_err("no connection to 127.0.0.1:3265: Connection refused; subscribing again in")
    agent.wait_for_err("no IPv4 address of no-such-appliance.invalid")
    daemon = start_daemon()
    agent.wait_for_err('connected to 127.0.0.1:3265 and subscribing as "host"')
    daemon.call.wait_until_listed("host")
    agent.leave()
    assert daemon.call.ids() == []


def test_tries_each_address_of_a_name(daemon, start_agent):
    hosts = pathlib.Path("/tmp/hosts")
    hosts.write_text("127.0.0.7 nas1\n127.0.0.8 nas1\n")
    assert run("mount", "--bind", hosts, "/etc/hosts").status == 0
    assert run("nft", "table inet dead { chain out { type filter hook output priority 0; "
                      "ip daddr 127.0.0.7 drop; }; }").status == 0
    agent = start_agent(appliance="nas1")
    assert 'subscribed to 127.0.0.8:3265 (nas1) as "host"' in agent.err


@pytest.mark.parametrize("step", ["idle", "in a handshake"])
def test_notices_an_appliance_without_power(start_daemon, network, start_agent, step):
    """Packets are dropped, and the daemon that comes back is another process. In a handshake there is data
    that is not acknowledged, and then the kernel sends no probes."""
    daemon = start_daemon()
    agent = start_agent(appliance=network.APPLIANCE, before=network.ON_HOST)
    daemon.call.wait_until_listed("host")
    if step != "idle":
        assert daemon.call.ask(init_snapshot(LUN))
    network.forward(False)
    daemon.kill()
    wait_until(lambda: f"not subscribed to {network.APPLIANCE}" in agent.err, patience=100)
    daemon = start_daemon()
    network.forward(True)
    wait_until(lambda: daemon.call.is_listed("host"))


class ForgetfulDaemon(PluginServiceServicer):
    """It forgets its subscribers, as when UnSubscribe comes between the registering of the stream and the
    wait on it."""

    def __init__(self):
        self.forgets = True
        self.subscriptions = 0
        self.connected = []  # at each UnSubscribe, whether the stream was still open

    def Subscribe(self, request, context):
        self.subscriptions += 1
        self.stream = context
        while context.is_active():
            time.sleep(0.005)
        yield from ()

    def UnSubscribe(self, request, context):
        self.connected.append(self.stream.is_active())
        return Empty()

    def PluginConnList(self, request, context):
        return PluginClientList(list=[] if self.forgets else [PluginClient(plugin_id="host")])


def test_subscribes_again_when_it_is_connected_but_not_listed(start_agent):
    service = ForgetfulDaemon()
    serve(service)
    agent = start_agent(serves=False)
    wait_until(lambda: '"listed":"NO"' in run(PLUGIN_AGENT, "status", "-o", "json").out)
    agent.wait_for_err("does not list this host")
    service.forgets = False
    agent.wait_for_err("subscribed to ")
    assert service.subscriptions >= 2
    # The daemon has to forget a subscriber before it vanishes, and one that it registers late after that.
    assert service.connected[0] and len(service.connected) == 2 * (service.subscriptions - 1)


class HastyDaemon(PluginServiceServicer):
    """Its no to a departed host comes before its word of the result, which is on another stream."""

    departures = 0

    def Subscribe(self, request, context):
        yield init_snapshot(LUN)
        while self.departures < 2:
            time.sleep(0.005)
        time.sleep(0.2)
        yield depart_done(LUN, 7)
        while context.is_active():
            time.sleep(0.005)

    def UnSubscribe(self, request, context):
        return Empty()

    def PluginConnList(self, request, context):
        return PluginClientList(list=[PluginClient()])

    def LunOp(self, request, context):
        self.departures += request.HasField("depart_relation_req")
        return LunCmdResp(success=self.departures < 2)


def test_hears_the_result_of_the_split_that_follows_the_no(start_agent):
    serve(HastyDaemon())
    agent = start_agent("--plugin-id", "")
    assert agent.record()["reason"] == "the appliance reports result 7 of the split"
