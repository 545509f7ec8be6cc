#!/usr/bin/python3
"""A local program of the appliance: takes a snapshot of one LUN with its hosts' co-operation.

usage: local_caller.py LUN [APPLIANCE]    LUN is the page-80h identifier
"""
import sys

from scsi_plugin import Answer, Daemon

if len(sys.argv) not in (2, 3):
    sys.exit(__doc__)
lun, appliance = (sys.argv[1:] + ["unix:///tmp/iscsi/plugin_server.sock"])[:2]
daemon = Daemon(appliance)


def publish(step, timeout=65, **fields):
    # Two of the steps wait up to 60 s for a host, so the deadline lies beyond that.
    answer = daemon.publish(timeout, task_id=lun, **{step: fields})
    if answer is not Answer.YES:
        sys.exit(f"{step}: {answer.value}")
    print(f"{step}: yes")


publish("init_snapshot_req", src_lun_p80=lun)
result = -1
try:
    # Mirror the LUN here.
    publish("mirror_done_req")
    publish("wait_for_depart_req")
    # Split the mirror here: the host's applications are at rest.
    # Then ask once more: a host that could not stay at rest has taken its departure back.
    publish("wait_for_depart_req", timeout=2)
    result = 0
finally:
    # Also when a step has failed: what is left open keeps the LUN from being announced for 300 s.
    publish("depart_done_req", result=result)
