"""For those who write a host plugin in Python: subclass HostPlugin, with freeze() and thaw().

The package keeps the subscription at each appliance, plays the host's part of the handshake, and sees
to it that whatever happens the host is thawed and the plugin unsubscribed. `Daemon` makes single calls.
It logs to the logger "scsi_plugin".
"""
from .daemon import Answer, Daemon
from .handshake import GivenUp, Limits, Snapshot
from .plugin import HostPlugin

__all__ = ["Answer", "Daemon", "GivenUp", "HostPlugin", "Limits", "Snapshot"]
