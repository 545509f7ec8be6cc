"""The host's side of one snapshot of one LUN."""
from __future__ import annotations

import logging
import threading
import time
from dataclasses import dataclass
from typing import Any, Callable, Optional

from .daemon import CALL_TIMEOUT, HOST_WAIT, Answer

_log = logging.getLogger("scsi_plugin")

# Pauses between two questions grow to a tenth of the time so far, from the first to the longest.
_LONGEST_PAUSE = 1.0
# Not at once: for a LUN that needs no mirror the question itself moves the handshake on, and that must
# not happen before the local caller has seen that the mirror may start.
_FIRST_MIRROR_PAUSE = 0.05
_FIRST_DEPART_PAUSE = 0.01
# While the mirror is not done, how often to ask whether the handshake still exists. Each time costs
# the daemon a thread for a minute.
_FIRST_LOOK, _LONGEST_LOOK = 10.0, 30.0
_LOOK_TIMEOUT = 1.0
# A departure is taken back twice: a depart_relation that timed out may arrive after the first time.
_WITHDRAWAL_TIMEOUT, _WITHDRAWAL_PAUSE = 0.4, 0.1
_WITHDRAWAL = 2 * (_WITHDRAWAL_TIMEOUT + _WITHDRAWAL_PAUSE)


@dataclass(frozen=True)
class Snapshot:
    """One announced snapshot, as the local caller has described it. Texts may be empty, but not `lun`."""

    lun: str  # the page-80h identifier, which names the handshake
    naa: str  # the page-83h identifier
    uuid: str
    destination_uuid: str
    for_replica: bool
    appliance: str  # as it was given to the plugin


class GivenUp(Exception):
    """A handshake has come to nothing; its text says why. prepare() and freeze() may raise it too."""


@dataclass(frozen=True)
class Limits:
    """Seconds."""

    rest: float = 30.0    # the host at rest, counted from the call of freeze()
    hold: float = 20.0    # of `rest`, what must be left for the split when the host departs
    mirror: float = 3600.0


