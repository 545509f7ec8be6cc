# `plugin_agent check`.

import json
import os
import pathlib
import signal

import pytest

from support.calls import LUN, LUN_NAA, UNSUPPORTED_LUN
from support.program import PLUGIN_AGENT, Program, run


def check(*options, lun=LUN, appliance="127.0.0.1"):
    """The exit code, and for each line of another result than OK what was found, by what it is about."""
    checked = run(PLUGIN_AGENT, "check", "--appliance", appliance, "--lun", lun, *options, "-o", "json")
    report = json.loads(checked.out)
    assert report["ok"] == (checked.status == 0)
    assert all(bool(each["next"]) == (each["result"] != "OK") for each in report["checks"])
    return checked.status, {each["what"]: (each["result"], each["found"]) for each in report["checks"]
                            if each["result"] != "OK" and "SCSI disk" not in each["found"]}


def test_finds_nothing_wrong_where_nothing_is(daemon, volume, hooks, start_agent):
    start_agent("--hooks", hooks.path)
    assert check("--hooks", hooks.path, "--fs", volume.path, lun=LUN_NAA) == (0, {})
    listed = run(PLUGIN_AGENT, "check", "--appliance", "127.0.0.1", "--lun", LUN, "--plugin-id", "host").out
    assert 'lists "host" with the address 127.0.0.1' in listed
    daemon.call.whole_handshake()  # which no check has disturbed


def test_finds_what_is_wrong_on_this_host(daemon, hooks):
    hooks.add("20-everybodys", mode=0o757)
    for options, what, result, found in (
            (["--hooks", hooks.path], "hook 20-everybodys", "FAILURE", "everybody may write to it"),
            (["--hooks", hooks.path, "--fs", "/", "--refused-hooks", "warn"], "hook 20-everybodys", "WARNING", "refused"),
            (["--hooks", "/none"], "hooks", "FAILURE", "/none cannot be read"),
            (["--fs", "/none"], "file system /none", "FAILURE", "No such file or directory"),
            (["--fs", "/proc"], "file system /proc", "FAILURE", "type proc cannot be frozen"),
            (["--run-dir", "/proc/none"], "run directory /proc/none", "FAILURE", "cannot be used"),
            (["--max-freeze", "20"], "--hold", "WARNING", "is 13.333 s, and the appliance may need 18 s"),
            (["--metrics", "/none/agent.prom"], "--metrics", "WARNING", "/none: No such file"),
            ([], "what is frozen", "WARNING", "neither --fs nor --hooks"),
            ([], "agent", "WARNING", "none is running")):
        status, wrong = check(*options)
        assert wrong[what][0] == result and found in wrong[what][1], wrong
        assert status == (1 if "FAILURE" in dict(wrong.values()) else 0)


def test_finds_a_freeze_that_nobody_thaws(daemon):
    pathlib.Path("/run/plugin_agent").mkdir()
    pathlib.Path("/run/plugin_agent/frozen").touch()
    status, wrong = check()
    assert status == 1 and "nobody thaws it" in wrong["run directory /run/plugin_agent"][1]


def test_finds_what_is_wrong_with_appliances_and_luns(daemon):
    unsupported = "no appliance supports it: it is unknown there, or of another kind"
    assert check(lun=UNSUPPORTED_LUN)[1][f"LUN {UNSUPPORTED_LUN}"] == ("FAILURE", unsupported)
    assert check(lun=LUN.upper())[1][f"LUN {LUN.upper()}"] == ("FAILURE", unsupported)
    for appliance, complaint in (("127.0.0.1:1", "Connection refused"), ("no.invalid", "no IPv4 address of")):
        status, wrong = check("--appliance", "127.0.0.1", appliance=appliance)
        assert status == 1 and complaint in "".join(found for _, found in wrong.values())
        assert f"LUN {LUN}" not in wrong, "another appliance supports it"
    daemon.stop()
    wrong = check()[1]
    assert "does not answer" in wrong["appliance 127.0.0.1:3265"][1]
    assert wrong[f"LUN {LUN}"][0] == "WARNING"
    waiting = Program(PLUGIN_AGENT, "check", "--appliance", "127.0.0.1", "--lun", LUN)
    waiting.signal(signal.SIGINT)
    assert waiting.wait() in (5, -signal.SIGINT)  # the second before it takes care of signals


def test_finds_what_the_user_may_not(daemon):
    if os.geteuid() != 0 or pathlib.Path("/proc/self/uid_map").read_text().split()[2] == "1":
        pytest.skip("only root can become somebody else")
    checked = run("setpriv", "--reuid=40000", "--clear-groups", PLUGIN_AGENT, "check", "--appliance",
                  "127.0.0.1", "--lun", LUN, "--fs", "/", "--run-dir", "/run/new")
    assert checked.status == 1
    failures = [line.split("  ")[1] for line in checked.out.splitlines() if line.startswith("FAILURE")]
    assert failures == ["right to freeze", "run directory /run/new"], checked.out
