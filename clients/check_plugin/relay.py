# A relay between the plugin and the daemon: counts the plugin's pings, and can cut its connections.

import socket
import threading
import time

PORT = 3265
ADDRESS = "127.0.0.2"  # the daemon has all others, on the same port
_PREFACE = 24  # bytes that an HTTP/2 client sends before its first frame
_FRAME_HEADER = 9
_DATA, _PING, _ACK = 0, 6, 1  # types of frames, and a flag
# gRPC also sends a ping when data has arrived, to measure the connection. That is no keepalive.
_MEASURES_WITHIN = 2  # seconds


class Relay:
    """Listens on ADDRESS, with the daemon's port."""

    def __init__(self):
        self.pings = 0  # of the plugin's keepalive
        self._data_came = 0  # when, last, for the plugin
        self._connections = []
        self._lock = threading.Lock()  # over _connections
        self._listener = socket.socket()
        # The daemon's socket has it too. A connection goes to the more specific address.
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
        self._listener.bind((ADDRESS, PORT))
        self._listener.listen(16)
        threading.Thread(target=self._accept, daemon=True).start()

    def cut(self):
        """Ends all connections, on both sides."""
        with self._lock:
            for connection in self._connections:
                _end(connection)
            self._connections.clear()

    def _accept(self):
        while True:
            plugin, _ = self._listener.accept()
            daemon = socket.create_connection(("127.0.0.1", PORT))
            with self._lock:
                self._connections += [plugin, daemon]
            for how in ((plugin, daemon, _PREFACE, self._from_plugin),
                        (daemon, plugin, 0, self._to_plugin)):
                threading.Thread(target=self._copy, args=how, daemon=True).start()

    @staticmethod
    def _copy(source, target, preface, on_frame):
        frames = _each_frame(preface, on_frame)
        next(frames)
        try:
            while data := source.recv(1 << 16):
                frames.send(data)
                target.sendall(data)
        except OSError:
            pass  # cut
        _end(source)
        _end(target)

    def _from_plugin(self, kind, flags):
        if kind == _PING and not flags & _ACK and time.monotonic() > self._data_came + _MEASURES_WITHIN:
            self.pings += 1

    def _to_plugin(self, kind, _):
        if kind == _DATA:
            self._data_came = time.monotonic()


def _each_frame(preface, on_frame):
    """Takes the bytes of one direction of a connection, by send(), and calls on_frame(type, flags)."""
    data, skip = b"", preface
    while True:
        data += yield
        while len(data) >= skip + _FRAME_HEADER:
            data = data[skip:]
            skip = _FRAME_HEADER + int.from_bytes(data[:3], "big")
            on_frame(data[3], data[4])


def _end(connection):
    """Its file descriptor is closed when nobody holds it any more."""
    try:
        connection.shutdown(socket.SHUT_RDWR)
    except OSError:
        pass  # it has ended
