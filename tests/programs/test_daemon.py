# The real daemon, seen from outside.

import pathlib
import resource
import signal
import socket

import grpc
import pytest
from google.protobuf.descriptor_pb2 import FileDescriptorSet
from google.protobuf.empty_pb2 import Empty

from plugin_cmd_pb2 import PluginClient
from support.calls import (LUN, REPLICA_LUN, TCP, UNIX, UNSUPPORTED_LUN, Caller, Host, channel_to,
                           depart_done, depart_relation, init_snapshot, is_lun_support,
                           is_mirror_done, mirror_done, start_mirror, wait_for_depart)
from support.log import Line
from support.network import connect, is_served
from support.waiting import PATIENCE, wait_until

LISTENING = [
    Line(6, "scsi_plugin:scsi_plugin_server:30:run_grpc_server Server listening on 0.0.0.0:3265"),
    Line(6, "scsi_plugin:scsi_plugin_server:31:run_grpc_server Server listening on "
            "unix:///tmp/iscsi/plugin_server.sock"),
]


@pytest.mark.parametrize("inherited", ["4096:8192", "512:4096"])
def test_serves_both_endpoints_with_1024_files(log, start_daemon, inherited):
    daemon = start_daemon(limits={"nofile": inherited})
    assert log.lines() == LISTENING
    assert resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE) == (1024, 1024)
    daemon.subscribe("esx")
    log.wait_for("Connected: Plugin ID=esx IP=127.0.0.1")
    for target in (TCP, UNIX):
        local = Caller(target)
        assert local.ids() == ["esx"]
        assert local.ask(is_lun_support(LUN))
        assert not local.ask(is_lun_support(UNSUPPORTED_LUN))


@pytest.mark.parametrize("files", [16, 512])  # at rest it has 11 open
def test_goes_on_under_a_limit_that_it_may_not_raise(log, start_daemon, files):
    daemon = start_daemon(limits={"nofile": f"{files}:{files}"}, may_raise_limits=False)
    assert log.lines()[0] == Line(3, "scsi_plugin:scsi_plugin_server:46:main Failed to set RLIMIT_NOFILE")
    assert log.count("RLIMIT_NOFILE") == 1
    assert daemon.call.ids() == []


@pytest.mark.parametrize("request_to_end", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP])
def test_no_signal_is_handled(log, daemon, request_to_end):
    daemon.may_end = True
    daemon.signal(request_to_end)
    assert daemon.wait() == -request_to_end
    assert log.lines() == LISTENING


@pytest.mark.parametrize("missing", ["the port", "the directory of the socket"])
def test_a_start_without_an_endpoint_ends_abnormally(log, start_daemon, missing):
    with socket.socket() as taken:
        if missing == "the port":
            taken.bind(("0.0.0.0", 3265))
            taken.listen()
        daemon = start_daemon(directory=missing == "the port", serves=False)
        assert daemon.wait() < 0
    assert log.lines() == LISTENING


def test_replaces_a_stale_socket_file(start_daemon):
    start_daemon().kill()
    assert start_daemon(directory=None).call.ids() == []