class Handshake:
    """From the announcement to the thaw. run() blocks; the other methods may be called by any thread."""

    def __init__(self, plugin: Any, snapshot: Snapshot, limits: Limits,
                 ask: Callable[..., Answer], exists: Callable[[str, float], bool],
                 losses: Callable[[], int]) -> None:
        self._plugin, self._snapshot, self._limits = plugin, snapshot, limits
        self._ask_daemon, self._exists, self._losses = ask, exists, losses
        self._announced = time.monotonic()
        self._why: Optional[str] = None  # to give up
        self._give_up = threading.Event()
        self._at_once = threading.Event()  # give up also at rest
        self._superseded = False
        # The appliance may count on the host being at rest.
        self._departed = False

    def give_up(self, reason: str, at_once: bool = False) -> None:
        """Ends it before the rest; during the rest only `at_once`, and then the departure is taken back."""
        self._why = reason
        self._give_up.set()
        if at_once:
            self._at_once.set()

    def superseded(self) -> None:
        """The LUN was announced again, so this handshake is over: what it asks would reach the new one."""
        self._superseded = True
        self.give_up("the appliance has announced another snapshot of the LUN", at_once=True)

    def run(self) -> None:
        failure: Optional[str] = None
        try:
            self._plugin.prepare(self._snapshot)
            self._start_mirror()
            self._wait_for_mirror()
            self._rest()
        except Exception as error:
            failure = str(error) or type(error).__name__
            if not isinstance(error, GivenUp):
                _log.exception("LUN %s: a fault of the plugin", self._snapshot.lun)
        _log.info("LUN %s: %s", self._snapshot.lun, failure or "the host was at rest for the split")
        try:
            self._plugin.finished(self._snapshot, failure)
        except Exception:
            _log.exception("LUN %s: finished() failed", self._snapshot.lun)

    def _start_mirror(self) -> None:
        while True:
            self._check_news()
            answer = self._ask("start_mirror_req")
            if answer is Answer.YES:
                return
            if answer is Answer.NO:
                raise GivenUp("the appliance no longer waits for this host")
            if time.monotonic() > self._announced + HOST_WAIT:
                raise GivenUp("the appliance does not answer")
            self._pause(_LONGEST_PAUSE)

    def _wait_for_mirror(self) -> None:
        start = time.monotonic()
        look_after, next_look, losses = _FIRST_LOOK, start + _FIRST_LOOK, self._losses()
        while True:
            self._pause(_growing(time.monotonic() - start, _FIRST_MIRROR_PAUSE))
            answer = self._ask("is_mirror_done_req")
            if answer is Answer.YES:
                return
            now = time.monotonic()
            if now > start + self._limits.mirror:
                raise GivenUp("the mirror was not done in time")
            if answer is Answer.NO and (now > next_look or losses != self._losses()):
                # "Not done" is the answer also when there is no handshake any more: the local caller has
                # given up, or the daemon was started anew.
                losses = self._losses()
                if not self._exists(self._snapshot.lun, _LOOK_TIMEOUT):
                    raise GivenUp("the appliance has given up")
                look_after = min(2 * look_after, _LONGEST_LOOK)
                next_look = now + look_after

    def _rest(self) -> None:
        losses = self._losses()
        deadline = time.monotonic() + self._limits.rest
        # In case freeze() or this thread hangs.
        last_resort = threading.Timer(self._limits.rest, self._plugin.thaw, [self._snapshot])
        last_resort.daemon = True
        last_resort.start()
        try:
            self._check_news()
            self._plugin.freeze(self._snapshot)
            self._check_news()
            if deadline - time.monotonic() < self._limits.hold:
                raise GivenUp(f"the freeze took so long that less than {self._limits.hold:g} s were left")
            start = time.monotonic()
            last_question = deadline - _WITHDRAWAL
            self._departed = True
            if not self._stands(last_question):
                raise GivenUp("the appliance no longer waits for the frozen host")
            while self._stands(last_question):
                now = time.monotonic()
                self._at_once.wait(min(_growing(now - start, _FIRST_DEPART_PAUSE), last_question - now))
        finally:
            try:
                if self._departed:
                    self._withdraw()
            finally:
                self._plugin.thaw(self._snapshot)
                last_resort.cancel()
        if self._losses() != losses:
            raise GivenUp("the connection was lost while the host was at rest: "
                          "a daemon that was started anew says no, too")

    def _stands(self, until: float) -> bool:
        """Departs, or asks whether the departure stands, until the daemon says so."""
        while True:
            if self._superseded:
                self._departed = False
            if self._at_once.is_set():
                self._check_news()
            left = until - time.monotonic()
            if left <= 0:
                raise GivenUp("the split took too long")
            # Never later than the thaw: a plugin that was stopped in between must not promise a rest.
            answer = self._ask("depart_relation_req", min(CALL_TIMEOUT, left))
            if answer is Answer.NONE:
                self._at_once.wait(min(_LONGEST_PAUSE, left))
                continue
            if answer is Answer.NO:
                self._departed = False
            return answer is Answer.YES

    def _withdraw(self) -> None:
        for _ in range(2):
            if not self._superseded:
                self._ask("start_mirror_req", _WITHDRAWAL_TIMEOUT)
                time.sleep(_WITHDRAWAL_PAUSE)

    def _ask(self, request: str, timeout: float = CALL_TIMEOUT) -> Answer:
        body = {"task_id": self._snapshot.lun, "src_lun_id": self._snapshot.lun, "type": "LUN_TYPE_80"}
        return self._ask_daemon(timeout, **{request: body})

    def _pause(self, seconds: float) -> None:
        self._give_up.wait(seconds)
        self._check_news()

    def _check_news(self) -> None:
        if self._why is not None:
            raise GivenUp(self._why)


def _growing(so_far: float, first: float) -> float:
    return min(max(so_far / 10, first), _LONGEST_PAUSE)
