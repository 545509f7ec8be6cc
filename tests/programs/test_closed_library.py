# The daemon over a configuration library that is not the stand-in.

import pathlib
import socket

import pytest

from support.calls import (LUN, init_snapshot, is_lun_support, is_mirror_done, mirror_done,
                           start_mirror)
from support.program import BUILD
from support.waiting import wait_until


@pytest.fixture
def over_the_library(start_daemon):
    return start_daemon(environment={"LD_LIBRARY_PATH": BUILD / "tests/programs/awkward_library"})


def library_does(what):
    """At each load from now on; see awkward_library.c."""
    pathlib.Path("/tmp/library_does").write_text(what)


def accepts_connections():
    try:
        socket.create_connection(("127.0.0.1", 3265)).close()
        return True
    except ConnectionRefusedError:
        return False


@pytest.mark.parametrize("what, answer", [
    ("nothing else", True),
    ("fail", False),
    ("stack", True),
    ("thread", True),
])
def test_the_library_is_the_loaders_choice_and_has_the_platforms_stacks(
        log, over_the_library, what, answer):
    library_does(what)
    assert over_the_library.call.ask(is_lun_support(LUN)) == answer
    failures = log.count("scsi_plugin:plugin_utils:20:GetLunConfByFunc Failed to get config")
    assert failures == (not answer)


def test_a_library_that_calls_exit_has_the_calls_under_way_finished(log, over_the_library):
    """The process ends, with the library's exit status."""
    daemon, call = over_the_library, over_the_library.call
    daemon.may_end = True
    host = daemon.subscribe("host")
    announced = call.begin(init_snapshot(LUN))
    assert host.next_cmd().task_id == LUN
    assert call.ask(start_mirror(LUN))
    assert announced.result().success and call.ask(mirror_done(LUN))
    call.unsubscribe("host")
    host.end()

    library_does("exit")
    asked = call.begin(is_mirror_done(LUN))
    wait_until(lambda: not accepts_connections())
    library_does("nothing else")
    assert asked.result().success
    assert daemon.wait() == 3
    assert log.count("Server shutdown") == 1
