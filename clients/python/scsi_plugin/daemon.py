"""Calls to the daemon of one appliance."""
from __future__ import annotations

import enum
import socket
from typing import Any, Optional

import grpc

from . import messages

#: Seconds. The daemon answers these calls at once.
CALL_TIMEOUT = 5.0
#: Seconds that the daemon itself waits for a host, in init_snapshot and wait_for_depart.
HOST_WAIT = 60.0
#: The port of every appliance.
PORT = 3265

_OPTIONS = [
    # A connection of its own, so that a new channel is a new connection.
    ("grpc.use_local_subchannel_pool", 1),
    # The daemon closes connections on which pings come more often ("too_many_pings").
    ("grpc.keepalive_time_ms", 300_000),
    # A subscription is silent for days; a broken connection is noticed even then.
    ("grpc.http2.max_pings_without_data", 0),
    ("grpc.enable_http_proxy", 0),
    ("grpc.service_config_disable_resolution", 1),
]


class Answer(enum.Enum):
    YES = "yes"
    NO = "no"
    #: No answer, or another status than OK: whether the daemon got the request is not known.
    NONE = "no answer"


def split_address(appliance: str) -> tuple[str, int]:
    """Host and port of HOST[:PORT]. Raises ValueError."""
    host, colon, port = appliance.partition(":")
    try:
        if not host.encode("idna") or colon and not 0 < int(port) < 65536:
            raise ValueError
    except ValueError:
        raise ValueError(f"the address of an appliance is HOST or HOST:PORT, not {appliance!r}") from None
    return host, int(port) if colon else PORT


def ipv4_target(appliance: str) -> str:
    """What gRPC is to connect to for HOST[:PORT], or for a unix: socket. Raises OSError and ValueError.

    Commands are pushed to IPv4 peers only, and gRPC by itself prefers IPv6. Looks the name up.
    """
    if appliance.startswith("unix:"):
        return appliance
    address = socket.getaddrinfo(*split_address(appliance), socket.AF_INET, socket.SOCK_STREAM)[0][4]
    return f"ipv4:{address[0]}:{address[1]}"


class Daemon:
    """One connection to a daemon. Any thread may call; close() ends what is under way."""

    def __init__(self, appliance: str) -> None:
        self._channel: Any = grpc.insecure_channel(ipv4_target(appliance), options=_OPTIONS)
        self._methods: dict[str, Any] = {}
        for method in messages.SERVICE.methods:
            make = self._channel.unary_stream if method.name == "Subscribe" else self._channel.unary_unary
            answer = getattr(messages, method.output_type.name)
            self._methods[method.name] = make(
                f"/{messages.SERVICE.full_name}/{method.name}",
                request_serializer=getattr(messages, method.input_type.name).SerializeToString,
                response_deserializer=answer.FromString)

    def close(self) -> None:
        self._channel.close()

    def subscribe(self, client: Any) -> Any:
        """gRPC's call, an iterator of PluginCmd. Without a deadline."""
        return self._methods["Subscribe"](client)

    def unsubscribe(self, client: Any, timeout: float = CALL_TIMEOUT) -> bool:
        """Whether the daemon has answered."""
        try:
            self._methods["UnSubscribe"](client, timeout=timeout)
        except (grpc.RpcError, ValueError):  # ValueError: the channel is closed
            return False
        return True

    def find_listed(self, plugin_id: str, timeout: float = CALL_TIMEOUT) -> Optional[Any]:
        """The entry of this plugin in the daemon's list, or None. Raises grpc.RpcError."""
        listed = self._methods["PluginConnList"](messages.Empty(), timeout=timeout).list
        return next((client for client in listed if client.plugin_id == plugin_id), None)

    def lun_op(self, timeout: float = CALL_TIMEOUT, **fields: Any) -> Answer:
        """LunOp: lun_op(start_mirror_req={"src_lun_id": lun})."""
        return self._ask("LunOp", messages.LunCmd(**fields), timeout)

    def publish(self, timeout: float = HOST_WAIT + 5, **fields: Any) -> Answer:
        """Publish: publish(task_id=lun, mirror_done_req={}).

        The default timeout is longer than the daemon itself waits for a host.
        """
        return self._ask("Publish", messages.PluginCmd(**fields), timeout)

    def _ask(self, method: str, request: Any, timeout: float) -> Answer:
        try:
            answer = self._methods[method](request, timeout=timeout)
        except (grpc.RpcError, ValueError):
            return Answer.NONE
        return Answer.YES if answer.success else Answer.NO
