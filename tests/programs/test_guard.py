# plugin_guard beside the real daemon, which does not notice hosts that vanish and hangs on them.

import concurrent.futures
import os
import pathlib
import random
import re
import resource
import signal
import socket
import time

import grpc
import pytest

from support.calls import LUN, TCP, Caller, Host, init_snapshot
from support.guard import STATUS_FILE, guard_status, reported
from support.network import connect, is_served
from support.program import PLUGIN_GUARD, run
from support.waiting import wait_until


def open_sockets(pid):
    fds = pathlib.Path(f"/proc/{pid}/fd")
    return sum(os.readlink(fds / fd).startswith("socket:") for fd in os.listdir(fds)
               if os.path.islink(fds / fd))


def test_sweeps_killed_hosts_before_the_next_broadcast(supervisor, start_guard, start_agent):
    guard = start_guard("--metrics", "/tmp/guard.prom")
    start_agent()
    ids = ["", 'a "b"', "h\u00f6st"]
    hosts = [start_agent("--plugin-id", plugin_id) for plugin_id in ids]
    most_sockets = []

    def four_hosts():
        most_sockets.append(open_sockets(guard.pid))
        return reported("hosts") == 4
    wait_until(four_hosts)
    for host in hosts:
        host.kill()
    for plugin_id in ids:
        guard.wait_for_err(f'swept "{plugin_id}"')
    late = start_agent("--plugin-id", "late")
    wait_until(lambda: reported("hosts") == 2)
    late.kill()
    guard.wait_for_err('swept "late"')
    assert guard.err.count('swept "') == 4, "each once"
    supervisor.call.whole_handshake()
    wait_until(lambda: [reported(key) for key in ("hosts", "sweeps", "restarts")] == [1, 4, 0])
    metrics = pathlib.Path("/tmp/guard.prom")
    wait_until(lambda: {"scsi_plugin_guard_hosts 1", "scsi_plugin_guard_sweeps_total 4",
                        'scsi_plugin_guard_state{state="ok"} 1',
                        'scsi_plugin_guard_state{state="down"} 0'} <= {*metrics.read_text().splitlines()})
    seconds = re.search(r'state_seconds_total{state="ok"} ([\d.]+)', metrics.read_text())[1]
    assert float(seconds) > 0
    assert max(most_sockets) <= 3, "two connections, and the system log"
    assert supervisor.restarts == 0


@pytest.mark.slow
def test_restarts_a_daemon_that_hangs_on_a_host_that_vanished_a_moment_ago(log, supervisor, start_guard,
                                                                          start_agent):
    guard = start_guard()
    start_agent()
    vanishes = start_agent("--plugin-id", "vanishes")
    wait_until(lambda: reported("hosts") == 2)
    hung, call = supervisor.pid, supervisor.call
    guard.signal(signal.SIGSTOP)  # so that it is the broadcast that comes first
    vanishes.kill()
    call.wait_until_listed("host")
    broadcast = time.monotonic()
    announced = call.begin(init_snapshot(LUN))
    log.wait_for("Init snapshots broadcast")
    guard.signal(signal.SIGCONT)
    assert announced.code() == grpc.StatusCode.UNAVAILABLE
    assert time.monotonic() - broadcast > 24
    assert reported("state") == "DOWN"
    guard.wait_for_err("the daemon serves again")
    wait_until(lambda: supervisor.pid != hung)
    supervisor.call.wait_until_listed("host")
    supervisor.call.whole_handshake()
    assert supervisor.restarts == 1
    failed_for = re.findall(rf"restarting the daemon, process {hung}: for ([0-9.]+) s", guard.err)
    assert [25 <= float(seconds) < 35 for seconds in failed_for] == [True], guard.err
    for part in (" threads, ", " of 1024 files open, ", "sent SIGABRT", "has ended; its supervisor",
                 f"serves again, process {supervisor.pid}"):
        assert part in guard.err
    wait_until(lambda: guard_status().status == 0)
    assert reported("restarts") == 1


@pytest.mark.slow
def test_a_host_that_comes_back_during_a_sweep_is_rarely_hit_and_never_for_good(supervisor, start_guard):
    """A host that subscribes again between the last look and the UnSubscribe is unsubscribed by mistake.
    Its stream ends, or, if the daemon did not wait on the stream yet, it is only missing in the list. An
    agent looks for both."""
    hosts, rounds = 4, 100
    start_guard("--interval", "0.02")  # so that most hosts come back during a sweep

    def come_and_go(plugin_id):
        call, delay, hits = Caller(), random.Random(plugin_id), 0

        def stays_listed():
            deadline = time.monotonic() + 1
            while not call.is_listed(plugin_id) and time.monotonic() < deadline:
                pass
            time.sleep(0.02)  # whatever was on its way to its previous connection comes meanwhile
            return call.is_listed(plugin_id)
        for _ in range(rounds):
            host = Host(plugin_id)
            while not stays_listed():
                hits += 1
                host = Host(plugin_id)
            host.close()  # as when the host vanishes
            time.sleep(delay.uniform(0, 0.06))
        return hits

    with concurrent.futures.ThreadPoolExecutor() as pool:
        hits = sum(pool.map(come_and_go, (f"host-{i}" for i in range(hosts))))
    # It would be a third if the last look were not immediately before the UnSubscribe.
    assert hits < hosts * rounds / 6
    assert supervisor.restarts == 0


