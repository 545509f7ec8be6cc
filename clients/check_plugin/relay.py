# A relay between the plugin and the daemon: counts the plugin's pings, and can cut its connections.

import socket
import threading

PORT = 3265
ADDRESS = "127.0.0.2"  # the daemon has all others, on the same port
_PREFACE = 24  # bytes that an HTTP/2 client sends before its first frame
_FRAME_HEADER = 9
_PING, _ACK = 6, 1


class Relay:
    """Listens on ADDRESS, with the daemon's port."""

    def __init__(self):
        self.pings = 0  # of the plugin, its answers to the daemon's not among them
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
            for pair, watch in (((plugin, daemon), self._count_pings()), ((daemon, plugin), None)):
                threading.Thread(target=self._copy, args=(*pair, watch), daemon=True).start()

    @staticmethod
    def _copy(source, target, watch):
        if watch:
            next(watch)
        try:
            while data := source.recv(1 << 16):
                if watch:
                    watch.send(data)
                target.sendall(data)
        except OSError:
            pass  # cut
        _end(source)
        _end(target)

    def _count_pings(self):
        """Takes the bytes of one connection, by send()."""
        data = b""
        skip = _PREFACE
        while True:
            data += yield
            while len(data) >= skip + _FRAME_HEADER:
                data = data[skip:]
                skip = _FRAME_HEADER + int.from_bytes(data[:3], "big")
                if data[3] == _PING and not data[4] & _ACK:
                    self.pings += 1


def _end(connection):
    """Its file descriptor is closed when nobody holds it any more."""
    try:
        connection.shutdown(socket.SHUT_RDWR)
    except OSError:
        pass  # it has ended
