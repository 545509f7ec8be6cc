"""Tests of whole programs: the daemon, plugin_ctl, plugin_agent, and the examples.

Each test runs in a process of its own, in namespaces of its own (support/sandbox.py): nothing but it
sees port 3265, /tmp, /run and /dev/log, so it may use them as it likes and need not clean up.
Whatever it has started ends with it. When it fails, what its programs printed and logged is shown.

How to write one: ask for the fixtures of support/fixtures.py that it needs, most often

    log         what arrives at /dev/log: log.wait_for("part of a line"), log.count("part")
    daemon      a daemon that serves: daemon.call.ask(init_snapshot(LUN)) makes a local caller's call,
                daemon.subscribe("host") is a host plugin: next_cmd(), cancel(), end()
    plugin_ctl  plugin_ctl("list", "-o", "json") runs it; start_plugin_ctl(...) leaves it running
    start_agent, hooks, volume, supervisor, start_guard, network

and wait with wait_until, never with a sleep. `start_daemon(luns=["a", "b"], ...)` is for a test that
needs another daemon than `daemon`.
"""

import json
import os
import pathlib
import sys

import pytest

from support import sandbox

SOURCE = pathlib.Path(__file__).resolve().parents[2]


def pytest_addoption(parser):
    parser.addoption("--build", metavar="DIRECTORY", default="build/release",
                     help="the build whose programs are tested (build/release)")


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


@pytest.hookimpl(tryfirst=True)
def pytest_runtest_protocol(item):
    item.ihook.pytest_runtest_logstart(nodeid=item.nodeid, location=item.location)
    for report in sandbox.run(item, [SOURCE, pathlib.Path(os.environ["SCSI_PLUGIN_BUILD"])]):
        item.ihook.pytest_runtest_logreport(report=report)
    item.ihook.pytest_runtest_logfinish(nodeid=item.nodeid, location=item.location)
    return True
