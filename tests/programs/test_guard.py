"""plugin_ctl guard beside the real daemon."""

import signal

from support.guard import guard_status


def test_ends_when_told_to(supervisor, start_guard):
    guard = start_guard()
    assert guard_status().status == 0
    guard.signal(signal.SIGTERM)
    assert guard.wait() == 0
    ended = guard_status()
    assert ended.status == 3
    assert "no guard writes /tmp/guard_status.json" in ended.err
    assert supervisor.restarts == 0
