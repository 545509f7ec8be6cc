# What the daemon does when hosts, network or log fail, and under load. Each row of the table that
# `scripts/test --faults` prints is one of these tests: its docstring says what is done and, after "Must
# hold:", what follows.

import concurrent.futures
import itertools
import os
import random
import signal
import socket
import statistics
import struct
import time

import grpc
import pytest

from plugin_cmd_pb2 import PluginClient, PluginCmd
from support.calls import (LUN, TCP, UNIX, Caller, depart_done, depart_relation, init_snapshot,
                           is_lun_support, mirror_done, start_mirror, wait_for_depart)
from support.network import ENDPOINTS, connect, shut_towards_server
from support.program import PLUGIN_CTL, SANITIZED, Program
from support.waiting import wait_until


class HostProcess(Program):
    """A host plugin that can be stopped."""

    def __init__(self, target="127.0.0.1", before=()):
        super().__init__(*before, PLUGIN_CTL, "--target", target, "--timeout", "20", "-o", "json",
                         "subscribe", "esx")
        self.wait_for_err("subscribed to ")

    @property
    def received(self):
        return self.out.count("\n")


def threads_of(daemon):
    return len(os.listdir(f"/proc/{daemon.pid}/task"))


def files_of(daemon):
    return len(os.listdir(f"/proc/{daemon.pid}/fd"))


def resident_mib(daemon):
    with open(f"/proc/{daemon.pid}/statm") as file:
        return int(file.read().split()[1]) * os.sysconf("SC_PAGESIZE") / (1 << 20)


@pytest.mark.fault
def test_host_stopped(daemon):
    """host stopped (SIGSTOP) for two handshakes, then continued

    Must hold: stays listed and delays nobody; receives both announcements when it goes on, each once
    """
    host, other = HostProcess(), daemon.subscribe("other")
    host.stop()
    for _ in range(2):
        daemon.call.both_sides()
        other.next_cmd()
    assert daemon.call.is_listed("esx")
    assert host.received == 0
    host.signal(signal.SIGCONT)
    wait_until(lambda: host.received == 2)
    daemon.call.both_sides()
    wait_until(lambda: host.received == 3)


@pytest.mark.fault
def test_host_half_closed(log, daemon):
    """host closes its half of the connection and goes on reading (FIN without RST)

    Must hold: counts as gone at once: listed no longer, its stream ends; still registered until
    UnSubscribe, or until it subscribes again
    """
    host = daemon.subscribe("esx")
    shut_towards_server()
    daemon.call.wait_until_listed()
    assert host.end() == grpc.StatusCode.UNAVAILABLE
    assert log.count("Disconnect: Plugin ID=esx") == 0
    back = daemon.subscribe("esx")
    log.wait_for("Disconnect: Plugin ID=esx")
    daemon.call.both_sides()
    assert back.next_cmd()


@pytest.mark.fault
@pytest.mark.slow
def test_packets_dropped_for_good(daemon, network):
    """router drops all packets to and from a host for good

    Must hold: without traffic nothing is noticed; an announcement does not wait for the host, and within
    about 20 s after it the host is listed no longer; unsubscribed by then, it harms nobody
    """
    HostProcess(network.APPLIANCE, network.ON_HOST)
    time.sleep(2)  # until all that was sent is acknowledged
    network.forward(False)
    time.sleep(30)  # silence, longer than the transport's own limit
    assert daemon.call.ids() == ["esx"]
    announced = time.monotonic()
    daemon.call.both_sides()
    assert time.monotonic() - announced < 5
    daemon.call.wait_until_listed()
    assert time.monotonic() - announced < 30
    daemon.call.unsubscribe("esx")
    daemon.subscribe("other")
    daemon.call.both_sides()


@pytest.mark.fault
@pytest.mark.slow
def test_host_stopped_with_a_full_window(log, daemon):
    """host stopped (SIGSTOP) while announcements of 16 KiB go on, until no more fits into the connection

    Must hold: the announcement that no longer fits waits, and so does each call that needs the registry,
    until the transport gives the connection up, about 20 s after the host last took data; LunOp goes on
    meanwhile; then the announcement goes to the other hosts and succeeds, and the host counts as gone
    """
    host, other = HostProcess(), daemon.subscribe("other")
    host.stop()
    announcement = PluginCmd(qel_sn="x" * (16 << 10), init_snapshot_req={"src_lun_p80": LUN})

    for taken in itertools.count():
        assert taken < 1000
        announced = daemon.call.begin(announcement)
        wait_until(lambda: daemon.call.ask(start_mirror(LUN)))
        began = time.monotonic()
        try:
            assert announced.result(timeout=2).success
            assert daemon.call.ask(depart_done(LUN))
        except grpc.FutureTimeoutError:
            break
    with pytest.raises(grpc.RpcError):
        daemon.call.list(timeout=1)  # which needs the registry
    assert daemon.call.ask(is_lun_support(LUN))
    assert announced.result().success
    assert 10 < time.monotonic() - began < 30
    for _ in range(taken + 1):
        other.next_cmd()
    daemon.call.wait_until_listed("other")
    daemon.call.unsubscribe("esx")
    assert daemon.call.ask(depart_done(LUN))
    host.signal(signal.SIGCONT)
    host.wait_for_err("Subscribe at")
    assert host.received < taken
    daemon.subscribe("esx")
    daemon.call.both_sides()


