# Runs each test in a process and in namespaces of its own.

import os
import pickle
import signal
import tempfile

import pytest
from _pytest.runner import runtestprotocol

from support import namespaces

TEST_SECONDS = 240  # after which a test that hangs is ended
SLOW_SECONDS = 1800


def run(item, kept):
    """Runs one test in a process of its own, which sees the folders `kept`. Returns its reports."""
    with tempfile.TemporaryFile() as file:
        keeper = namespaces.fork(lambda: namespaces.keep(lambda: _test(item, kept, file)))
        _, status = os.waitpid(keeper, 0)
        file.seek(0)
        if status == 0:
            return [item.config.hook.pytest_report_from_serializable(config=item.config, data=data)
                    for data in pickle.load(file)]
    printed = item.config.pluginmanager.getplugin("capturemanager").read_global_capture()
    how = os.waitstatus_to_exitcode(status)
    return [pytest.TestReport(item.nodeid, item.location, {}, "failed",
                              f"the test's process ended with {how}\n{printed.out}{printed.err}", "call",
                              user_properties=item.user_properties)]


def _test(item, kept, file):
    seconds = SLOW_SECONDS if item.get_closest_marker("slow") else TEST_SECONDS

    def end(number, _):
        pytest.fail(f"ended by {signal.Signals(number).name} (after {seconds} s: SIGALRM)")

    namespaces.end_with_parent()
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGALRM):
        signal.signal(number, end)
    signal.alarm(seconds)
    try:
        namespaces.enter(kept)
    except OSError as error:
        item.add_marker(pytest.mark.skip(reason=f"no namespaces to be had: {error}"))
    reports = runtestprotocol(item, log=False, nextitem=None)
    pickle.dump([item.config.hook.pytest_report_to_serializable(config=item.config, report=report)
                 for report in reports], file)
    file.flush()
    return 0
