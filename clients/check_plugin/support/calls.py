# The calls of host plugins and of local callers.

import concurrent.futures
import queue
import threading

import grpc
from google.protobuf.empty_pb2 import Empty

from lun_cmd_pb2 import LUN_TYPE_80, LunCmd
from plugin_cmd_pb2 import PluginClient, PluginCmd
from plugin_service_pb2_grpc import PluginServiceStub, add_PluginServiceServicer_to_server
from support.waiting import PATIENCE, wait_until

TCP = "127.0.0.1:3265"
UNIX = "unix:///tmp/iscsi/plugin_server.sock"

# Of the sample inventory.
LUN = "1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6"
LUN_NAA = "60014051a2b3c4dd5e6fd7a8bd9c0dde"
OTHER_LUN = "9b1deb4d-3b7d-4bad-9bdd-2b0d7b3dcb6d"
REPLICA_LUN = "c3d9e8b1-2f64-4b7a-9e05-7714aa0c6f2e"  # needs no mirror
UNSUPPORTED_LUN = "0e984725-c51c-4bf4-9960-e1c80e27aba0"

LONGEST_CALL = 120  # seconds; more than the daemon's longest legal wait


def is_lun_support(lun, lun_type=LUN_TYPE_80):
    return LunCmd(is_lun_support_req={"src_lun_id": lun, "type": lun_type})


def is_mirror_done(lun, lun_type=LUN_TYPE_80):
    return LunCmd(is_mirror_done_req={"src_lun_id": lun, "type": lun_type})


def start_mirror(lun):
    return LunCmd(start_mirror_req={"src_lun_id": lun})


def depart_relation(lun):
    return LunCmd(depart_relation_req={"src_lun_id": lun})


def init_snapshot(lun):
    return PluginCmd(init_snapshot_req={"src_lun_p80": lun})


def mirror_done(lun):
    return PluginCmd(task_id=lun, mirror_done_req={})


def wait_for_depart(lun):
    return PluginCmd(task_id=lun, wait_for_depart_req={})


def depart_done(lun, result=0):
    return PluginCmd(task_id=lun, depart_done_req={"result": result})


def channel_to(target):
    """A channel with a connection of its own, made again at once when it is lost."""
    return grpc.insecure_channel(target, options=[
        ("grpc.use_local_subchannel_pool", 1), ("grpc.initial_reconnect_backoff_ms", 50),
        ("grpc.min_reconnect_backoff_ms", 50), ("grpc.max_reconnect_backoff_ms", 200),
        ("grpc.max_send_message_length", -1), ("grpc.max_receive_message_length", -1)])


def serve(service, target=TCP):
    """Serves the daemon's TCP port, or another, with this servicer."""
    service.server = grpc.server(concurrent.futures.ThreadPoolExecutor(200))
    add_PluginServiceServicer_to_server(service, service.server)
    assert service.server.add_insecure_port(target)
    service.server.start()


class Caller:
    """Makes calls. They wait until the daemon serves, and raise when the status is not OK."""

    def __init__(self, target=UNIX):
        self._channel = channel_to(target)
        self.stub = PluginServiceStub(self._channel)

    def close(self):
        self._channel.close()

    def begin(self, request, timeout=LONGEST_CALL):
        """Begins LunOp or Publish, whichever takes the request: gRPC's future.

        The call is cancelled when neither the future nor this caller is held any longer.
        """
        method = self.stub.LunOp if isinstance(request, LunCmd) else self.stub.Publish
        return method.future(request, timeout=timeout, wait_for_ready=True)

    def ask(self, request, timeout=LONGEST_CALL):
        """The verdict."""
        return self.begin(request, timeout).result().success

    def unsubscribe(self, plugin_id, timeout=PATIENCE):
        self.stub.UnSubscribe(PluginClient(plugin_id=plugin_id), timeout=timeout, wait_for_ready=True)

    def list(self, timeout=PATIENCE):
        return self.stub.PluginConnList(Empty(), timeout=timeout, wait_for_ready=True).list

    def ids(self, timeout=PATIENCE):
        """The plugins that are listed, sorted."""
        return sorted(plugin.plugin_id for plugin in self.list(timeout))

    def is_listed(self, plugin_id):
        return plugin_id in self.ids()

    def wait_until_listed(self, *plugin_ids):
        """These and nobody else are listed."""
        wait_until(lambda: self.ids() == sorted(plugin_ids))

    def both_sides(self, lun=LUN):
        """A whole handshake, with the steps of the local caller and those of a host in turn."""
        announced = self.begin(init_snapshot(lun))
        wait_until(lambda: self.ask(start_mirror(lun)))
        assert announced.result().success
        for request in (mirror_done, is_mirror_done, depart_relation, wait_for_depart, depart_done):
            assert self.ask(request(lun)), request.__name__

    def go_to_split(self, lun=LUN):
        """With an agent: from the announcement until the host is at rest and waited for."""
        for request in (init_snapshot, mirror_done, wait_for_depart):
            assert self.ask(request(lun)), request.__name__

    def whole_handshake(self, lun=LUN):
        self.go_to_split(lun)
        assert self.ask(depart_done(lun))


class Host:
    """A host plugin's open Subscribe call.

    Wait until it is listed before you unsubscribe or replace it: an earlier wake-up is lost.
    """

    def __init__(self, plugin_id, kind=PluginClient.UNKNOWN, target=TCP):
        self._commands = queue.Queue()
        self._channel = channel_to(target)
        self._stream = PluginServiceStub(self._channel).Subscribe(
            PluginClient(plugin_id=plugin_id, type=kind), wait_for_ready=True)
        self._reader = threading.Thread(target=self._read_on, daemon=True)
        self._reader.start()

    def next_cmd(self, patience=PATIENCE):
        """The next command pushed, waiting for it."""
        return self._commands.get(timeout=patience)

    @property
    def waiting(self):
        """How many commands have come and were not asked for."""
        return self._commands.qsize()

    @property
    def ended(self):
        return not self._reader.is_alive()

    def end(self):
        """The status that the stream ends with, waiting for it."""
        wait_until(lambda: self.ended)
        return self._stream.code()

    def cancel(self):
        """As when the host is switched off."""
        self._stream.cancel()

    def close(self):
        self._channel.close()

    def _read_on(self):
        try:
            for command in self._stream:
                self._commands.put(command)
        except grpc.RpcError:
            pass
