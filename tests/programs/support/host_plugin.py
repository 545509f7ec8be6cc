# A host plugin that plays its part of handshakes, without a host to bring to rest.

import threading

from support.calls import TCP, Caller, Host, depart_relation, is_mirror_done, start_mirror
from support.waiting import wait_until


class HostPlugin(Host):
    """Does its part of the handshake of each LUN that is announced, as far as it is asked to.

    Subscribes with an empty id: only that subscriber is told the end of a handshake.
    """

    def __init__(self, daemon, starts=True, departs=True):
        super().__init__("")
        wait_until(lambda: daemon.call.is_listed(""))
        self.announced = threading.Event()
        self.results = {}  # by LUN
        threading.Thread(target=self._play, args=(starts, departs), daemon=True).start()

    def told(self, lun):
        """The result of the split that it was told, waiting for it."""
        wait_until(lambda: lun in self.results)
        return self.results[lun]

    def _play(self, starts, departs):
        while True:
            command = self.next_cmd(patience=None)
            if command.HasField("depart_done_req"):
                self.results[command.task_id] = command.depart_done_req.result
                continue
            self.announced.set()
            if starts:
                threading.Thread(target=self._take_part, args=(command.task_id, departs),
                                 daemon=True).start()

    @staticmethod
    def _take_part(lun, departs):
        call = Caller(TCP)
        if call.ask(start_mirror(lun)) and departs:
            wait_until(lambda: call.ask(is_mirror_done(lun)))
            call.ask(depart_relation(lun))