def test_only_what_is_handled_and_can_be_read_is_carried_out(log, daemon):
    """Requests byte by byte, as another program may send them."""
    ok, cancelled, internal = (grpc.StatusCode[name] for name in ("OK", "CANCELLED", "INTERNAL"))
    empty_bodies = [(method, bytes([number << 3 | 2, 0]), ok if number in handled else cancelled, None)
                    for method, handled in (("LunOp", (4, 5, 6, 10)), ("Publish", (4, 5, 6, 7)))
                    for number in range(3, 13)]
    channel = channel_to(TCP)
    for method, request, status, logged in [
            *empty_bodies,
            ("LunOp", b"", cancelled, []),
            ("Publish", b"\x08\xff\xff\xff\xff\x0f\x1a\x01x", cancelled, []),
            # The last of two bodies counts. Unknown fields are skipped; so is an unknown LunType.
            ("LunOp", b"\x52\x03\x1a\x01K2\x03\x1a\x01K", ok, [182, 185]),
            ("Publish", b"\x1a\x01K*\x00\x98\x06\x01\xa2\x06\x02hi", ok, [234, 237]),
            ("LunOp", b"\"\x05\x08\x63\x12\x01K", ok, [104, 111]),
            ("LunOp", b"\x52\x04\x1a\x02\xc3\x28", internal, []),  # no UTF-8
            ("Publish", b"\x1a\x01\xff\x2a", internal, []),
            ("UnSubscribe", b"\x0a\x7f", internal, []),  # cut short
            ("Unsubscribe", b"", grpc.StatusCode.UNIMPLEMENTED, []),
            ("PluginConnList", b"\x0a\x01x", ok, [])]:
        log.clear()
        call = channel.unary_unary(f"/vexo.scsiplugin.PluginService/{method}").future(
            request, timeout=PATIENCE, wait_for_ready=True)
        assert call.code() == status, (method, request)
        assert status != cancelled or call.details() == ""
        lines = [int(line.text.split(":")[2]) for line in log.lines()]
        assert lines == logged or logged is None, (method, request)
        assert method != "PluginConnList" or call.result() == b""


@pytest.mark.parametrize("target", [UNIX, "[::1]:3265"])
def test_pushes_to_ipv4_peers_only(log, daemon, target):
    if target != UNIX and not pathlib.Path("/proc/net/if_inet6").exists():
        pytest.skip("no IPv6 here")
    log.clear()
    host = Host("h", target=target)
    wait_until(lambda: [entry.ip for entry in daemon.call.list()] == ["Unknown"])
    daemon.call.both_sides()
    daemon.call.unsubscribe("h")
    assert host.end() == grpc.StatusCode.OK
    assert host.waiting == 0
    assert [line for line in log.lines() if "plugin_server_ctrl" not in line.text] == [
        Line(6, "scsi_plugin:plugin_service_impl:32:Subscribe Connected: Plugin ID=h IP=Unknown"),
        Line(6, "scsi_plugin:plugin_client:31:push_cmd Unknown ip address, plugin_id=h"),
        Line(6, "scsi_plugin:plugin_service_impl:37:Subscribe Disconnect: Plugin ID=h IP=Unknown")]


def test_reflects_its_service_and_schema(daemon):
    """Generic tools ask the server for its schema and get all that they need to call it."""
    symbol = b"vexo.scsiplugin.PluginService"
    request = b"\x22" + bytes([len(symbol)]) + symbol  # file_containing_symbol
    ask = channel_to(TCP).stream_stream("/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo")
    answer = Empty.FromString(next(ask(iter([request]), timeout=PATIENCE, wait_for_ready=True)))
    files = [file for field in answer.UnknownFields() if field.field_number == 4
             for file in FileDescriptorSet.FromString(field.data).file]
    assert {file.name for file in files} == {
        "error.proto", "google/protobuf/empty.proto", "lun_cmd.proto", "plugin_cmd.proto",
        "plugin_service.proto"}
    assert sum(len(service.method) for file in files for service in file.service) == 5


@pytest.mark.parametrize("lun", [LUN, REPLICA_LUN])
def test_a_whole_handshake_with_hosts(log, daemon, lun):
    owner = daemon.subscribe("owner", PluginClient.VMWARE)
    bystander = daemon.subscribe("bystander", PluginClient.WINDOWS)
    unnamed = daemon.subscribe("")
    local, host = daemon.call, Caller(TCP)

    announced = local.begin(init_snapshot(lun))
    assert owner.next_cmd().task_id == lun
    assert not local.ask(init_snapshot(lun))
    assert not announced.done()
    assert host.ask(start_mirror(lun))
    assert announced.result().success

    needs_a_mirror = lun == LUN
    assert not needs_a_mirror or not host.ask(is_mirror_done(lun))
    assert local.ask(mirror_done(lun))
    assert host.ask(is_mirror_done(lun))

    departing = local.begin(wait_for_depart(lun))
    log.wait_for(f"Wait for depart relation [{lun}")
    assert not departing.done()
    assert host.ask(depart_relation(lun))
    assert departing.result().success

    assert local.ask(depart_done(lun))
    assert not local.ask(mirror_done(lun))
    assert [unnamed.next_cmd().WhichOneof("cmd_body") for _ in range(2)] == [
        "init_snapshot_req", "depart_done_req"]
    assert bystander.next_cmd().HasField("init_snapshot_req")
    assert owner.waiting == bystander.waiting == 0


