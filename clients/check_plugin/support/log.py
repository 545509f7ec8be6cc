# The system's log, as the programs of a test see it.

import os
import re
import select
import socket
import struct
import threading
from typing import NamedTuple

from support.waiting import wait_until

_SO_TIMESTAMP = 29  # of Linux; the socket module has no name for it


class Line(NamedTuple):
    priority: int  # without the facility
    text: str
    tag: str = "scsi_plugin_server"  # who logged it, as it says itself: a name, or name[pid]
    facility: int = 1  # LOG_USER


class Log:
    """Whatever is sent to /dev/log."""

    opened = []  # all of this process

    def __init__(self):
        Log.opened.append(self)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, _SO_TIMESTAMP, 1)
        self._socket.bind("/dev/log")
        os.chmod("/dev/log", 0o666)
        self._reading = threading.Lock()
        self._lines = []  # under _reading, like _times
        self._times = []
        threading.Thread(target=self._read_on, daemon=True).start()

    def lines(self):
        """All lines so far. Includes what a program logged before it answered a call."""
        with self._reading:
            self._read_what_came()
            return list(self._lines)

    def timed(self):
        """All lines so far, each with the time at which it was sent, in seconds."""
        with self._reading:
            self._read_what_came()
            return list(zip(self._times, self._lines))

    def count(self, part):
        return sum(part in line.text for line in self.lines())

    def clear(self):
        with self._reading:
            self._read_what_came()
            self._lines.clear()
            self._times.clear()

    def wait_for(self, part):
        """The first line with `part` in it."""
        return wait_until(lambda: next((line for line in self.lines() if part in line.text), None))

    def hold(self):
        """`with log.hold()`: as a log service that hangs. Nothing is read; call no other method meanwhile."""
        return self._reading

    def _read_on(self):
        while True:
            select.select([self._socket], [], [])
            with self._reading:
                self._read_what_came()

    def _read_what_came(self):
        try:
            while True:
                datagram, control, _, _ = self._socket.recvmsg(1 << 18, 64, socket.MSG_DONTWAIT)
                seconds, microseconds = struct.unpack("@ll", control[0][2])
                self._times.append(seconds + microseconds / 1e6)
                self._lines.append(_parse(datagram))
        except BlockingIOError:
            pass


def _parse(datagram):
    # "<facility * 8 + priority>Mmm dd hh:mm:ss name: text"
    text = datagram.decode(errors="surrogateescape")
    header = re.match(r"<(\d+)>.{15} (.*?): ", text, re.DOTALL)
    if not header:
        return Line(-1, text, "", -1)
    return Line(int(header[1]) % 8, text[header.end():], header[2], int(header[1]) // 8)
