# plugin_ctl subscribe: what it prints, and that it never stays behind as a vanished subscriber.

import json
import os
import re
import signal

import pytest

from plugin_cmd_pb2 import PluginClient
from support.calls import UNIX, depart_done, init_snapshot, start_mirror
from support.waiting import wait_until


@pytest.fixture
def watch(daemon, start_plugin_ctl):
    """Runs `plugin_ctl subscribe` until it says that it is subscribed."""
    def watch(*arguments, **how):
        watcher = start_plugin_ctl("subscribe", *arguments, **how)
        watcher.wait_for_err("subscribed to ")
        return watcher
    return watch


@pytest.fixture
def expect_empty_registry(log, daemon):
    """Nobody is registered, vanished or not: a broadcast has nobody to meet."""
    def expect():
        assert not daemon.call.ask(init_snapshot("probe of the registry"))
        log.wait_for("Plugin list is empty")
    return expect


@pytest.mark.parametrize("arguments, kind", [
    ("w -t 127.0.0.1", PluginClient.UNKNOWN),
    ("-t 127.0.0.1:3265 w --type vmware -o json", PluginClient.VMWARE),
])
def test_prints_commands_and_unsubscribes_on_a_signal(log, daemon, watch, expect_empty_registry,
                                                      arguments, kind):
    watcher = watch(*arguments.split())
    assert daemon.call.list()[0].type == kind
    announced = daemon.call.begin(init_snapshot("K"))
    wait_until(lambda: "K" in watcher.out and watcher.out.endswith("\n"))
    if "json" in arguments:
        assert json.loads(watcher.out) == {
            "cmd_sn": 0, "qel_sn": "", "task_id": "K", "init_snapshot_req": {
                "src_lun_uuid": "", "src_lun_p80": "K", "src_lun_p83": "", "dst_lun_uuid": "",
                "is_for_replica": False}}
    else:
        assert re.fullmatch(r"TIME      COMMAND              FIELDS\n"
                            r"\d\d:\d\d:\d\d  init_snapshot_req    task_id=K src_lun_p80=K\n", watcher.out)
    assert daemon.call.ask(start_mirror("K"))
    assert announced.result().success
    assert daemon.call.ask(depart_done("K"))
    watcher.signal(signal.SIGINT)
    assert watcher.wait() == 5
    log.wait_for("Disconnect: Plugin ID=w")
    expect_empty_registry()


@pytest.mark.parametrize("target", [UNIX, "127.0.0.1", "localhost", "[::1]"])
def test_warns_where_no_commands_can_come(daemon, plugin_ctl, watch, target):
    """What a name or an IPv6 address leads to depends on the machine; the daemon's list knows."""
    if plugin_ctl("-t", target, "list").status != 0:
        pytest.skip("no IPv6 here")
    watcher = watch("w", "-t", target)
    pushed_to = daemon.call.list()[0].ip != "Unknown"
    assert pushed_to or target != "127.0.0.1"
    watcher.signal(signal.SIGTERM)
    assert watcher.wait() == 5
    assert ("warning: " in watcher.err) != pushed_to


def test_ends_when_the_daemon_ends_it(daemon, watch):
    first = watch("w", "-t", "127.0.0.1")
    second = watch("w", "-t", "127.0.0.1")
    assert first.wait() == 0
    assert "the daemon ended the subscription" in first.err
    assert "is subscribed already, from 127.0.0.1" in second.err
    assert daemon.call.is_listed("w")  # the first one did not unsubscribe the second
    daemon.kill()
    assert second.wait() == 3
    assert "came back: UNAVAILABLE" in second.err


def test_unsubscribes_when_nobody_reads_it_any_more(daemon, watch, expect_empty_registry):
    reader, writer = os.pipe()
    watcher = watch("w", "-t", "127.0.0.1", stdout=writer)
    os.close(reader)
    announced = daemon.call.begin(init_snapshot("K"))
    assert watcher.wait() == 141
    assert "writing to standard output" not in watcher.err
    expect_empty_registry()
    assert daemon.call.ask(start_mirror("K"))
    assert announced.result().success


def test_says_that_it_may_stay_behind_when_it_cannot_unsubscribe(daemon, watch):
    """A daemon that does not answer the UnSubscribe must not keep the tool from ending."""
    watcher = watch("w", "-t", "127.0.0.1", "--timeout", "3")
    daemon.stop()
    watcher.signal(signal.SIGINT)
    assert watcher.wait() == 3
    assert "plugin_ctl unsubscribe w" in watcher.err
