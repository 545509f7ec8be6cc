# Networks that fail.

import selectors
import shlex
import socket
import threading

from support.program import run
from support.waiting import PATIENCE


ENDPOINTS = {socket.AF_INET: ("127.0.0.1", 3265), socket.AF_UNIX: "/tmp/iscsi/plugin_server.sock"}


def connect(family=socket.AF_INET):
    """A connection that asks for nothing."""
    connection = socket.socket(family)
    connection.settimeout(PATIENCE)
    connection.connect(ENDPOINTS[family])
    return connection


def is_served(connection):
    """Whether the server serves it, and so speaks first; false when it has closed it. Waits for either."""
    try:
        return connection.recv(1, socket.MSG_PEEK) != b""
    except ConnectionResetError:
        return False


class Network:
    """A host that is reached through a router: two more network namespaces, behind the test's own."""

    APPLIANCE = "10.77.0.1"  # what the host knows the test's own namespace by
    ON_HOST = ("ip", "netns", "exec", "host")  # in front of a command line: runs it on the host

    def __init__(self):
        for command in (
                "ip netns add router",
                "ip netns add host",
                "ip link add to_router type veth peer name to_appliance netns router",
                "ip link add to_host netns router type veth peer name to_router netns host",
                f"ip addr add {self.APPLIANCE}/24 dev to_router",
                "ip -n router addr add 10.77.0.2/24 dev to_appliance",
                "ip -n router addr add 10.78.0.2/24 dev to_host",
                "ip -n host addr add 10.78.0.1/24 dev to_router",
                "ip link set to_router up",
                "ip -n router link set to_appliance up",
                "ip -n router link set to_host up",
                "ip -n host link set to_router up",
                "ip route add 10.78.0.0/24 via 10.77.0.2",
                "ip -n host route add 10.77.0.0/24 via 10.78.0.2"):
            _do(*command.split())
        self.forward(True)

    def forward(self, on):
        """Whether the router lets packets through. When not, it drops them without a word."""
        write = f"echo {int(on)} >/proc/sys/net/ipv4/ip_forward"
        _do("ip", "netns", "exec", "router", "sh", "-c", write)


class Relay:
    """A port whose one connection is handed on to another port, byte by byte, until the test interferes."""

    def __init__(self, server_port):
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._server = socket.create_connection(("127.0.0.1", server_port))
        self.target = f"127.0.0.1:{self._listener.getsockname()[1]}"
        threading.Thread(target=self._hand_on, daemon=True).start()

    def shut_towards_server(self):
        """To the server it looks as if the client will send nothing more, and still reads."""
        self._server.shutdown(socket.SHUT_WR)

    def _hand_on(self):
        client, _ = self._listener.accept()
        with selectors.DefaultSelector() as selector:
            selector.register(client, selectors.EVENT_READ, self._server)
            selector.register(self._server, selectors.EVENT_READ, client)
            while True:
                for key, _ in selector.select():
                    data = key.fileobj.recv(4096)
                    if not data:
                        key.data.shutdown(socket.SHUT_RDWR)
                        return
                    try:
                        key.data.sendall(data)
                    except BrokenPipeError:
                        pass  # the end that was shut loses what it is meant to lose


def _do(*command):
    done = run(*command)
    assert done.status == 0, f"{shlex.join(command)}: {done.err}"
