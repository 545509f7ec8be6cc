"""The subscription at one appliance."""
from __future__ import annotations

import logging
import random
import threading
import time
from typing import TYPE_CHECKING, Any, Callable, Optional

import grpc

from .daemon import CALL_TIMEOUT, Answer, Daemon
from .handshake import Handshake, Snapshot

if TYPE_CHECKING:
    from .plugin import HostPlugin

_log = logging.getLogger("scsi_plugin")

# All in seconds. The pause before a new attempt after a lost connection: a random one, since all hosts of
# a daemon lose theirs in the same instant.
_LOST = (0.5, 4.0)
# The same when the daemon is there but does not keep this host: from, doubled each time, to.
_TURNED_AWAY = (1.0, 20.0)
_HEALTHY = 60.0  # a subscription that held for this long was a success
# When to look whether the daemon lists this host, since it says nothing to confirm: often at the first
# time; later once, at a random time up to this, since all hosts come back together.
_FIRST_LOOKS = (0.02, 0.1, 0.4, 1.5)
_LATER_LOOK = 60.0
# How long the stream may take to end after an UnSubscribe.
_STREAM_END = 1.0


class Subscription:
    """At one appliance: made again whenever it ends, until stop(). Its handshakes run on other threads.

    The owner starts `thread`, at whose end `over` is called.
    """

    def __init__(self, plugin: HostPlugin, appliance: str, client: Any,
                 over: Callable[[Subscription], None]) -> None:
        self._plugin, self._appliance, self._client, self._over = plugin, appliance, client, over
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
            for _, thread in list(self._handshakes.values()):
                thread.join(self._plugin.limits.rest + CALL_TIMEOUT)
            # Also when the stream was lost: a subscriber that has vanished hangs the daemon at the next
            # announcement.
            if self._daemon is not None:
                if not self._daemon.unsubscribe(self._client):
                    _log.warning("%s: left without being able to unsubscribe", self._appliance)
                self._daemon.close()
            self._over(self)

    def _stay_subscribed(self) -> None:
        wait = _TURNED_AWAY[0]
        looks: tuple[float, ...] = _FIRST_LOOKS
        while not self._stop.is_set():
            begun = time.monotonic()
            try:
                why, turned_away = self._subscribe_once(looks)
            except (OSError, grpc.RpcError, RuntimeError) as error:  # RuntimeError: no thread to be had
                why, turned_away = f"not subscribed: {error}", False
            if self._stop.is_set():
                break
            if time.monotonic() > begun + _HEALTHY:
                wait = _TURNED_AWAY[0]
            pause = wait * random.uniform(1, 1.5) if turned_away else random.uniform(*_LOST)
            if turned_away:
                wait = min(2 * wait, _TURNED_AWAY[1])
            _log.warning("%s: %s; subscribing again in %.1f s", self._appliance, why, pause)
            self._stop.wait(pause)
            looks = (random.uniform(0, _LATER_LOOK),)

    def _subscribe_once(self, looks: tuple[float, ...]) -> tuple[str, bool]:
        """Why it is over, and whether the daemon is there but does not keep this host."""
        daemon = Daemon(self._appliance)  # the handshakes go on over the new connection
        before, self._daemon = self._daemon, daemon
        if before is not None:
            before.close()
        stream = daemon.subscribe(self._client)
        self._news.clear()
        ended = threading.Event()
        reader = threading.Thread(target=self._read, args=(stream, ended))
        try:
            reader.start()
            if is_listed := self._is_listed(daemon, looks):
                while not ended.is_set() and not self._stop.is_set():
                    self._news.wait()
        finally:
            if not ended.is_set():
                # First this, and then cancel. An UnSubscribe that comes before the daemon has begun to
                # wait on the stream does not end it; so once more.
                answered = daemon.unsubscribe(self._client)
                if not ended.wait(_STREAM_END if answered else 0):
                    stream.cancel()
                    daemon.unsubscribe(self._client)
            if reader.ident is not None:  # it was started
                reader.join()
        if not is_listed:
            return "it does not list this host: somebody unsubscribed it as it subscribed", True
        if stream.code() is grpc.StatusCode.OK:
            return ("the subscription was ended there: another plugin subscribed with the same plugin_id, "
                    "or somebody unsubscribed it"), True
        return f"not subscribed: {stream.details()}", False

    def _is_listed(self, daemon: Daemon, looks: tuple[float, ...]) -> bool:
        """Whether the daemon lists this host, as far as it answers. Ends early when there is news."""
        for pause in looks:
            if self._news.wait(pause):
                return True
            try:
                entry = daemon.find_listed(self._client.plugin_id)
            except grpc.RpcError:
                return True  # it is blocked, or the connection is lost, which ends the stream
            if entry is not None:
                _log.info("%s: subscribed as %s, seen there as %s", self._appliance, entry.plugin_id,
                          entry.ip)
                return True
        return False

    def _read(self, stream: Any, ended: threading.Event) -> None:
        try:
            for command in stream:
                if command.HasField("init_snapshot_req") and not self._stop.is_set():
                    self._begin(command.init_snapshot_req)
        except grpc.RpcError:
            pass
        if stream.code() is not grpc.StatusCode.OK:
            self._losses += 1
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
        try:
            thread.start()
        except RuntimeError as error:  # no thread to be had
            _log.error("%s: no part in the snapshot of LUN %s: %s", self._appliance, lun, error)
            if before is not None:
                self._handshakes[lun] = before
            else:
                del self._handshakes[lun]

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

