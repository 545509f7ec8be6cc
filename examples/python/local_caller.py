#!/usr/bin/python3
"""A local program of the appliance: takes a snapshot of one LUN with its hosts' co-operation.

usage: local_caller.py LUN [ADDRESS]    LUN is the page-80h identifier
"""
import sys

import grpc
from plugin_cmd_pb2 import DepartDoneReq, InitSnapshotReq, MirrorDoneReq, PluginCmd, WaitForDepartReq
from plugin_service_pb2_grpc import PluginServiceStub

if len(sys.argv) not in (2, 3):
    sys.exit(__doc__)
lun, address = (sys.argv[1:] + ["unix:///tmp/iscsi/plugin_server.sock"])[:2]
daemon = PluginServiceStub(grpc.insecure_channel(address))


def publish(seconds=65, **command):
    # Two of the steps wait up to 60 s for a host, so the deadline lies beyond that.
    (step,) = command
    try:
        if not daemon.Publish(PluginCmd(task_id=lun, **command), timeout=seconds).success:
            sys.exit(f"{step}: no")
    except grpc.RpcError as error:
        sys.exit(f"{step}: {error.details()}")
    print(f"{step}: yes")


publish(init_snapshot_req=InitSnapshotReq(src_lun_p80=lun))
result = -1
try:
    # Mirror the LUN here.
    publish(mirror_done_req=MirrorDoneReq())
    publish(wait_for_depart_req=WaitForDepartReq())
    # Split the mirror here: the host's applications are at rest.
    # Then ask once more: a host that could not stay at rest has taken its departure back.
    publish(2, wait_for_depart_req=WaitForDepartReq())
    result = 0
finally:
    # Also when a step has failed: what is left open keeps the LUN from being announced for 300 s.
    publish(depart_done_req=DepartDoneReq(result=result))
