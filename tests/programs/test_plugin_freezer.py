# What plugin_freezer promises. The tests speak to it over its socket instead of an agent, or through an
# agent.

import os
import pathlib
import signal
import socket
import subprocess
import sys
import time

import pytest

from support.calls import LUN, depart_done, init_snapshot, mirror_done, wait_for_depart
from support.program import BUILD, PLUGIN_AGENT, PLUGIN_FREEZER, SLACK, SOURCE, Program, run
from support.volume import mount_image
from support.waiting import wait_until

pytestmark = pytest.mark.not_under("tsan")  # a freezer has no threads

RECORD = pathlib.Path("/run/plugin_agent/frozen")


class Freezer(Program):
    """One that brings `mount_points` to rest for the member "a", whose command may be given."""

    def __init__(self, *mount_points, hooks=(), command=(), max_freeze=2000, hook_timeout=5000, waits=True,
                 run_dir="/run/plugin_agent", environment=None):
        self._socket, its_end = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.reports = []
        super().__init__(PLUGIN_FREEZER, stdin=its_end, environment=environment)
        its_end.close()
        plan = {"run_dir": os.fsencode(run_dir), "mount_points": [os.fsencode(each) for each in mount_points],
                "max_freeze_ms": max_freeze, "hook_timeout_ms": hook_timeout,
                "hooks": [{"name": os.fsencode(each.name), "path": os.fsencode(each)} for each in hooks],
                "member": {"name": b"a", "command": [os.fsencode(word) for word in command]}}
        self.ask(begin=plan)
        if waits:
            self.report("frozen")

    def ask(self, **request):
        self._socket.send(messages().FreezerRequest(**request).SerializeToString())

    def report(self, kind):
        """The next report of a kind, waiting for it."""
        while True:
            text = self._socket.recv(1 << 20)
            assert text, f"ended without {kind}"
            self.reports.append(messages().FreezerReport.FromString(text))
            if self.reports[-1].WhichOneof("kind") == kind:
                return getattr(self.reports[-1], kind)

    def leave(self):
        """As an agent that has died."""
        self._socket.close()


def messages():
    """The freezer's messages."""
    folder = pathlib.Path("/tmp/messages")
    if not folder.exists():
        folder.mkdir()
        subprocess.run(["protoc", f"--proto_path={SOURCE}/tools/plugin_freezer", f"--python_out={folder}",
                        "freezer.proto"], check=True)
        sys.path.insert(0, str(folder))
    import freezer_pb2  # pylint: disable=import-outside-toplevel
    return freezer_pb2


def make_hook(name, text):
    path = pathlib.Path("/tmp/hooks_of_freezer")
    path.mkdir(exist_ok=True)
    (path / name).write_text("#!/bin/sh\n" + text)
    (path / name).chmod(0o755)
    return path / name


# --- members, and the command before a thaw that nobody has asked for ------------------------------

def test_the_last_member_to_leave_ends_the_rest(volume):
    freezer = Freezer(volume.path, command=["/usr/bin/touch", "/tmp/commanded"])
    freezer.ask(join={"name": b"b"})
    assert freezer.report("joined") == b"b"
    freezer.ask(leave=b"a")
    volume.wait_until_frozen()
    freezer.stop()  # so that it finds both requests
    freezer.ask(leave=b"b")
    freezer.ask(join={"name": b"c"})
    freezer.signal(signal.SIGCONT)
    assert freezer.report("refused").name == b"c"
    thawed = freezer.report("thawed")
    assert (thawed.reason, thawed.certain) == (b"", True)
    volume.wait_until_thawed()
    assert freezer.wait() == 0 and not RECORD.exists()
    assert not pathlib.Path("/tmp/commanded").exists(), "the member itself has asked for this thaw"


@pytest.mark.parametrize("cause, reason", [
    ("deadline", b"the host was thawed at the limit of 4 s"), ("agent gone", None), ("signal", b"by a signal"),
    ("killed", None)])