def test_leaves_a_daemon_alone_that_has_run_out_of_files(supervisor, start_guard):
    """It serves again when connections have ended."""
    resource.setrlimit(resource.RLIMIT_NOFILE, 2 * (resource.getrlimit(resource.RLIMIT_NOFILE)[1],))
    guard = start_guard("--fail-after", "4", "--timeout", "1")
    crowd = []

    def one_more():  # when the one before has been served or turned away
        crowd.append(connect())
        is_served(crowd[-1])
    for _ in range(1100):
        one_more()

    def is_seen():
        one_more()  # into the place of a look of the guard's
        return "closes new connections at once" in guard.err
    wait_until(is_seen)
    wait_until(lambda: guard_status().status == 1)
    time.sleep(6)  # and would be ended, if it ever were
    for connection in crowd:
        connection.close()

    def has_room():
        try:
            return Caller(TCP).ids(timeout=1) == []
        except grpc.RpcError:
            return False
    wait_until(has_room)
    wait_until(lambda: guard_status().status == 0)
    assert supervisor.restarts == 0


@pytest.mark.slow
def test_a_stalled_host_leads_to_no_restart(supervisor, start_guard, start_agent):
    """A command larger than what may be under way to a host that takes nothing: its write blocks the
    daemon until the connection is given up."""
    guard = start_guard()
    stalled = start_agent()
    wait_until(lambda: reported("hosts") == 1)
    stalled.stop()
    announced = supervisor.call.begin(init_snapshot("x" * (3 << 20)))
    guard.wait_for_err("the daemon does not answer")
    assert not announced.done()
    guard.wait_for_err('swept "host"')
    assert supervisor.restarts == 0


def test_follows_a_daemon_that_comes_and_goes(supervise, start_guard):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as service_manager:
        service_manager.bind("/tmp/notify")
        guard = start_guard("--fail-after", "2", "--timeout", "0.5", serves=False,
                            environment={"NOTIFY_SOCKET": "/tmp/notify", "JOURNAL_STREAM": "1:1"})
        assert [service_manager.recv(99) for _ in range(3)] == [b"WATCHDOG=1", b"READY=1", b"WATCHDOG=1"]
    guard.wait_for_err("no daemon is running")
    assert guard_status().status == 3
    time.sleep(2)  # the absence, however long, is not held against the daemon that comes
    supervisor = supervise()
    guard.wait_for_err("the daemon serves on both endpoints")
    wait_until(lambda: guard_status().status == 0)
    assert supervisor.restarts == 0
    guard.signal(signal.SIGTERM)
    assert guard.wait() == 0
    assert f"no guard writes {STATUS_FILE}" in guard_status().err


def test_no_kill_only_reports(supervisor, start_guard):
    watcher = start_guard("--no-kill", "--fail-after", "2", "--timeout", "0.6")
    os.kill(supervisor.pid, signal.SIGSTOP)
    watcher.wait_for_err("would restart (--no-kill)")
    assert guard_status().status == 3
    assert supervisor.restarts == 0


def test_refuses_options_that_do_not_fit_together():
    for options, complaint in (("--fail-after 5 --timeout 5", "--timeout is not shorter"),
                               ("--interval 0", "--interval"),
                               ("-o json", "--output is for --status only"),
                               ("--status --metrics x", "--metrics is for the guard itself"),
                               ("--status --no-kill", "--no-kill is for the guard itself")):
        ended = run(PLUGIN_GUARD, *options.split())
        assert (options, ended.status) == (options, 2)
        assert complaint in ended.err
    assert run(PLUGIN_GUARD, "--check", "--no-kill").status == 3  # for a monitor, 2 is critical


@pytest.mark.parametrize("text, age, status, err, checked", [
    ('{"state":"OK","sweeps":3}', 0, 0, "", 0),
    ('{"state":"DEGRADED","error":"127.0.0.1:3265 is full"}', 0, 1, "is full", 1),
    ('{"state":"DOWN","error":"no daemon"}', 0, 3, "no daemon", 2),
    ('{"state":"OK","of_a_later_version":1}', 0, 0, "", 0),
    ('{"state":"OK"}', 60, 3, "has written nothing since", 3),
    ('{"state":"OK"}', -60, 3, "has written nothing since", 3),
    ('{"state":"O', 0, 3, "is no guard's status", 3),
    (None, 0, 3, "Is a directory", 3),
])
def test_nothing_is_known_unless_a_living_guard_says_it(text, age, status, err, checked):
    if text is None:
        pathlib.Path(STATUS_FILE).mkdir()
    else:
        pathlib.Path(STATUS_FILE).write_text(text)
    os.utime(STATUS_FILE, 2 * (time.time() - age,))
    ended = run(PLUGIN_GUARD, "--status", "--status-file", STATUS_FILE)
    assert ended.status == status
    assert err in ended.err and ("UNKNOWN" in ended.out) == (checked == 3)
    ended = run(PLUGIN_GUARD, "--check", "--status-file", STATUS_FILE)
    word = ("OK", "WARNING", "CRITICAL", "UNKNOWN")[checked]
    assert (ended.status, ended.out.count("\n")) == (checked, 1)
    assert ended.out.startswith(f"SCSI_PLUGIN {word}: ") and err in ended.out
    assert (" | hosts=0;" in ended.out) == (checked != 3)
