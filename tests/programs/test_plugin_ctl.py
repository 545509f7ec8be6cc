# plugin_ctl's verbs that ask once: what they print, and how they end.

import concurrent.futures
import os
import pathlib
import signal
import subprocess

import grpc
import pytest

from plugin_cmd_pb2 import PluginCmd
from support.calls import LUN, LUN_NAA, UNSUPPORTED_LUN
from support.program import PLUGIN_CTL, PLUGIN_GUARD

NO = "the daemon's answer is no"
YES_JSON = '{"cmd_sn":0,"success":true}\n'
LUN_JSON = '{"plugin_id":"","qel_sn":"","success":%s,"error":"SUCCESS"}\n'


def verdict(command, identifier, answer):
    return (f"{'COMMAND':{len(command)}}  {'ID':{len(identifier)}}  ANSWER\n"
            f"{command}  {identifier}  {answer}\n")


@pytest.fixture
def expect(plugin_ctl):
    """Runs it: the end, all of stdout, and a part of stderr that is empty only when stderr must be."""
    def expect(arguments, status, out, err):
        ended = plugin_ctl(*arguments)
        assert (arguments, ended.status, ended.out) == (arguments, status, out), ended.err
        assert err in ended.err if err else not ended.err
    return expect


def test_answers_in_tables_and_json(daemon, expect):
    host = daemon.subscribe("esx\x1b[2J")
    for case in (
            (["list"], 0, "PLUGIN ID   IP         TYPE\nesx\\x1b[2J  127.0.0.1  unknown\n", ""),
            (["-o", "json", "list"], 0,
             '{"list":[{"plugin_id":"esx\\u001b[2J","ip":"127.0.0.1","type":"UNKNOWN"}]}\n', ""),
            (["lun", "support", "--p80", LUN], 0, verdict("is_lun_support_req", LUN, "yes"), ""),
            (["lun", "support", "--p83", LUN_NAA, "-o", "json"], 0, LUN_JSON % "true", ""),
            (["lun", "support", "--p80", UNSUPPORTED_LUN], 1,
             verdict("is_lun_support_req", UNSUPPORTED_LUN, "no"), NO),
            (["lun", "support", "--p83", LUN, "-o", "json"], 1, LUN_JSON % "false", NO),
            (["lun", "naa", LUN], 0, LUN_NAA + "\n", ""),
            (["lun", "naa", LUN, "-o", "json"], 0, '{"uuid":"%s","naa":"%s"}\n' % (LUN, LUN_NAA), ""),
            (["lun", "start-mirror", LUN], 1, verdict("start_mirror_req", LUN, "no"), "init-snapshot"),
            (["lun", "mirror-done", "--p80", LUN], 1, verdict("is_mirror_done_req", LUN, "no"), NO),
            (["lun", "depart", LUN], 1, verdict("depart_relation_req", LUN, "no"), "init-snapshot"),
            (["publish", "mirror-done", LUN], 1, verdict("mirror_done_req", LUN, "no"), NO),
            (["publish", "wait-for-depart", LUN], 1, verdict("wait_for_depart_req", LUN, "no"), NO),
            (["publish", "depart-done", LUN], 0, verdict("depart_done_req", LUN, "yes"), ""),
            (["unsubscribe", "nobody"], 0, verdict("UnSubscribe", "nobody", "yes"), ""),
            (["unsubscribe", "esx\x1b[2J", "-o", "json"], 0, "{}\n", ""),
            (["list"], 0, "PLUGIN ID  IP  TYPE\n", "no plugin is subscribed"),
            (["list", "-o", "json"], 0, '{"list":[]}\n', ""),
            (["publish", "init-snapshot", "--p80", LUN], 1, verdict("init_snapshot_req", LUN, "no"),
             "no host plugin is subscribed")):
        expect(*case)
    host.end()