def test_commands_run_before_a_thaw_that_nobody_has_asked_for(volume, cause, reason):
    """While the host is still at rest; one that hangs holds up the thaw for a second, and never past the
    deadline."""
    def command(name):
        write = f"dd of={volume.path}/{name} oflag=sync count=1 </dev/zero; touch /tmp/written_{name}"
        return ["/bin/sh", "-c", f"({write}) & sleep 0.1; [ -e /tmp/written_{name} ] || touch /tmp/{name}; wait"]
    freezer = Freezer(volume.path, command=command("a"), max_freeze=4000)
    for name in ("c", "b"):
        freezer.ask(join={"name": name.encode(), "command": [os.fsencode(word) for word in command(name)]})
        freezer.report("joined")
    freezer.ask(leave=b"c")
    wait_until(lambda: 'name: "c"' not in RECORD.read_text())
    volume.wait_until_frozen()
    volume.longest_stall()
    if cause == "agent gone":
        freezer.leave()
    elif cause == "signal":
        freezer.signal(signal.SIGTERM)
    elif cause == "killed":
        freezer.kill()
        assert "was left frozen" in run(PLUGIN_FREEZER, "--thaw").err
    if reason:
        assert reason in freezer.report("thawed").reason
    volume.wait_until_thawed()
    assert [pathlib.Path(f"/tmp/{name}").exists() for name in "abc"] == [True, True, False]
    assert volume.longest_stall() < 4 + 3 * SLACK
    assert freezer.wait() in (0, -signal.SIGKILL)


# --- what is frozen late --------------------------------------------------------------------------

@pytest.mark.parametrize("by, waits, killed", [
    ("hook", "for a write", ""), ("hook", "for a write", "agent and freezer"),
    ("agent", "for a write", ""), ("agent", "for a write", "agent and freezer"),
    ("agent", "in the sync", ""), ("agent", "in the sync", "freezer")])
def test_a_freeze_that_outlasts_the_thaw_is_thawed_when_it_completes(daemon, volume, make_volume, start_agent,
                                                                     by, waits, killed):
    """The storage stalls in FIFREEZE, which nothing can end. While that waits for a write, FITHAW says that
    nothing is frozen; later it waits as well. The hook's is no child of the hook's any more."""
    slow = make_volume("/tmp/slow", stalling=True)
    stalled = pathlib.Path("/tmp/stalled")
    hook = make_hook("10-slow", f"case $1 in freeze) (setsid fsfreeze --freeze {slow.path} &); sleep 60;; "
                                f"thaw) [ -e {stalled} ] || fsfreeze --unfreeze {slow.path};; esac; true")
    options = ("--hooks", hook.parent) if by == "hook" else ("--fs", slow.path)
    agent = start_agent("--fs", volume.path, "--max-freeze", "2", "--hook-timeout", "0.5", *options)
    assert daemon.call.ask(init_snapshot(LUN))
    slow.stall()
    stalled.touch()
    if waits == "for a write":
        stuck = Program("dd", "if=/dev/zero", f"of={slow.path}/direct", "bs=4096", "count=1", "oflag=direct")
        wait_until(lambda: " D " in pathlib.Path(f"/proc/{stuck.pid}/stat").read_text())
    volume.longest_stall()
    assert daemon.call.ask(mirror_done(LUN))
    if killed == "freezer":
        volume.wait_until_frozen()
        os.kill(agent.freezer(), signal.SIGKILL)
    reason = agent.record()["reason"]
    assert reason == ("the freezer has died" if killed == "freezer" else
                      "freeze hook 10-slow took longer than 0.5 s" if by == "hook" else
                      "the host was thawed at the limit of 2 s")
    assert volume.longest_stall() < 2.2 + SLACK, "one stuck device must not keep the others frozen"
    if killed == "agent and freezer":
        os.kill(agent.freezer(), signal.SIGKILL)
        agent.kill()
        agent = start_agent("--fs", volume.path)
    agent.wait_for_err("waiting for processes that may still freeze or thaw something")
    another = start_agent("--fs", volume.path, "--plugin-id", "another", serves=False)
    another.wait_for_err("waits for processes of an earlier rest that may still freeze something")
    stalled.unlink()
    slow.resume()
    agent.wait_for_err("these processes have ended; thawed again") if not killed else None
    slow.wait_until_thawed()
    wait_until(lambda: not RECORD.exists())
    slow.wait_until_thawed()


def test_a_freeze_whose_process_somebody_kills_is_thawed(make_volume):
    """The kernel completes it before the process ends."""
    slow = make_volume("/tmp/slow", stalling=True)
    slow.stall()
    freezer = Freezer(slow.path, max_freeze=60000, waits=False)
    wait_until(lambda: RECORD.exists() and "processes {" in RECORD.read_text())
    time.sleep(0.3)  # in the kernel by then
    children, = pathlib.Path(f"/proc/{freezer.pid}/task").glob("*/children")
    os.kill(int(children.read_text()), signal.SIGKILL)
    slow.resume()
    assert b"somebody killed" in freezer.report("thawed").reason
    slow.wait_until_thawed()
    assert freezer.wait() == 0 and not RECORD.exists()


