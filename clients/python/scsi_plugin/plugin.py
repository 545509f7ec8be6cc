"""The host plugin: its subscription at each appliance, and the handshakes that it takes part in."""
from __future__ import annotations

import logging
import queue
import random
import signal
import threading
from typing import Any, Iterable, Optional, Union

import grpc

from . import messages
from .daemon import CALL_TIMEOUT, Answer, Daemon
from .handshake import Handshake, Limits, Snapshot

_log = logging.getLogger("scsi_plugin")

# Seconds. The base of the random waits before the next attempt doubles with each that fails.
_SHORTEST_WAIT, _LONGEST_WAIT = 1.0, 20.0
# When to look whether the daemon lists this host after a Subscribe: it says nothing to confirm.
_LOOKS = (0.02, 0.1, 0.4, 1.5)
# How long the stream may take to end after an UnSubscribe, which ends it unless it came too early.
_STREAM_END = 1.0


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
    two LUNs may be frozen at the same time, and it is up to the subclass to hold one back.
    """

    def __init__(self, appliances: Union[str, Iterable[str]], plugin_id: str, luns: Iterable[str], *,
                 host_type: str = "UNKNOWN", limits: Limits = Limits()) -> None:
        self.luns = frozenset(luns)
        self.limits = limits
        self._client = messages.PluginClient(plugin_id=plugin_id, type=host_type)
        self._subscriptions = [_Subscription(self, where, self._client) for where in
                               ([appliances] if isinstance(appliances, str) else appliances)]
        # What run() waits for: told to stop (None), or a subscription that is over. Signal handlers may
        # put something into a queue of this kind.
        self._events: queue.SimpleQueue[Optional[_Subscription]] = queue.SimpleQueue()

    def prepare(self, snapshot: Snapshot) -> None:
        """What can be done before the mirror is complete. Within 60 s, or the appliance goes on without
        this host. Raise GivenUp to take no part."""

    def freeze(self, snapshot: Snapshot) -> None:
        """Brings to rest what uses the LUN, and returns when it is at rest. Raises when it cannot be.

        `limits.rest` counts from this call, and `limits.hold` must be left of it when this returns.
        """
        raise NotImplementedError

    def thaw(self, snapshot: Snapshot) -> None:
        """Lets it go on, whatever has happened: also when freeze() has failed. It must be harmless twice.

        When `limits.rest` is over it is called even if freeze() has not returned. Only a process that
        is killed calls nothing: a program that freezes file systems needs another that thaws for it.
        """
        raise NotImplementedError

    def finished(self, snapshot: Snapshot, failure: Optional[str]) -> None:
        """The handshake is over. `failure` says why the snapshot does not count for this host; None if
        it stayed at rest until the appliance was done. Whether the split succeeded only that knows."""

    def run(self) -> None:
        """Subscribes, and takes part until stop(), SIGTERM, SIGINT or SIGHUP; then unsubscribes.

        A host that is at rest then stays so until the split is over, at most for `limits.rest`; at a
        second signal it takes its departure back and thaws. Call it on the main thread.
        """
        handled = {number: signal.signal(number, lambda *_: self.stop())
                   for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP)}
        going_on = list(self._subscriptions)
        told_to_stop = False
        try:
            for subscription in self._subscriptions:
                subscription.thread.start()
            while going_on:
                ended = self._events.get()
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

    def _over(self, subscription: _Subscription) -> None:
        self._events.put(subscription)


class _Subscription:
    """At one appliance: made again whenever it ends, until stop()."""

    def __init__(self, plugin: HostPlugin, appliance: str, client: Any) -> None:
        self._plugin, self._appliance, self._client = plugin, appliance, client
        self._stop = threading.Event()
        self._news = threading.Event()  # told to stop, or the stream has ended
        self._daemon: Optional[Daemon] = None
        self._losses = 0
        self._handshakes: dict[str, tuple[Handshake, threading.Thread]] = {}  # by LUN
        # Not a daemon thread: the interpreter waits for it, and so for its UnSubscribe.
        self.thread = threading.Thread(target=self._run, name=f"subscription to {appliance}")

    def stop(self, at_once: bool) -> None:
        for handshake, _ in list(self._handshakes.values()):
            handshake.give_up("the plugin was told to stop", at_once)
        self._stop.set()
        self._news.set()

    def _run(self) -> None:
        try:
            self._stay_subscribed()
        finally:
            # Also when the stream was lost: a subscriber that has vanished hangs the daemon at the next
            # announcement.
            if self._daemon is not None:
                if not self._daemon.unsubscribe(self._client):
                    _log.warning("%s: left without being able to unsubscribe", self._appliance)
                self._daemon.close()
            self._plugin._over(self)

    def _stay_subscribed(self) -> None:
        wait = _SHORTEST_WAIT
        while not self._stop.is_set():
            try:
                was_listed, why = self._subscribe_once()
            except (OSError, grpc.RpcError, RuntimeError) as error:  # RuntimeError: no thread to be had
                was_listed, why = False, f"not subscribed: {error}"
            if was_listed:
                wait = _SHORTEST_WAIT
            if self._stop.is_set():
                break
            pause = random.uniform(0.5, 1.5) * wait
            _log.warning("%s: %s; subscribing again in %.1f s", self._appliance, why, pause)
            self._stop.wait(pause)
            wait = min(2 * wait, _LONGEST_WAIT)

    def _subscribe_once(self) -> tuple[bool, str]:
        """Whether the daemon has listed this host, and why that is over."""
        daemon = Daemon(self._appliance)  # the handshakes go on over the new connection
        before, self._daemon = self._daemon, daemon
        if before is not None:
            before.close()
        stream = daemon.subscribe(self._client)
        self._news.clear()
        ended = threading.Event()
        status: list[Any] = []
        reader = threading.Thread(target=self._read, args=(stream, status, ended))
        reader.start()
        try:
            listed = self._confirm(daemon, ended)
            if listed is not False and not self._stop.is_set():
                self._news.wait()
            if self._stop.is_set():
                for _, thread in list(self._handshakes.values()):
                    thread.join(self._plugin.limits.rest + CALL_TIMEOUT)
        finally:
            if not ended.is_set():
                # First this, and then cancel. An UnSubscribe that comes before the daemon has begun to
                # wait on the stream does not end it.
                answered = daemon.unsubscribe(self._client)
                if not ended.wait(_STREAM_END if answered else 0):
                    stream.cancel()
                    daemon.unsubscribe(self._client)
            reader.join()
        if listed is False:
            return False, "it does not list this host: somebody unsubscribed it as it subscribed"
        if status[0] is grpc.StatusCode.OK:
            return bool(listed), ("the subscription was ended there: another plugin subscribed with the "
                                  "same plugin_id, or somebody unsubscribed it")
        return bool(listed), f"not subscribed: {stream.details()}"

    def _confirm(self, daemon: Daemon, ended: threading.Event) -> Optional[bool]:
        """Whether the daemon lists this host; None when it does not answer, or the stream has ended."""
        for pause in _LOOKS:
            if ended.wait(pause) or self._stop.is_set():
                return None
            try:
                entry = daemon.find_listed(self._client.plugin_id)
            except grpc.RpcError:
                return None  # it is blocked, or the connection is lost, which ends the stream
            if entry is not None:
                _log.info("%s: subscribed as %s, seen there as %s", self._appliance, entry.plugin_id,
                          entry.ip)
                return True
        return False

    def _read(self, stream: Any, status: list[Any], ended: threading.Event) -> None:
        try:
            for command in stream:
                if command.HasField("init_snapshot_req") and not self._stop.is_set():
                    self._begin(command.init_snapshot_req)
        except grpc.RpcError:
            pass
        if stream.code() is not grpc.StatusCode.OK:
            self._losses += 1
        status.append(stream.code())
        ended.set()
        self._news.set()

    def _begin(self, announced: Any) -> None:
        lun = announced.src_lun_p80
        if lun not in self._plugin.luns:
            return
        snapshot = Snapshot(lun, announced.src_lun_p83, announced.src_lun_uuid, announced.dst_lun_uuid,
                            announced.is_for_replica, self._appliance)
        _log.info("%s: a snapshot of LUN %s is announced", self._appliance, lun)
        before = self._handshakes.get(lun)
        handshake = Handshake(self._plugin, snapshot, self._plugin.limits, self._ask, self._exists,
                              lambda: self._losses)
        if before is not None:
            before[0].superseded()

        def run() -> None:
            if before is not None:
                before[1].join()  # so that its thaw comes before the next freeze
            handshake.run()

        thread = threading.Thread(target=run, name=f"snapshot of {lun}", daemon=True)
        self._handshakes[lun] = (handshake, thread)
        thread.start()

    def _ask(self, timeout: float = CALL_TIMEOUT, **fields: Any) -> Answer:
        daemon = self._daemon
        assert daemon is not None
        return daemon.lun_op(timeout, plugin_id=self._client.plugin_id, **fields)

    def _exists(self, lun: str, timeout: float) -> bool:
        """Whether the daemon still has the handshake, without a change to it.

        It says at once that there is none, and waits if there is one.
        """
        daemon = self._daemon
        assert daemon is not None
        return daemon.publish(timeout, task_id=lun, wait_for_depart_req={}) is not Answer.NO