@pytest.mark.fault
def test_long_identifiers(log, daemon):
    """plugin id and LUN identifier of 64 KiB each, then a request of 5 MiB

    Must hold: the same as with short ones, log lines included; a request above the library's 4 MiB is
    refused before any handler
    """
    key, plugin_id = "k" * (64 << 10), "p" * (64 << 10)
    host = daemon.subscribe(plugin_id)
    assert not daemon.call.ask(is_lun_support(key))
    announced = daemon.call.begin(init_snapshot(key))
    assert host.next_cmd().task_id == key
    assert daemon.call.ask(start_mirror(key))
    assert announced.result().success
    for request in (mirror_done, depart_relation, wait_for_depart, depart_done):
        assert daemon.call.ask(request(key)), request.__name__
    daemon.call.unsubscribe(plugin_id)
    log.wait_for(f"Disconnect: Plugin ID={plugin_id} IP=127.0.0.1")
    log.wait_for(f"Depart relation done [{key}]")
    refused = daemon.call.begin(is_lun_support("x" * (5 << 20)))
    assert refused.code() == grpc.StatusCode.RESOURCE_EXHAUSTED
    assert log.count("Check lun support [") == 1


NOISE = random.Random(1).randbytes(100_000)
PREFACE = b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"
SETTINGS = b"\0\0\0\4\0\0\0\0\0"
GARBAGE = [  # what a port meets that is open to a network
    b"",
    NOISE,
    b"GET / HTTP/1.1\r\nHost: appliance\r\n\r\n",
    b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + NOISE[:505],  # TLS
    PREFACE[:10],
    PREFACE + NOISE,
    PREFACE + SETTINGS + NOISE,
    PREFACE + SETTINGS + b"\xff\xff\xff\0\0\0\0\0\1" + NOISE,  # DATA of 16 MiB, no stream
    PREFACE + SETTINGS + b"\0\0\5\1\5\0\0\0\1\xff\xff\xff\xff\xff",  # HEADERS, bad compression
    PREFACE + SETTINGS + b"\0\0\4\3\0\0\0\0\1\0\0\0\1",  # RST_STREAM, no stream
    PREFACE + SETTINGS + b"\0\0\4\10\0\0\0\0\0\0\0\0\0",  # WINDOW_UPDATE by nothing
]


@pytest.mark.fault
def test_garbage(log, daemon):
    """garbage on both endpoints: silence, noise, HTTP/1.1, TLS, broken HTTP/2; 880 connections, half of
    them cut off, with handshakes meanwhile

    Must hold: no handler is reached, nothing is logged, handshakes go on; files are as before when it
    is over
    """
    host = daemon.subscribe("esx")
    daemon.call.both_sides()
    files = files_of(daemon)
    for round_number in range(40):
        connections = []
        for what in GARBAGE:
            for family in ENDPOINTS:
                connections.append(connect(family))
                if round_number % 2:
                    connections[-1].setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                               struct.pack("ii", 1, 0))
                try:
                    connections[-1].send(what, socket.MSG_DONTWAIT)
                except OSError:
                    pass  # the daemon need not take it
        daemon.call.both_sides()
        for connection in connections:
            connection.close()
    wait_until(lambda: files_of(daemon) <= files)
    for _ in range(41):
        host.next_cmd()
    assert log.count("Connected: ") == 1
    assert log.count("Disconnect: ") == 0


@pytest.mark.fault
def test_log_service_full(log, daemon):
    """log service hangs: /dev/log takes no more

    Must hold: each call that logs waits, and keeps its locks; a call that logs nothing goes on until it
    needs one of them; when the service reads again, all calls go on, and no line is lost
    """
    daemon.subscribe("esx")
    prober, other = Caller(), Caller()
    with log.hold():
        for asked in range(1, 5000):
            probe = prober.begin(is_lun_support(LUN), timeout=2)
            if probe.code() != grpc.StatusCode.OK:
                break
        assert probe.code() == grpc.StatusCode.DEADLINE_EXCEEDED
        daemon.call.list(timeout=1)
        announced = daemon.call.begin(init_snapshot(LUN))
        late = other.begin(mirror_done("other LUN"), timeout=1)
        assert late.code() == grpc.StatusCode.DEADLINE_EXCEEDED
        assert not announced.done()
        daemon.call.list(timeout=1)
    wait_until(lambda: other.ask(start_mirror(LUN)))
    assert announced.result().success
    assert daemon.call.ask(depart_done(LUN))
    daemon.call.both_sides()
    wait_until(lambda: log.count("Check lun support [") == log.count("Check lun support pass") == asked)
    assert log.count("Mirror done [other LUN]") == 1