def test_publishes_every_field_of_a_whole_handshake(log, daemon, expect, start_plugin_ctl):
    host = daemon.subscribe("")  # the one that depart_done is forwarded to
    init = start_plugin_ctl(
        "publish", "init-snapshot", "--p80", LUN, "--p83", LUN_NAA, "--uuid", "U", "--dst-uuid", "D",
        "--replica", "--cmd-sn", "4294967295", "--qel-sn", "Q", "-o", "json")
    assert host.next_cmd() == PluginCmd(
        cmd_sn=4294967295, qel_sn="Q", task_id=LUN,
        init_snapshot_req=dict(src_lun_uuid="U", src_lun_p80=LUN, src_lun_p83=LUN_NAA,
                               dst_lun_uuid="D", is_for_replica=True))
    expect(["-t", "127.0.0.1", "lun", "start-mirror", LUN, "-o", "json"], 0, LUN_JSON % "true", "")
    assert init.wait() == 0
    assert init.out == '{"cmd_sn":0,"success":true,"init_snapshot_resp":{"task_id":"%s"}}\n' % LUN
    expect(["publish", "mirror-done", LUN, "-o", "json"], 0, YES_JSON, "")
    expect(["lun", "mirror-done", "--p80", LUN], 0, verdict("is_mirror_done_req", LUN, "yes"), "")
    wait = start_plugin_ctl("publish", "wait-for-depart", LUN, "--uuid", "U")
    log.wait_for("Wait for depart relation [")
    expect(["lun", "depart", LUN], 0, verdict("depart_relation_req", LUN, "yes"), "")
    assert wait.wait() == 0
    expect(["publish", "depart-done", LUN, "--result", "-2", "--p83", LUN_NAA, "--dst-uuid", "D",
            "--dst-p80", "DP", "--dst-p83", "DN"], 0, verdict("depart_done_req", LUN, "yes"), "")
    assert host.next_cmd() == PluginCmd(
        task_id=LUN, depart_done_req=dict(src_lun_p80=LUN, src_lun_p83=LUN_NAA, dst_lun_uuid="D",
                                          dst_lun_p80="DP", dst_lun_p83="DN", result=-2))
    assert log.count("Start mirror [") == 1


# Every verb that makes a call, each with what it needs at least.
CALLING_VERBS = [each.split() for each in (
    "list", "unsubscribe x", "subscribe x", f"lun support --p80 {LUN}",
    f"lun start-mirror {LUN}", f"lun mirror-done --p83 {LUN_NAA}", f"lun depart {LUN}",
    f"publish init-snapshot --p80 {LUN}", f"publish mirror-done {LUN}",
    f"publish wait-for-depart {LUN}", f"publish depart-done {LUN}",
    f"snapshot --p80 {LUN} -o json")]


@pytest.mark.parametrize("is_up, options, status, next_step", [
    (False, [], "UNAVAILABLE", "see that scsi_plugin_server"),
    (True, ["--timeout", "0.2"], "DEADLINE_EXCEEDED", "allow it 20 s longer"),
])
def test_says_what_to_do_without_an_answer(start_daemon, plugin_ctl, is_up, options, status, next_step):
    verbs = CALLING_VERBS
    if is_up:
        start_daemon().stop()
    else:
        verbs = verbs + [["list", "--target", each] for each in ("127.0.0.1", "localhost:3266", "[::1]:1")]
    for verb in verbs:
        ended = plugin_ctl(*verb, *options)
        assert (verb, ended.status) == (verb, 3)
        assert f"came back: {status}" in ended.err
        assert f"next:      {next_step}" in ended.err


def test_names_any_other_status(expect):
    """What answers on the endpoint is something else altogether."""
    server = grpc.server(concurrent.futures.ThreadPoolExecutor(1))
    port = server.add_insecure_port("127.0.0.1:0")
    server.start()
    expect(["list", "-t", f"127.0.0.1:{port}"], 4, "", "came back: UNIMPLEMENTED")


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_ends_waits_on_a_signal(daemon, start_plugin_ctl, number):
    host = daemon.subscribe("esx")
    init = start_plugin_ctl("publish", "init-snapshot", "--p80", "K")
    host.next_cmd()
    init.signal(number)
    assert init.wait() == 5
    assert "depart-done K" in init.err


