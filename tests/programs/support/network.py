# Networks that fail.

import os
import shlex
import socket

from support.program import run
from support.waiting import PATIENCE


ENDPOINTS = {socket.AF_INET: ("127.0.0.1", 3265), socket.AF_UNIX: "/tmp/iscsi/plugin_server.sock"}


def connect(family=socket.AF_INET):
    """A connection over which nothing is sent."""
    connection = socket.socket(family)
    connection.settimeout(PATIENCE)
    connection.connect(ENDPOINTS[family])
    return connection


def is_served(connection):
    """True when the server serves it (an HTTP/2 server speaks first), false when it has closed it."""
    try:
        return connection.recv(1, socket.MSG_PEEK) != b""
    except ConnectionResetError:
        return False


def shut_towards_server():
    """Sends a FIN on all TCP connections of this process, which go on reading."""
    for fd in map(int, os.listdir("/proc/self/fd")):
        try:
            with socket.socket(fileno=os.dup(fd)) as connection:
                if connection.family != socket.AF_UNIX and connection.getpeername()[1] == 3265:
                    connection.shutdown(socket.SHUT_WR)
        except OSError:
            pass  # no connection


def lose_tcp(port, on):
    """Whether packets to and from this port of the test's own network are lost."""
    run("nft", "delete", "table", "inet", "lost")  # which need not be there
    if on:
        _do("nft", f"table inet lost {{ chain out {{ type filter hook output priority 0; "
                   f"tcp dport {port} drop; tcp sport {port} drop; }}; }}")


class Network:
    """A host that is reached through a router: two more network namespaces, behind the test's own."""

    APPLIANCE = "10.77.0.1"  # the address of the test's own namespace, as the host sees it
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
        """Whether the router forwards packets. When not, it drops them and reports nothing."""
        write = f"echo {int(on)} >/proc/sys/net/ipv4/ip_forward"
        _do("ip", "netns", "exec", "router", "sh", "-c", write)


def _do(*command):
    done = run(*command)
    assert done.status == 0, f"{shlex.join(command)}: {done.err}"
