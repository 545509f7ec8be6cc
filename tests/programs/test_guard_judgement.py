# Which failures make the guard end a daemon, and which are not the daemon's fault.

import os
import pathlib
import signal
import time

import pytest

from plugin_cmd_pb2 import PluginClient
from plugin_service_pb2_grpc import PluginServiceStub
from support.calls import TCP, channel_to
from support.guard import guard_status, reported
from support.program import PLUGIN_GUARD, SANITIZED, SCSI_PLUGIN_SERVER, Program, run
from support.waiting import wait_until

FAIL_AFTER = 3 if SANITIZED else 1.5
QUICK = ("--fail-after", FAIL_AFTER, "--timeout", FAIL_AFTER / 3.75)
SOCKET = pathlib.Path("/tmp/iscsi/plugin_server.sock")


def firewall(verdict):
    for command in ("add table inet fence",
                    "add chain inet fence input { type filter hook input priority 0 ; }",
                    f"add rule inet fence input iif lo tcp dport 3265 {verdict}"):
        assert run("nft", *command.split()).status == 0


def outlives_the_guard(daemon):
    """Had the guard wanted to end it, it would have."""
    time.sleep(4 * FAIL_AFTER)
    return daemon.alive


@pytest.mark.parametrize("fault, told", [
    (lambda: firewall("drop"), "127.0.0.1:3265 accepts no new connection (not restarted"),
    (lambda: firewall("reject with tcp reset"), "127.0.0.1:3265 is gone: Connection refused (not"),
])
def test_a_firewall_is_not_the_daemons_doing(daemon, start_guard, fault, told):
    guard = start_guard(*QUICK)
    fault()
    guard.wait_for_err(told)
    assert outlives_the_guard(daemon), guard.err
    assert guard_status().status == 1


def test_another_network_is_not_the_daemons_doing(daemon):
    guard = Program("unshare", "--net", "sh", "-c", "ip link set lo up; exec \"$@\"", "sh",
                    PLUGIN_GUARD, *QUICK)
    guard.wait_for_err("127.0.0.1:3265 cannot be looked at: the daemon is in another network")
    assert outlives_the_guard(daemon), guard.err


def test_ends_the_daemon_at_the_socket_and_not_the_one_before_it(daemon, start_daemon, start_guard):
    """Both listen on the TCP port. At first the guard is connected to the older one."""
    older, guard = daemon, start_guard(*QUICK)
    newer = start_daemon(directory=None)
    wait_until(lambda: reported("daemon_pid") == newer.pid)
    older.stop()
    assert outlives_the_guard(newer), guard.err
    newer.may_end = True
    newer.stop()
    assert newer.wait() == -signal.SIGKILL
    assert older.alive
    assert f"restarting the daemon, process {newer.pid}" in guard.err
    assert "sent SIGABRT" in guard.err  # to which a stopped process does not react


def test_a_last_look_that_is_answered_spares_the_daemon(daemon, start_guard):
    # The last look begins after half the time, with the first complaint, and is open for the rest.
    guard = start_guard("--fail-after", 8, "--timeout", 4)
    daemon.stop()
    wait_until(lambda: guard_status().status)
    daemon.signal(signal.SIGCONT)
    guard.wait_for_err("not restarting the daemon")
    wait_until(lambda: guard_status().status == 0)


def test_a_lost_tcp_port_is_cured(supervisor, start_guard):
    guard = start_guard(*QUICK)
    lost = supervisor.pid
    run("ss", "--kill", "--tcp", "state", "listening", "sport", "=", ":3265")
    guard.wait_for_err(f"restarting the daemon, process {lost}")
    guard.wait_for_err("the daemon serves again")
    assert "127.0.0.1:3265 is gone: Connection refused\n" in guard.err
    assert supervisor.pid != lost


def test_threads_that_hosts_have_left_behind_are_cured(log, start_guard):
    """They wait for an UnSubscribe, for which there is no thread left."""
    user = ("setpriv", "--reuid=61234", "--regid=61234", "--clear-groups")
    if run(*user, "true").status != 0:
        pytest.skip("takes a second user")
    SOCKET.parent.mkdir()
    SOCKET.parent.chmod(0o777)
    daemon = Program("prlimit", "--nproc=60", *user, SCSI_PLUGIN_SERVER)
    log.wait_for("listening on unix:")
    guard = start_guard(*QUICK)
    stub = PluginServiceStub(channel_to(TCP))
    streams = [stub.Subscribe(PluginClient(plugin_id=str(number))) for number in range(100)]
    guard.wait_for_err("the daemon turns every call away")
    for stream in streams:
        stream.cancel()
    assert daemon.wait() == -signal.SIGABRT


def test_pauses_before_a_third_restart(supervisor, start_guard):
    guard = start_guard(*QUICK)
    for restarts in (1, 2):
        SOCKET.unlink()
        wait_until(lambda: reported("restarts") == restarts and guard_status().status == 0)
    SOCKET.unlink()
    guard.wait_for_err("not restarting the daemon yet: restarted 2 times in a row, waiting")
    assert supervisor.restarts == 2


def test_goes_on_without_a_status_file(supervisor):
    full = pathlib.Path("/run/full")
    full.mkdir()
    assert run("mount", "-t", "tmpfs", "-o", "size=4k", "tmpfs", full).status == 0
    (full / "filled").write_bytes(bytes(os.statvfs(full).f_bavail * os.statvfs(full).f_frsize))
    guard = Program(PLUGIN_GUARD, *QUICK, "--status-file", full / "status.json")
    guard.wait_for_err("going on without the status file, which cannot be written")
    guard.wait_for_err("No space left on device")
    guard.wait_for_err("the daemon serves on both endpoints")
    (full / "filled").unlink()
    wait_until((full / "status.json").exists)