@pytest.mark.not_under("asan")  # which has to be loaded first
def test_a_slow_thaw_is_waited_for(volume):
    """It may get no processor time for seconds."""
    obstacle = pathlib.Path("/tmp/no_thaw")
    obstacle.touch()
    freezer = Freezer(volume.path, environment={"LD_PRELOAD": BUILD / "tests/programs/libawkward_ioctl.so"})
    freezer.ask(leave=b"a")
    assert not freezer.report("thawed").certain
    assert RECORD.exists()
    obstacle.unlink()
    volume.wait_until_thawed()
    assert freezer.wait() == 0 and not RECORD.exists()


# --- bounds ---------------------------------------------------------------------------------------

def test_thaw_hooks_that_hang_keep_nothing_else_frozen(daemon, volume, make_volume, start_agent):
    hooks = make_hook("10-volume", f"case $1 in freeze) fsfreeze --freeze {volume.path};; "
                                   f"thaw) fsfreeze --unfreeze {volume.path};; esac").parent
    for name in ("20-hangs", "30-hangs", "40-hangs"):
        make_hook(name, "[ $1 != thaw ] || sleep 60")
    by_agent = make_volume("/tmp/by_agent")
    agent = start_agent("--fs", by_agent.path, "--hooks", hooks, "--max-freeze", "1", "--hook-timeout", "5")
    volume.longest_stall()
    by_agent.longest_stall()
    daemon.call.go_to_split()
    assert daemon.call.ask(depart_done(LUN))
    record = agent.record()
    assert volume.longest_stall() < 1 + SLACK and by_agent.longest_stall() < 1 + SLACK
    assert record["verdict"] == "failed" and "longer than the limit of 1 s" in record["reason"], record


@pytest.mark.parametrize("how", ["--thaw-and-exit", "--thaw-and-exit, agent and freezer stopped",
                                 "second SIGTERM"])
def test_the_emergency_thaws_at_once(daemon, volume, hooks, start_agent, how):
    """Although the agent waits for a daemon that does not answer."""
    agent = start_agent("--fs", volume.path, "--hooks", hooks.path, "--max-freeze", "60")
    daemon.call.go_to_split()
    volume.wait_until_frozen()
    daemon.stop()
    begun = time.monotonic()
    if how == "second SIGTERM":
        agent.signal(signal.SIGTERM)
        time.sleep(0.1)
        agent.signal(signal.SIGTERM)
    else:
        if "stopped" in how:
            os.kill(agent.freezer(), signal.SIGSTOP)
            agent.stop()
        thawed = run(PLUGIN_AGENT, "--thaw-and-exit")
        assert thawed.status == 0
        assert f"is told to thaw {volume.path}, what hook 10-a has frozen\n" in thawed.err
        assert "everything is thawed" in thawed.err
    volume.wait_until_thawed()
    assert time.monotonic() - begun < 2 + SLACK
    hooks.wait_until_thawed("10-a")
    for program in (daemon, agent):
        program.signal(signal.SIGCONT)
    assert agent.record()["verdict"] == "failed"
    assert "nothing to do" in run(PLUGIN_AGENT, "--thaw-and-exit").err


def test_a_stopped_freezer_of_a_killed_agent_is_woken(daemon, volume, start_agent):
    agent = start_agent("--fs", volume.path, "--max-freeze", "25")
    daemon.call.go_to_split()
    volume.wait_until_frozen()
    os.kill(agent.freezer(), signal.SIGSTOP)
    agent.kill()
    begun = time.monotonic()
    start_agent("--fs", volume.path, serves=False)
    volume.wait_until_thawed()
    assert time.monotonic() - begun < 4 + SLACK


@pytest.mark.parametrize("is_emergency", [False, True], ids=["", "--thaw"])
def test_a_freezer_that_hangs_is_waited_for_until_its_limit_only(volume, start_agent, is_emergency):
    """A process that has the lock and does nothing stands for it. In an emergency it has a second."""
    freezer = Freezer(volume.path, max_freeze=60000)
    record = RECORD.read_text()
    freezer.kill()
    limit = int((time.monotonic() + (60 if is_emergency else 2)) * 1000)
    lines = [f"until: {limit}" if line.startswith("until:") else line for line in record.splitlines()]
    RECORD.write_text("\n".join(lines))
    hung = Program(sys.executable, "-c", "import fcntl, signal, time;"
                   "signal.signal(signal.SIGTERM, signal.SIG_IGN); lock = open('/run/plugin_agent/lock', 'r+');"
                   "fcntl.lockf(lock, fcntl.LOCK_EX); print('locked', flush=True); time.sleep(600)")
    hung.wait_for_out("locked")
    if is_emergency:
        agent = Program(PLUGIN_FREEZER, "--thaw")
    else:
        agent = start_agent("--fs", volume.path, serves=False)
        agent.wait_for_err(f"freezer {hung.pid} has this host at rest; waiting for at most ")
    agent.wait_for_err(f"freezer {hung.pid} hangs; it is killed")
    volume.wait_until_thawed()


