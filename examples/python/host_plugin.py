#!/usr/bin/python3
"""A host plugin: takes part in the snapshots of one LUN.

usage: host_plugin.py PLUGIN_ID LUN [APPLIANCE]    LUN is the page-80h identifier
"""
import logging
import sys

from scsi_plugin import HostPlugin


class Example(HostPlugin):
    def freeze(self, snapshot):
        print("at rest", flush=True)  # bring the applications to rest before this line

    def thaw(self, snapshot):
        print("at work", flush=True)  # and let them go on here


if len(sys.argv) not in (3, 4):
    sys.exit(__doc__)
plugin_id, lun, appliance = (sys.argv[1:] + ["127.0.0.1"])[:3]
logging.basicConfig(level=logging.INFO)
Example(appliance, plugin_id, [lun]).run()
