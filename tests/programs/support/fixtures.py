# The fixtures of the tests, and what a failed one shows.

import contextlib
import functools

import pytest

from support import program
from support.agent import Agent, Hooks
from support.daemon import Daemon, Supervisor
from support.guard import Guard
from support.log import Log
from support.network import Network
from support.program import PLUGIN_CTL, Program
from support.volume import Volume

_logs = []


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport():
    report = (yield).get_result()
    if report.failed:
        report.sections += [(f"{each.command} (pid {each.pid})", each.out + each.err)
                            for each in Program.started if each.status != 0]
        for log in _logs:
            lines = (f"<{line.priority}> {line.text}" for line in log.lines()[-200:])
            report.sections.append(("log", "\n".join(lines)))


@pytest.fixture(autouse=True)
def _nothing_stays_behind():
    yield
    program.end_all()


@pytest.fixture
def log():
    """Whatever the programs of the test send to /dev/log."""
    _logs.append(Log())
    return _logs[0]


@pytest.fixture
def start_daemon(log):
    """start_daemon(**options): support.daemon.Daemon."""
    return functools.partial(Daemon, log)


@pytest.fixture
def daemon(start_daemon):
    """The daemon with the sample inventory."""
    return start_daemon()


# Programs: plugin_ctl(*arguments) is run to its end, with its status, out and err; the others go on.
@pytest.fixture
def plugin_ctl():
    return functools.partial(program.run, PLUGIN_CTL)


@pytest.fixture
def start_plugin_ctl():
    return functools.partial(Program, PLUGIN_CTL)


start_agent = pytest.fixture(lambda: Agent, name="start_agent")
start_guard = pytest.fixture(lambda: Guard, name="start_guard")
hooks = pytest.fixture(lambda: Hooks("10-a"), name="hooks")
network = pytest.fixture(lambda: Network(), name="network")


@pytest.fixture
def make_volume(_nothing_stays_behind):
    """make_volume("/tmp/inner"): support.volume.Volume. Must be thawed at the end."""
    with contextlib.ExitStack() as made:
        yield lambda path, **how: made.enter_context(contextlib.closing(Volume(path, **how)))


@pytest.fixture
def volume(make_volume):
    """A file system in use, at /tmp/data."""
    return make_volume("/tmp/data")


@pytest.fixture
def supervise(log):
    """supervise(**options of the daemon): support.daemon.Supervisor."""
    return functools.partial(Supervisor, log)


@pytest.fixture
def supervisor(supervise):
    return supervise()