@pytest.mark.fault
@pytest.mark.slow
def test_five_thousand_streams(daemon):
    """5,000 subscriptions over 8 connections, then all of them gone

    Must hold: each is registered, and receives the announcement once; each holds a thread until it is
    unsubscribed; then threads and files are as before
    """
    streams = 5000
    daemon.call.list()  # this connection stays
    files, threads = files_of(daemon), threads_of(daemon)
    connections = [Caller(TCP) for _ in range(8)]
    hosts = [connections[i % 8].stub.Subscribe(PluginClient(plugin_id=f"host-{i}"), wait_for_ready=True)
             for i in range(streams)]
    wait_until(lambda: len(daemon.call.list()) == streams, patience=120)
    assert threads_of(daemon) >= streams
    daemon.call.both_sides()
    assert all(next(host).task_id == LUN for host in hosts)
    for host in hosts:
        host.cancel()
    daemon.call.wait_until_listed()
    for i in range(streams):
        daemon.call.unsubscribe(f"host-{i}")
    wait_until(lambda: threads_of(daemon) < threads + 50)
    for connection in connections:
        connection.close()
    wait_until(lambda: files_of(daemon) <= files)
    back = daemon.subscribe("esx")
    daemon.call.both_sides()
    assert back.next_cmd().task_id == LUN


@pytest.mark.fault
@pytest.mark.slow
def test_a_day(start_daemon):
    """a day's traffic within minutes: 1,440 handshakes with 16 hosts, 172,800 lists, 9,600 questions,
    64 hosts that come anew, half of them after vanishing

    Must hold: nothing is left behind: over the day resident memory grows by less than 0.18 MiB, threads
    and files at rest by none
    """
    hours, handshakes, lists, questions = 24, 60, 7200, 400
    luns = [f"lun-{letter}" for letter in "abcdefgh"]
    daemon = start_daemon(luns=luns)
    hosts = [daemon.subscribe(f"host-{i}") for i in range(16)]
    guard, host = Caller(UNIX), Caller(TCP)

    def live_through(hour, lists):
        with concurrent.futures.ThreadPoolExecutor() as meanwhile:
            asked = [meanwhile.submit(lambda: [guard.list() for _ in range(lists)]),
                     meanwhile.submit(lambda: [host.ask(is_lun_support("lun-a")) for _ in range(questions)])]
            for i in range(handshakes):
                daemon.call.both_sides(luns[i % len(luns)])
            for each in asked:
                each.result()
        for i, each in enumerate(hosts):
            for _ in range(handshakes):
                each.next_cmd()
            if i % 6 == hour % 6:  # it comes anew
                if i % 2 == 0:
                    each.cancel()
                    wait_until(lambda: not daemon.call.is_listed(f"host-{i}"))
                daemon.call.unsubscribe(f"host-{i}")
                each.close()
                hosts[i] = daemon.subscribe(f"host-{i}")

    def is_at_rest():
        before = threads_of(daemon), files_of(daemon)
        time.sleep(0.3)  # nothing changes from one look to the next
        return before == (threads_of(daemon), files_of(daemon))

    # Two days with fewer lists. Until then the heap, and the stacks of threads that come and go, are
    # still finding their size.
    for hour in range(2 * hours):
        live_through(hour, lists // 20)
    measured = []
    for hour in range(hours):
        live_through(hour, lists)
        wait_until(is_at_rest)
        measured.append((resident_mib(daemon), threads_of(daemon), files_of(daemon)))
    # Half of what a leak would leave: each handshake a task with its key and table node, 256 bytes or
    # more; each of 64 subscriptions a thread or a file.
    may_grow = (0.5 * 256 * hours * handshakes / (1 << 20), 1, 1)
    for values, limit, what in zip(zip(*measured), may_grow, ("MiB resident", "threads", "files")):
        growth = statistics.linear_regression(range(hours), values).slope * (hours - 1)
        print(f"{values[0]:.1f} {what}, {growth:.3f} more a day")
        if what != "MiB resident" or not SANITIZED:  # which keep books of their own there
            assert growth < limit, what
