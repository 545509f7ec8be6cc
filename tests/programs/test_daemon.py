"""The real daemon, seen from outside."""

import pytest

from support.calls import LUN, TCP, UNIX, UNSUPPORTED_LUN, Caller, is_lun_support
from support.log import Line

LISTENING = [
    Line(6, "scsi_plugin:scsi_plugin_server:30:run_grpc_server Server listening on 0.0.0.0:3265"),
    Line(6, "scsi_plugin:scsi_plugin_server:31:run_grpc_server Server listening on "
            "unix:///tmp/iscsi/plugin_server.sock"),
]


@pytest.mark.parametrize("target", [TCP, UNIX])
def test_serves_both_endpoints(daemon, log, subscribe, target):
    assert log.lines() == LISTENING
    subscribe("esx")
    log.wait_for("Connected: Plugin ID=esx IP=127.0.0.1")
    local = Caller(target)
    assert local.ids() == ["esx"]
    assert local.ask(is_lun_support(LUN))
    assert not local.ask(is_lun_support(UNSUPPORTED_LUN))