def test_the_emergency_thaws_beside_a_freezer_that_it_cannot_see(volume):
    freezer = Freezer(volume.path, max_freeze=60000)
    thawed = run("unshare", "--pid", "--fork", "--mount-proc", PLUGIN_FREEZER, "--thaw")
    volume.wait_until_thawed()
    assert thawed.status == 4 and "run this command there" in thawed.err
    freezer.leave()
    assert freezer.wait() == 0


def test_between_two_rests_the_host_is_thawed_as_long_as_it_was_frozen(volume):
    first = Freezer(volume.path)
    time.sleep(0.7)
    left_at = time.monotonic()
    first.ask(leave=b"a")
    frozen = first.report("thawed").frozen_ms
    second = Freezer(volume.path, waits=False)
    second.report("begun")
    assert time.monotonic() - left_at > frozen / 1000
    second.leave()
    assert second.wait() == 0


def test_a_rest_ends_what_is_left_of_another_first(volume):
    Freezer(volume.path, max_freeze=60000).kill()
    freezer = Freezer(volume.path)
    freezer.ask(leave=b"a")
    assert freezer.report("thawed").certain
    volume.wait_until_thawed()


# --- what is frozen -------------------------------------------------------------------------------

@pytest.mark.parametrize("way", ["moved", "covered", "lazily unmounted", "in another namespace",
                                 "device out of reach", "without the right", "damaged record"])
def test_the_record_leads_to_a_file_system_wherever_it_is_mounted(volume, way):
    other = pathlib.Path("/tmp/elsewhere")
    other.mkdir()
    loop = pathlib.Path(run("findmnt", "--noheadings", "--output", "SOURCE", volume.path).out.strip())
    freezer = Freezer(volume.path, max_freeze=60000)
    keeper = Program("unshare", "--mount", "sleep", "600") if way == "in another namespace" else None
    if keeper:
        wait_until(lambda: os.readlink(f"/proc/{keeper.pid}/ns/mnt") != os.readlink("/proc/self/ns/mnt"))
    freezer.kill()
    if way == "moved":
        assert run("mount", "--move", volume.path, other).status == 0
    elif way == "covered":
        assert run("mount", "-t", "tmpfs", "none", volume.path).status == 0
    elif way == "damaged record":
        RECORD.write_text(RECORD.read_text() + "cut o")
    elif way == "without the right":
        refused = run("setpriv", "--bounding-set=-sys_admin", PLUGIN_FREEZER, "--thaw")
        assert refused.status == 4 and "Operation not permitted" in refused.err
        assert RECORD.exists()
    else:
        assert run("umount", "--lazy", volume.path).status == 0
    if way in ("in another namespace", "device out of reach"):
        assert run("mount", "--bind", "/dev/null", loop).status == 0
    if way == "device out of reach":
        assert f"the file system on {loop} that was mounted at {volume.path} may be frozen" in \
            run(PLUGIN_AGENT, "--thaw-and-exit").err
        another = Freezer(hooks=[make_hook("10-any", "")])
        another.ask(leave=b"a")
        another.wait()
        assert RECORD.exists(), "another rest has forgotten it"
        assert run("umount", loop).status == 0
    thawed = run(PLUGIN_AGENT, "--thaw-and-exit")
    assert "was left frozen" in thawed.err
    assert thawed.status == (4 if way == "damaged record" else 0), thawed.err
    volume.wait_until_thawed()
    assert not RECORD.exists()
    if way == "in another namespace":
        assert run("umount", loop).status == 0
    if way == "moved":
        assert run("mount", "--move", other, volume.path).status == 0
    elif way == "covered":
        assert run("umount", volume.path).status == 0
    elif way not in ("damaged record", "without the right"):
        assert run("mount", loop, volume.path).status == 0  # for its close()