def test_refuses_command_lines_that_say_too_little_or_too_much(expect):
    for line, complaint in (
            ("", "A subcommand is required"),
            ("lis", '"lis" is not understood'),
            ("lun start", '"start" is not understood'),
            ("list extra", '"extra" is not understood'),
            ("unsubscribe", "PLUGIN_ID is required"),
            ("lun support", "Exactly 1 option from [--p80,--p83] is required"),
            (f"lun support {LUN}", "give a LUN with --p80"),
            ("lun support --p80 a --p83 b", "Exactly 1 option"),
            ("publish init-snapshot", "--p80 is required"),
            ("publish init-snapshot --p80 a --cmd-sn -1", "--cmd-sn"),
            ("publish depart-done a --result 2147483648", "--result"),
            ("subscribe a --type linux", "--type"),
            (f"lun depart {os.fsdecode(bytes([255]))}", "not well-formed UTF-8"),
            ("list -o xml", "see plugin_ctl --help"),
            ("lun naa xyz", "is no UUID"),
            (f"lun naa {LUN}0", "is no UUID"),
            (f"lun naa g{LUN[1:]}", "is no UUID"),
            ("list --timeout 0", "no number from 0.001"),
            ("list --timeout", "--timeout needs a value, SECONDS"),
            ("list --timeout nan", "no number from 0.001"),
            ("list -t host:0", "the port must be a number"),
            ("list -t /tmp/x", "unix:///tmp/x"),
            ("probe --tcp -t host", "--target together with")):
        expect(line.split(), 2, "", complaint)


def test_shows_an_example_in_the_help_of_each_verb(plugin_ctl):
    more = [[], ["lun"], ["publish"], ["lun", "naa"], ["probe"]]
    for verb in CALLING_VERBS + more:
        ended = plugin_ctl(*verb, "--help")
        assert (verb, ended.status) == (verb, 0)
        assert "\n  plugin_ctl " in ended.out
    assert plugin_ctl("--version").out.startswith("plugin_ctl ")


def test_ends_without_a_word_when_nobody_reads():
    reads, writes = os.pipe()
    os.close(reads)
    for command in ([PLUGIN_CTL, "lun", "naa", LUN], [PLUGIN_GUARD, "--check"]):
        ended = subprocess.run(command, stdout=writes, stderr=subprocess.PIPE)
        assert (ended.returncode, ended.stderr) == (141, b""), command


def test_probes_both_endpoints_on_connections_of_their_own(log, start_daemon, plugin_ctl):
    assert plugin_ctl("probe").status == 3
    daemon = start_daemon()
    up = plugin_ctl("probe")
    assert up.status == 0
    assert up.out.startswith("127.0.0.1:3265 answers in ")
    assert "; unix:///tmp/iscsi/plugin_server.sock answers in " in up.out
    assert up.out.count("\n") == 1

    pathlib.Path("/tmp/iscsi/plugin_server.sock").unlink()
    half = plugin_ctl("probe", "-o", "json")
    assert half.status == 3
    assert '{"endpoint":"127.0.0.1:3265","answers":true,' in half.out
    assert '{"endpoint":"unix:///tmp/iscsi/plugin_server.sock","answers":false,' in half.out
    assert plugin_ctl("probe", "--tcp").status == 0
    assert plugin_ctl("probe", "--unix").status == 3
    assert plugin_ctl("-t", "127.0.0.2", "probe").status == 0
    daemon.stop()
    assert plugin_ctl("probe", "--tcp", "--timeout", "0.2").status == 3
    assert log.count("Connected") == 0
