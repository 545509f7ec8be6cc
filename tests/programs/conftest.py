# Tests of whole programs: the daemon, plugin_ctl, plugin_agent, and the examples.
#
# Each test runs in a process of its own, in namespaces of its own (support/sandbox.py): port 3265,
# /tmp, /run and /dev/log are the test's own, so it may use them freely and need not clean up. All that
# it has started ends with it. When it fails, the output and the log of its programs are shown.
#
# How to write one: ask for the fixtures of support/fixtures.py that it needs, most often
#
#     log         what arrives at /dev/log: log.wait_for("part of a line"), log.count("part")
#     daemon      a daemon that serves: daemon.call.ask(init_snapshot(LUN)) makes a local caller's call,
#                 daemon.subscribe("host") is a host plugin: next_cmd(), cancel(), end()
#     plugin_ctl  plugin_ctl("list", "-o", "json") runs it; start_plugin_ctl(...) leaves it running
#     start_agent, hooks, volume, supervisor, start_guard, network
#
# and wait with wait_until, never with a sleep. `start_daemon(luns=["a", "b"], ...)` is for a test that
# needs another daemon than `daemon`.

import inspect
import itertools
import json
import os
import pathlib
import sys

import pytest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
# The folder "support" there is one package with the one here: what scripts/check-plugin needs, too.
sys.path.insert(0, str(SOURCE / "clients/check_plugin"))
from support import sandbox  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--build", metavar="DIRECTORY", default="build/release",
                     help="the build whose programs are tested (build/release)")
    parser.addoption("--faults", metavar="FILE",
                     help="run the table of faults instead, and write it to FILE as Markdown")


def pytest_configure(config):
    build = SOURCE / config.getoption("build")
    if not (build / "tests/python").is_dir():
        raise pytest.UsageError(f"{build} is not built: scripts/test builds it")
    os.environ.update(preset_environment(build), SCSI_PLUGIN_BUILD=str(build),
                      GRPC_ENABLE_FORK_SUPPORT="0")
    sys.path.insert(0, str(build / "tests/python"))
    config.pluginmanager.import_plugin("support.fixtures")


def preset_environment(build):
    """What ctest's preset of the same name sets for the tests: the options of the sanitizers."""
    presets = json.loads((SOURCE / "CMakePresets.json").read_text())["testPresets"]
    variables = next((each.get("environment", {}) for each in presets if each["name"] == build.name), {})
    return {name: value.replace("${sourceDir}", str(SOURCE)) for name, value in variables.items()}


def pytest_collection_modifyitems(config, items):
    """Slow rows of the table of faults run only with --faults. Other slow tests begin first, on
    different workers."""
    build = pathlib.Path(config.getoption("build")).name

    def is_wanted(item):
        if any(build in mark.args for mark in item.iter_markers("not_under")):
            return False
        is_fault, is_slow = (item.get_closest_marker(each) for each in ("fault", "slow"))
        return is_fault if config.getoption("--faults") else not (is_fault and is_slow)

    config.hook.pytest_deselected(items=[item for item in items if not is_wanted(item)])
    items[:] = filter(is_wanted, items)
    slow = [item for item in items if item.get_closest_marker("slow")]
    items[:] = [item for item in items if item not in slow]
    workers = getattr(config, "workerinput", {}).get("workercount", 1)
    handed_out_together = max((len(items) + len(slow)) // workers // 4, 2)  # by xdist
    for number, item in enumerate(slow):
        items.insert(number * handed_out_together, item)
    for item in items:
        if item.get_closest_marker("fault"):
            item.user_properties.append(("fault", inspect.getdoc(item.obj)))


@pytest.hookimpl(tryfirst=True)
def pytest_runtest_protocol(item):
    item.ihook.pytest_runtest_logstart(nodeid=item.nodeid, location=item.location)
    for report in sandbox.run(item, [SOURCE, pathlib.Path(os.environ["SCSI_PLUGIN_BUILD"])]):
        item.ihook.pytest_runtest_logreport(report=report)
    item.ihook.pytest_runtest_logfinish(nodeid=item.nodeid, location=item.location)
    return True


def pytest_terminal_summary(terminalreporter, config):
    """The table of faults, from the docstrings of its tests."""
    if not (path := config.getoption("--faults")):
        return
    rows = {}
    for verdict, outcomes in (("pass", "passed"), ("skipped", "skipped"), ("FAIL", "failed error")):
        for report in itertools.chain(*map(terminalreporter.getreports, outcomes.split())):
            done, _, follows = dict(report.user_properties)["fault"].partition("\n\nMust hold: ")
            rows[report.nodeid] = " | ".join(" ".join(text.split()) for text in (done, follows, verdict))
    table = "\n".join(["| What was done | What must hold | |", "|---|---|---|",
                       *(f"| {rows[test]} |" for test in sorted(rows)), ""])
    pathlib.Path(path).parent.mkdir(parents=True, exist_ok=True)
    pathlib.Path(path).write_text(table)
    terminalreporter.write(table)
