# plugin_ctl snapshot for several LUNs: all or nothing, in the order in which they are named.

import json
import pathlib

import pytest

from support.calls import LUN, OTHER_LUN, init_snapshot, start_mirror
from support.host_plugin import HostPlugin

MANY = [f"lun-{i:02}" for i in range(64)]


@pytest.fixture
def daemon(start_daemon):
    return start_daemon(luns=[LUN, OTHER_LUN])


@pytest.fixture
def group(plugin_ctl):
    """group([...], *options): runs it with this array in its file."""
    def run(luns, *options):
        pathlib.Path("/tmp/group.json").write_text(luns if isinstance(luns, str) else json.dumps(luns))
        return plugin_ctl("snapshot", "--group", "/tmp/group.json", "-o", "json", *options)
    return run


def of_step(tool, name):
    """The outcomes of a step, by LUN."""
    steps = map(json.loads, tool.out.splitlines()[:-1])
    return {step["task_id"]: step["outcome"] for step in steps if step["step"] == name}


def test_many_luns_at_once(start_daemon, plugin_ctl):
    daemon = start_daemon(luns=MANY)
    host = HostPlugin(daemon)
    tool = plugin_ctl("snapshot", *(word for lun in MANY for word in ("--p80", lun)), "-o", "json",
                      "--mirror", "echo mirrored $VEXO_SRC_LUN_P80", "--split", "echo split")
    assert tool.status == 0, tool.err
    assert tool.err == f"mirrored {' '.join(MANY)}\nsplit\n"
    for step in "init_snapshot", "mirror_done", "wait_for_depart", "confirm", "depart_done":
        assert of_step(tool, step) == dict.fromkeys(MANY, "DONE")
    assert [host.told(lun) for lun in MANY] == [0] * len(MANY)
    assert not any(daemon.call.ask(start_mirror(lun)) for lun in MANY)
    last = json.loads(tool.out.splitlines()[-1])
    assert (last["verdict"], last["luns"]) == ("consistent", MANY)


def test_one_that_fails_ends_all(daemon, group):
    """Those that this run began: the other one's handshake is somebody else's."""
    host = HostPlugin(daemon)
    somebody = daemon.call.begin(init_snapshot(OTHER_LUN))
    assert somebody.result().success
    tool = group([{"src_lun_p80": LUN}, {"src_lun_p80": OTHER_LUN}], "--split", "touch /tmp/was_split")
    assert tool.status == 1
    assert of_step(tool, "init_snapshot")[OTHER_LUN] == "FAILED"
    assert of_step(tool, "depart_done") == {LUN: "DONE", OTHER_LUN: "NOT_RUN"}
    assert f"snapshot of {OTHER_LUN}: init_snapshot" in tool.err
    assert host.told(LUN) != 0
    assert not daemon.call.ask(start_mirror(LUN)) and daemon.call.ask(start_mirror(OTHER_LUN))
    assert not pathlib.Path("/tmp/was_split").exists()


def test_one_that_is_never_answered_is_not_waited_for_when_another_is_refused(daemon, group):
    HostPlugin(daemon, starts=False)
    somebody = daemon.call.begin(init_snapshot(OTHER_LUN))
    tool = group([{"src_lun_p80": LUN}, {"src_lun_p80": OTHER_LUN}])
    assert tool.status == 1
    assert of_step(tool, "init_snapshot") == {LUN: "INTERRUPTED", OTHER_LUN: "FAILED"}
    assert of_step(tool, "depart_done") == {LUN: "DONE", OTHER_LUN: "NOT_RUN"}
    assert f"begin the next snapshot of {LUN} in " in tool.err
    somebody.cancel()


def test_the_commands_get_all_luns_in_order(daemon, group):
    HostPlugin(daemon)
    luns = [{"src_lun_p80": OTHER_LUN, "dst_lun_p83": "to_a", "is_for_replica": True},
            {"src_lun_p80": LUN, "src_lun_p83": "b c", "dst_lun_p83": "to_b"}]
    tool = group(luns, "--qel-sn", "Q",
                 "--split", "env | grep ^VEXO_; cp $VEXO_GROUP /tmp/was_group; echo group $VEXO_GROUP")
    assert tool.status == 0, tool.err
    told = dict(line.split("=", 1) for line in tool.err.splitlines() if line.startswith("VEXO_"))
    assert told.items() >= {
        "VEXO_SRC_LUN_P80": f"{OTHER_LUN} {LUN}", "VEXO_TASK_ID": f"{OTHER_LUN} {LUN}",
        "VEXO_SRC_LUN_P83": "- b c", "VEXO_DST_LUN_P83": "to_a to_b", "VEXO_SRC_LUN_UUID": "- -",
        "VEXO_IS_FOR_REPLICA": "true false", "VEXO_QEL_SN": "Q"}.items()
    whole = json.loads(pathlib.Path("/tmp/was_group").read_text())
    assert [{name: lun[name] for name in given} for lun, given in zip(whole, luns)] == luns
    assert not pathlib.Path(told["VEXO_GROUP"]).exists()


@pytest.mark.parametrize("text, reason", [
    ('[{"src_lun_p80": "a"} {', 'Near: "src_lun_p80": "a"} {'), ('{"src_lun_p80": "a"}', "no JSON array"),
    ("[]", "is empty"), ("[1]", "luns[0]: it is no object"),
    ('[{"src_lun_p80": "a"}, {"src_lun_p8": "b"}]', "luns[1]"), ('[{"src_lun_uuid": "a"}]', "luns[0]: src"),
    ('[{"src_lun_p80": "a"}, {"src_lun_p80": "a"}]', "luns[1]: the LUN a is there already"),
    ('[{"src_lun_p80": ["a"]}]', "luns[0]: "),
])
def test_refuses_a_wrong_file_with_place_and_reason(group, text, reason):
    refused = group(text)
    assert refused.status == 2
    assert "--group /tmp/group.json" in refused.err and reason in refused.err


@pytest.mark.parametrize("options, status, reason", [
    ([], 2, "neither --p80 nor --group"), (["--p80", "a", "--group", "/tmp/x"], 2, "both --p80 and"),
    (["--p80", "a", "--p80", "a"], 2, "given twice"), (["--p80", "a", "--max-split", "0"], 2, "from 0.1"),
    (["--p80", "a", "--p80", "b", "--p83", "c"], 2, "of one LUN"),
    (["--group", "/none"], 4, "No such file"), (["--group", "/"], 4, "Is a directory"),
])
def test_refuses_a_wrong_command_line(plugin_ctl, options, status, reason):
    refused = plugin_ctl("snapshot", *options)
    assert refused.status == status
    assert reason in refused.err
