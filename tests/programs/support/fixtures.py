"""The fixtures of the tests, and what a failed one shows."""

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
        for each in Program.started:
            if each.status == 0:
                continue
            report.sections.append((f"{each.command} (pid {each.pid})", f"{each.out}{each.err}"))
        for log in _logs:
            report.sections.append(("log", "\n".join(f"<{line.priority}> {line.text}" for line in log.lines()[-200:])))


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
    return lambda **options: Daemon(log, **options)


@pytest.fixture
def daemon(start_daemon):
    """The daemon with the sample inventory."""
    return start_daemon()


@pytest.fixture
def plugin_ctl():
    """plugin_ctl(*arguments): run to its end, with its status, out and err."""
    return lambda *arguments, **how: program.run(PLUGIN_CTL, *arguments, **how)


@pytest.fixture
def start_plugin_ctl():
    """start_plugin_ctl(*arguments): left running."""
    return lambda *arguments, **how: Program(PLUGIN_CTL, *arguments, **how)


@pytest.fixture
def start_agent():
    """start_agent(*options, ...): support.agent.Agent."""
    return Agent


@pytest.fixture
def hooks():
    return Hooks()


@pytest.fixture
def make_volume(_nothing_stays_behind):
    """make_volume("/tmp/inner"): support.volume.Volume. Must be thawed at the end."""
    made = []

    def make(path):
        made.append(Volume(path))
        return made[-1]
    yield make
    for volume in reversed(made):
        volume.close()


@pytest.fixture
def volume(make_volume):
    """A file system in use, at /tmp/data."""
    return make_volume("/tmp/data")


@pytest.fixture
def supervise(log):
    """supervise(**options of the daemon): support.daemon.Supervisor, with the daemon in it."""
    made = []

    def supervise(**options):
        made.append(Supervisor(log, **options))
        return made[-1]
    yield supervise
    for each in made:
        each.end()


@pytest.fixture
def supervisor(supervise):
    return supervise()


@pytest.fixture
def start_guard():
    """start_guard(*options, ...): support.guard.Guard."""
    return Guard


@pytest.fixture
def network():
    return Network()
