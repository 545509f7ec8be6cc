# scripts/check-plugin, on plugins that are right, and on one that is wrong in many ways; and the package
# for Python.

import json
import os
import pathlib
import re
import signal
import sys
import time

import grpc
import pytest

from support.calls import LUN, depart_done, init_snapshot, mirror_done, wait_for_depart
from support.program import PLUGIN_AGENT, SOURCE, Program, run
from support.waiting import wait_until

pytestmark = pytest.mark.not_under("asan", "tsan")  # it is the plugins that are tried

PYTHON = ["env", f"PYTHONPATH={SOURCE}/clients/python", sys.executable, "-B"]
WRONG = [*PYTHON, SOURCE / "tests/programs/wrong_plugin.py"]
LONGER = ("--split", "9", "--idle", "5")  # than the plugin in question needs
AT_REST_FILE = pathlib.Path("/tmp/at_rest")
AT_REST = ("--at-rest", f"test -e {AT_REST_FILE}")
HOOK = "#!/bin/sh\ncase $1 in freeze) touch /tmp/at_rest ;; thaw) rm -f /tmp/at_rest ;; esac\n"


def check_plugin(*words):
    """What scripts/check-plugin does when everything is built: its exit code, the checks that failed, with
    what it says about them, and those that were skipped."""
    said = run(sys.executable, "-B", SOURCE / "clients/check_plugin", "-o", "json", *words, patience=200)
    assert said.out, said.err
    checks = json.loads(said.out)["checks"]
    return (said.status, {each["name"]: each["text"] for each in checks if each["verdict"] == "FAILED"},
            {each["name"] for each in checks if each["verdict"] == "skipped"})


@pytest.mark.slow
@pytest.mark.parametrize("plugin", ["python", "node", "agent", "none"])
def test_plugins_that_are_right_pass(plugin):
    if plugin == "node" and os.system(f"node {SOURCE}/examples/node/service.js 2>/dev/null") != 0:
        pytest.skip("no Node with gRPC: scripts/setup --interop installs it")
    hook = pathlib.Path("/tmp/hooks/10-a")
    hook.parent.mkdir()
    hook.write_text(HOOK)
    hook.chmod(0o755)
    options, command, skipped = {
        "python": ((), [*PYTHON, SOURCE / "examples/python/host_plugin.py", "me", "{lun}", "{appliance}"],
                   {"at_rest", "thaws", "two_luns"}),
        "node": ((), ["node", SOURCE / "examples/node/host_plugin.js", "me", "{lun}", "{appliance}"],
                 {"at_rest", "thaws", "two_luns"}),
        "agent": (AT_REST, [PLUGIN_AGENT, "--appliance", "{appliance}", "--lun", "{lun}", "--lun", "{lun2}",
                            "--hooks", hook.parent, "--max-mirror", "12"], set()),
        "none": ((*AT_REST, *LONGER), [*WRONG, "none", "{lun}", "{appliance}"], {"two_luns"}),
    }[plugin]
    assert check_plugin(*options, "--", *command) == (0, {}, skipped)


@pytest.mark.parametrize("fault, failed", [
    ("comes by IPv6", "ipv4"),
    ("never answers", "answers"),
    ("starts the mirror again and again", "start_once"),
    ("asks at once", "first_question"),
    ("asks about the mirror all the time", "mirror_questions"),
    ("departs before the mirror is done", "departs"),
    ("does not freeze", "at_rest"),
    ("asks about the split all the time", "depart_questions"),
    ("waits to be told the end", "notices_end thaws again"),
    ("never thaws", "thaws"),
    ("takes part for every LUN", "other_lun"),
    ("takes part for every LUN in turn", "other_lun"),
    ("ends without unsubscribing", "unsubscribes"),
    ("never withdraws", "long_split"),
    ("goes on after a no", "withdrawn"),
    ("keeps to its first handshake", "superseded"),
    ("never gives up", "gives_up"),
    ("ends with its stream", "restart"),
    ("ends on a timeout", "stopped"),
    ("pings every second", "keepalive"),
    ("forgets its promise at SIGTERM", "sigterm_at_rest")])
def test_each_fault_is_found(fault, failed):
    """What else fails is what follows from the fault, and on a slow machine from that."""
    status, found, _ = check_plugin("--patience", "20", *AT_REST, *LONGER, "--only",
                                    ",".join(["answers", *failed.split()]), "--",
                                    *WRONG, fault, "{lun}", "{appliance}")
    assert status == 1 and set(failed.split()) <= set(found), found


def test_a_plugin_of_which_nothing_could_be_tried_does_not_pass():
    tried = check_plugin("--only", "two_luns", "--", *WRONG, "none", "{lun}", "{appliance}")
    assert tried == (1, {}, {"two_luns"})


@pytest.mark.parametrize("words, status, text", [
    (["true"], 2, "put -- before the COMMAND"),
    (["--", "true", "{apliance}"], 2, "{apliance} in COMMAND is none of {appliance}, {lun} and {lun2}"),
    (["--only", "answers", "--", "sh", "-c", "echo ${VEXO_LUN}: the database is down"], 1,
     f"    {LUN}: the database is down")])