def test_a_record_of_an_earlier_boot_names_nothing_that_is_there(volume, make_volume):
    """Unless it is in memory, which no boot outlives."""
    kept = make_volume("/tmp/kept").path
    freezer = Freezer(volume.path, max_freeze=60000, run_dir=kept)
    freezer.kill()
    record = kept / "frozen"
    record.write_text("\n".join('boot_id: "another"' if line.startswith("boot_id") else line
                                for line in record.read_text().splitlines()))
    assert run(PLUGIN_FREEZER, "--thaw", "--run-dir", kept).status == 0
    assert not record.exists()
    assert volume.thaw() == 0, "what has its number now was somebody else's"


@pytest.mark.parametrize("kind", ["bind mounts", "btrfs subvolumes"])
def test_two_mounts_of_one_file_system_are_frozen_once(daemon, make_volume, start_agent, kind):
    if kind == "bind mounts":
        volume = make_volume("/tmp/data")
        source, parts = volume.path, ["a", "b"]
        for part in parts:
            (volume.path / part).mkdir()
        mounts = [["mount", "--bind", volume.path / part, f"/tmp/{part}"] for part in parts]
    else:
        image = "/tmp/btrfs.image"
        os.mkdir("/tmp/whole")
        mount_image(image, "/tmp/whole", "btrfs", "128M")
        for part in "ab":
            assert run("btrfs", "subvolume", "create", f"/tmp/whole/{part}").status == 0
        source = run("findmnt", "--noheadings", "--output", "SOURCE", "/tmp/whole").out.strip()
        mounts = [["mount", "-o", f"subvol={part}", source, f"/tmp/{part}"] for part in ("a", "b")]
    for part, mount in zip("ab", mounts):
        os.mkdir(f"/tmp/{part}")
        assert run(*mount).status == 0
    agent = start_agent("--fs", "/tmp/a", "--fs", "/tmp/b")
    assert "/tmp/a is only /a of the file system on" in agent.err
    assert "are one file system, which is frozen once" in agent.err
    daemon.call.whole_handshake()
    assert agent.record()["verdict"] == "filesystem-consistent", agent.record()
    agent.leave()
    for path in ("/tmp/a", "/tmp/b", "/tmp/whole")[:2 if kind == "bind mounts" else 3]:
        wait_until(lambda: run("umount", path).status == 0)  # when the freezer has ended


# --- hooks ----------------------------------------------------------------------------------------

def test_a_hook_may_write_what_and_where_it_likes(daemon, start_agent):
    hook = make_hook("10-talks", "echo said >/proc/self/fd/2 && head -c 300000 /dev/zero | tr '\\0' x || exit 9\n"
                                 "[ $1 != prepare ] || (sleep 0.3; echo late; touch /tmp/late) &\n")
    agent = start_agent("--hooks", hook.parent)
    assert daemon.call.ask(init_snapshot(LUN))
    wait_until(pathlib.Path("/tmp/late").exists)
    assert all(daemon.call.ask(step(LUN)) for step in (mirror_done, wait_for_depart, depart_done))
    record = agent.record()
    assert record["verdict"] == "application-consistent", record
    said, rest = [line for line in agent.err.splitlines() if "hook 10-talks freeze: " in line]
    assert said.endswith(": said") and 16000 < rest.count("x") < 16384


def test_the_ready_hook_thaws_only_what_it_has_frozen(volume, make_volume):
    other = make_volume("/tmp/other")
    hook = SOURCE / "tools/plugin_agent/hooks/90-fsfreeze"
    pathlib.Path("/tmp/conf").write_text(f"{volume.path}\n", encoding="ascii")
    environment = {"FSFREEZE_CONF": "/tmp/conf", "PLUGIN_AGENT_STATE": "/tmp"}
    assert volume.freeze() == 0
    assert run(hook, "freeze", environment=environment).status == 1
    assert run(hook, "thaw", environment=environment).status == 0
    assert volume.thaw() == 0, "it was not the hook's to thaw"
    assert run(hook, "freeze", environment=environment).status == 0
    with open("/tmp/fsfreeze.frozen", "a", encoding="ascii") as frozen:
        frozen.write("/none\n")  # which keeps nothing else frozen
    assert run(hook, "thaw", environment=environment).status == 1
    volume.wait_until_thawed()
    assert volume.freeze() == 0
    pathlib.Path("/tmp/conf").write_text(f"{other.path}\n", encoding="ascii")
    make_hook("fsfreeze", '/sbin/fsfreeze "$@"; kill -KILL $PPID')
    path = {"PATH": f"/tmp/hooks_of_freezer:{os.environ['PATH']}"}
    assert run(hook, "freeze", environment={**environment, **path}).status != 0
    assert run(hook, "thaw", environment=environment).status == 0
    other.wait_until_thawed()
    assert volume.thaw() == 0, "it was the hook's once, and is somebody else's now"
