"""What the author of a host plugin subclasses."""
from __future__ import annotations

import queue
import signal
import threading
from typing import Iterable, Optional, Union

from . import messages
from .daemon import split_address
from .handshake import Limits, Snapshot
from .subscription import Subscription

# Windows has no SIGHUP, but SIGBREAK: Ctrl+Break, or its console is closed.
_SIGNALS = [getattr(signal, name) for name in ("SIGTERM", "SIGINT", "SIGHUP", "SIGBREAK")
            if hasattr(signal, name)]
# Seconds. Python runs signal handlers on the main thread only. A signal that the kernel delivers to another
# thread does not wake the main thread, so it looks this often.
_LOOK = 0.5


class HostPlugin:
    """Takes part in the snapshots of the host's LUNs. A host plugin is a subclass:

        class MyPlugin(HostPlugin):
            def freeze(self, snapshot): ...   # bring to rest what uses snapshot.lun
            def thaw(self, snapshot): ...     # and let it go on

        MyPlugin("nas1", "my host", luns=["1a2b..."]).run()

    `appliances`: HOST[:PORT] of an appliance, or of several.
    `plugin_id`: no other plugin may use it at these appliances.
    `luns`: page-80h identifiers; announcements of others are ignored.
    `host_type`: UNKNOWN, VMWARE or WINDOWS.

    The methods to override are called on threads of the package's own, one thread for each snapshot. So
    freeze() may be called for two LUNs at the same time. A subclass that cannot do that needs a lock.
    """

    def __init__(self, appliances: Union[str, Iterable[str]], plugin_id: str, luns: Iterable[str], *,
                 host_type: str = "UNKNOWN", limits: Limits = Limits()) -> None:
        if isinstance(luns, str) or not 0 < limits.hold < limits.rest:
            raise ValueError("luns must be a list of LUNs, and limits.hold less than limits.rest")
        where = [appliances] if isinstance(appliances, str) else list(appliances)
        for appliance in where:
            if not appliance.startswith("unix:"):
                split_address(appliance)
        self.luns = frozenset(luns)
        self.limits = limits
        # What run() waits for: told to stop (None), or a subscription that is over. Signal handlers may
        # put something into a queue of this kind.
        self._events: queue.SimpleQueue[Optional[Subscription]] = queue.SimpleQueue()
        client = messages.PluginClient(plugin_id=plugin_id, type=host_type)
        self._subscriptions = [Subscription(self, each, client, self._events.put) for each in where]

    def prepare(self, snapshot: Snapshot) -> None:
        """Does what can be done before the mirror is complete, within 60 s: the appliance waits no longer
        for a host. Raise GivenUp to take no part."""

    def freeze(self, snapshot: Snapshot) -> None:
        """Brings to rest what uses the LUN, and returns when it is at rest. Raises when it cannot be.

        `limits.rest` counts from this call, and `limits.hold` must be left of it when this returns.
        """
        raise NotImplementedError

    def thaw(self, snapshot: Snapshot) -> None:
        """Lets it go on, whatever has happened: also when freeze() has failed. It must be harmless twice.

        When `limits.rest` is over it is called even if freeze() has not returned. It is not called when
        the process is killed: a program that freezes file systems needs another one that thaws then.
        """
        raise NotImplementedError

    def finished(self, snapshot: Snapshot, failure: Optional[str]) -> None:
        """The handshake is over. `failure` says why the snapshot does not count for this host; None if
        it stayed at rest until the appliance was done. Only the appliance knows whether the split
        succeeded."""

    def run(self) -> None:
        """Subscribes, and takes part until stop(), SIGTERM, SIGINT or SIGHUP (on Windows SIGBREAK); then
        unsubscribes.

        A host that is at rest then stays so until the split is over, at most for `limits.rest`; at a
        second signal it takes its departure back and thaws. Signals are for the main thread: on another one,
        as in a Windows service, only stop() ends it.
        """
        is_main = threading.current_thread() is threading.main_thread()
        handled = {number: signal.signal(number, lambda *_: self.stop())
                   for number in (_SIGNALS if is_main else ())}
        going_on = list(self._subscriptions)
        told_to_stop = False
        try:
            for subscription in self._subscriptions:
                subscription.thread.start()
            while going_on:
                try:
                    ended = self._events.get(timeout=_LOOK)
                except queue.Empty:
                    continue
                if ended is not None:
                    going_on.remove(ended)
                    continue
                for subscription in going_on:
                    subscription.stop(at_once=told_to_stop)
                told_to_stop = True
        finally:
            for subscription in going_on:  # no thread was to be had for one of them
                subscription.stop(at_once=True)
            for number, handler in handled.items():
                signal.signal(number, handler)

    def stop(self) -> None:
        """Ends run(). The second call also ends a rest. Any thread may call, and a signal handler."""
        self._events.put(None)