def test_the_author_is_told_what_is_wrong(words, status, text):
    said = run(sys.executable, "-B", SOURCE / "clients/check_plugin", *words, patience=200)
    assert said.status == status and text in said.out + said.err


@pytest.mark.parametrize("appliance", ["", "nas..1", "nas:", "nas:65536", "::1"])
def test_the_package_refuses_what_is_no_address(appliance):
    said = run(*WRONG, "none", LUN, appliance)
    assert (said.status, said.err.splitlines()[-1]) == (
        1, f"ValueError: the address of an appliance is HOST or HOST:PORT, not {appliance!r}")


@pytest.mark.parametrize("what, failure", [
    ("nothing", "None"),
    ("the daemon is restarted during the rest", "the connection was lost while the host was at rest"),
    ("the LUN is announced again", "the appliance has announced another snapshot"),
    ("the mirror fails", "the appliance has given up"),
    ("fails to freeze", "never"), ("hangs in its freeze", "the freeze took so long"),
    ("freezes slowly", "the freeze took so long"), ("rests shortly", "the split took too long"),
    ("is told to stop twice", "the plugin was told to stop")])
def test_the_package_says_how_a_handshake_ended(what, failure, log, start_daemon):
    daemon = start_daemon()
    in_freeze = "freeze" in what
    plugin = Program(*WRONG, what if in_freeze or what == "rests shortly" else "none", LUN, "localhost")
    log.wait_for("Connected")
    daemon.call.wait_until_listed("me")
    if in_freeze:
        assert daemon.call.ask(init_snapshot(LUN)) and daemon.call.ask(mirror_done(LUN))
        if what != "fails to freeze":
            wait_until(AT_REST_FILE.exists)
        if what == "hangs in its freeze":
            wait_until(lambda: not AT_REST_FILE.exists())
        time.sleep(0.2)
        pathlib.Path("/tmp/may_go_on").touch()
    elif what in ("the LUN is announced again", "the mirror fails"):
        assert daemon.call.ask(init_snapshot(LUN)) and daemon.call.ask(depart_done(LUN, -1))
        if what == "the LUN is announced again":
            assert daemon.call.ask(init_snapshot(LUN))
    else:
        daemon.call.go_to_split()
        if what == "nothing":
            assert daemon.call.ask(depart_done(LUN))
        elif what == "is told to stop twice":
            wait_until(lambda: plugin.signal(signal.SIGTERM) or time.sleep(0.1) or not AT_REST_FILE.exists())
        elif what != "rests shortly":
            wait_until(lambda: log.count("Depart relation start") > 1)  # its departure was answered
            daemon.kill()
            start_daemon()
    plugin.wait_for_out(failure)
    assert not AT_REST_FILE.exists()
    if what == "rests shortly":
        with pytest.raises(grpc.RpcError):  # the departure was taken back
            daemon.call.ask(wait_for_depart(LUN), timeout=0.5)


def test_the_package_thaws_before_it_takes_part_again(daemon):
    Program(*WRONG, "thaws slowly", LUN, "localhost")
    daemon.call.wait_until_listed("me")
    daemon.call.go_to_split()
    assert daemon.call.ask(depart_done(LUN))
    announced = daemon.call.begin(init_snapshot(LUN))
    time.sleep(0.5)
    assert not announced.done()
    pathlib.Path("/tmp/may_go_on").touch()
    assert announced.result().success


def test_the_package_goes_on_when_there_was_no_thread_for_a_snapshot(log, daemon):
    plugin = Program(*WRONG, "has no thread for its first snapshot", LUN, "localhost")
    log.wait_for("Connected")
    daemon.call.wait_until_listed("me")
    unanswered = daemon.call.begin(init_snapshot(LUN))
    plugin.wait_for_err("no part in the snapshot")
    assert daemon.call.ask(depart_done(LUN, -1))
    daemon.call.whole_handshake()
    unanswered.cancel()


def test_the_package_leaves_no_registration_of_a_lost_stream_behind(log, daemon):
    plugin = Program(*WRONG, "none", LUN, "localhost")
    daemon.call.wait_until_listed("me")
    run("ss", "--kill", "--tcp", "state", "established", "sport", "=", ":3265")
    plugin.wait_for_err("subscribing again in")
    plugin.signal(signal.SIGTERM)
    assert plugin.wait() == 0
    assert not daemon.call.ask(init_snapshot(LUN), timeout=10)
    log.wait_for("Plugin list is empty")


def test_two_of_one_plugin_id_do_not_fight_at_full_speed(daemon):
    for plugin in [Program(*WRONG, "none", LUN, "localhost") for _ in range(2)]:
        wait_until(lambda: plugin.err.count("subscribing again in") > 1)
        first, second = re.findall(r"again in ([\d.]+) s", plugin.err)[:2]
        assert 1 <= float(first) <= 1.5 and 2 <= float(second) <= 3
