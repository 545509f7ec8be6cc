#!/usr/bin/python3
"""A host plugin: takes part in the snapshots of one LUN.

usage: host_plugin.py PLUGIN_ID LUN [ADDRESS]    LUN is the page-80h identifier
"""
import contextlib
import signal
import sys
import time

import grpc
from lun_cmd_pb2 import LUN_TYPE_80, DepartRelationReq, IsMirrorDoneReq, LunCmd, StartMirrorReq
from plugin_cmd_pb2 import PluginClient
from plugin_service_pb2_grpc import PluginServiceStub

if len(sys.argv) not in (3, 4):
    sys.exit(__doc__)
plugin_id, lun, address = (sys.argv[1:] + ["127.0.0.1:3265"])[:3]
daemon = PluginServiceStub(grpc.insecure_channel(address))


def says_yes(**command):
    return daemon.LunOp(LunCmd(plugin_id=plugin_id, **command), timeout=5).success


def becomes(answer, seconds, **command):
    """Whether the daemon gives this answer in time. Asks for the first time after a moment."""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        time.sleep(0.2)
        if says_yes(**command) == answer:
            return True
    return False


def take_part():
    if not says_yes(start_mirror_req=StartMirrorReq(src_lun_id=lun)):
        return print("the announcement is withdrawn")
    if not becomes(True, 3600, is_mirror_done_req=IsMirrorDoneReq(type=LUN_TYPE_80, src_lun_id=lun)):
        return print("the mirror takes too long")
    depart = DepartRelationReq(src_lun_id=lun)
    over = False
    try:
        print("at rest")  # bring the applications to rest before this line
        # Until the handshake is gone: the split is over then.
        over = not says_yes(depart_relation_req=depart) or becomes(False, 30, depart_relation_req=depart)
    finally:
        if not over:
            withdraw()
        print("at work")  # and let them go on here, whatever has happened


def withdraw():
    """Takes the departure back, so that the local caller learns that the copy is not good."""
    for _ in range(2):  # a question that timed out may reach the daemon after the first
        with contextlib.suppress(grpc.RpcError):
            daemon.LunOp(LunCmd(start_mirror_req=StartMirrorReq(src_lun_id=lun)), timeout=0.4)
        time.sleep(0.1)


sys.stdout.reconfigure(line_buffering=True)
signal.signal(signal.SIGTERM, signal.default_int_handler)
try:
    for command in daemon.Subscribe(PluginClient(plugin_id=plugin_id)):
        if command.init_snapshot_req.src_lun_p80 == lun:
            take_part()
except KeyboardInterrupt:
    daemon.UnSubscribe(PluginClient(plugin_id=plugin_id), timeout=5)