def test_fifty_handshakes_at_once(log, start_daemon):
    luns = [f"lun-{i}" for i in range(50)]
    daemon = start_daemon(luns=luns)
    host = daemon.subscribe("host")
    call = daemon.call

    def all_answer_yes(request):
        calls = [call.begin(request(lun)) for lun in luns]
        return all(each.result().success for each in calls)

    announced = [call.begin(init_snapshot(lun)) for lun in luns]
    assert {host.next_cmd().task_id for _ in luns} == set(luns)
    assert all_answer_yes(start_mirror)
    assert all(each.result().success for each in announced)
    assert all_answer_yes(mirror_done)
    assert all_answer_yes(is_mirror_done)
    departing = [call.begin(wait_for_depart(lun)) for lun in luns]
    wait_until(lambda: log.count("Wait for depart relation [") == len(luns))
    assert all_answer_yes(depart_relation)
    assert all(each.result().success for each in departing)
    assert all_answer_yes(depart_done)
    assert host.waiting == 0


def test_a_broadcast_that_meets_a_vanished_host_never_returns(log, daemon):
    """The process lives, and all calls that need no registry are still served."""
    daemon.subscribe("vanished").cancel()
    daemon.call.wait_until_listed()
    hung = daemon.call.begin(init_snapshot(LUN))
    # The broadcast wakes the handler, which logs. Its call and its record stay: they are still used.
    log.wait_for("Disconnect: Plugin ID=vanished")
    with pytest.raises(grpc.RpcError) as unanswered:
        daemon.call.list(timeout=0.3)
    assert unanswered.value.code() == grpc.StatusCode.DEADLINE_EXCEEDED
    assert daemon.call.ask(start_mirror(LUN))
    assert not daemon.call.ask(is_mirror_done(LUN))
    for request in (mirror_done, is_mirror_done, depart_relation, wait_for_depart, depart_done):
        assert daemon.call.ask(request(LUN)), request.__name__
    assert not hung.done() and daemon.alive
    daemon.kill()
    assert hung.code() == grpc.StatusCode.UNAVAILABLE


def test_more_hosts_than_files_are_turned_away_until_others_leave(log, start_daemon):
    daemon = start_daemon(limits={"nofile": "64:64"}, may_raise_limits=False)
    host = daemon.subscribe("host")
    for lun in ("lun-1", "lun-2"):
        others = []
        while not others or is_served(others[-1]):
            others.append(connect())
            assert len(others) <= 64
        assert len(others) > 32
        for family in 10 * (socket.AF_INET, socket.AF_UNIX):
            assert not is_served(connect(family))

        # Hosts that were connected before notice nothing.
        assert daemon.call.is_listed("host")
        assert daemon.call.ask(is_lun_support(LUN))
        announced = daemon.call.begin(init_snapshot(lun))
        assert host.next_cmd().task_id == lun
        assert daemon.call.ask(start_mirror(lun))
        assert announced.result().success

        for other in others:
            other.close()
        for family in (socket.AF_INET, socket.AF_UNIX):
            again = []
            while len(again) < 10:  # the daemon takes a moment to see that they left
                assert daemon.alive
                again.append(connect(family))
                if not is_served(again[-1]):
                    again.pop()
        for target in (TCP, UNIX):
            assert Caller(target).is_listed("host")
    assert log.count("Disconnect") == 0
