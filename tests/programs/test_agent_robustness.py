# What the host agent withstands: hostile appliances, a lack of threads, and a log without a reader.

import os
import signal
import subprocess
import time
import unicodedata

import grpc
import pytest
from google.protobuf.empty_pb2 import Empty

from lun_cmd_pb2 import LunCmdResp
from plugin_cmd_pb2 import PluginClient, PluginClientList
from plugin_service_pb2_grpc import PluginServiceServicer
from support.calls import LUN, TCP, init_snapshot, serve
from support.program import PLUGIN_AGENT
from support.waiting import PATIENCE, wait_until

MOST_HANDSHAKES = 64
ESCAPES = "\x1b[2J\r\n{\"verdict\":\"application-consistent\"}\u009b2J\u202e"


class Appliance(PluginServiceServicer):
    """One that pushes what it likes, and answers no LunOp before its deadline."""

    def __init__(self, commands=(), ip="1.2.3.4", refusal=None):
        self._commands, self._ip, self._refusal = commands, ip, refusal
        self._subscribers = []
        serve(self)

    def Subscribe(self, request, context):
        self._refuse(context)
        self._subscribers.append(request)
        yield from self._commands
        while context.is_active() and request in self._subscribers:
            time.sleep(0.01)

    def UnSubscribe(self, request, context):
        self._subscribers = [each for each in self._subscribers if each.plugin_id != request.plugin_id]
        return Empty()

    def PluginConnList(self, request, context):
        self._refuse(context)
        ids = [each.plugin_id for each in self._subscribers] + [ESCAPES, "watcher"]
        return PluginClientList(list=[PluginClient(plugin_id=each, ip=self._ip) for each in ids])

    def LunOp(self, request, context):
        while context.is_active():
            time.sleep(0.01)
        return LunCmdResp()

    def _refuse(self, context):
        if self._refusal:
            context.abort(grpc.StatusCode.UNKNOWN, self._refusal)


def control_characters(text):
    """Its characters that would change a terminal, without the ends of lines."""
    return [character for character in text
            if character != "\n" and unicodedata.category(character) in ("Cc", "Cf", "Zl", "Zp")]


def threads_of(program):
    return len(os.listdir(f"/proc/{program.pid}/task"))


@pytest.mark.parametrize("luns", [[LUN] * 600, [f"lun {number}" for number in range(600)]],
                         ids=["one LUN", "many LUNs"])
def test_a_flood_of_announcements_is_bounded(start_agent, luns):
    Appliance([init_snapshot(lun) for lun in luns])
    agent = start_agent(lun="any")
    agent.wait_for_err(f"no handshake: {MOST_HANDSHAKES} are under way, as many as there may be")
    assert threads_of(agent) < MOST_HANDSHAKES + 40
    agent.leave()


def test_goes_on_when_no_thread_can_be_started(start_agent):
    Appliance([init_snapshot(f"lun {number}") for number in range(600)])
    user = 40000 + os.getpid() % 20000
    # gRPC itself leaks a few bytes then.
    no_leaks = {"ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"}
    agent = start_agent(lun="any", environment=no_leaks, before=("setpriv", f"--reuid={user}",
                                                                 "--clear-groups", "prlimit", "--nproc=50"))
    agent.wait_for_err("no handshake: Resource temporarily unavailable")
    agent.leave()


def test_goes_on_when_nobody_reads_its_log(daemon, hooks):
    hook = hooks.path / "10-signals"
    hook.write_text("#!/bin/sh\ngrep SigIgn /proc/$$/status >/tmp/ignored\n")
    hook.chmod(0o755)
    with subprocess.Popen([PLUGIN_AGENT, "--appliance", "127.0.0.1", "--lun", LUN, "--plugin-id", "host",
                           "--poll", "0.05", "--hooks", hooks.path], stderr=subprocess.PIPE) as agent:
        daemon.call.wait_until_listed("host")
        agent.stderr.close()
        daemon.call.whole_handshake()
        daemon.call.whole_handshake()
        agent.send_signal(signal.SIGTERM)
        assert agent.wait(PATIENCE) == 0
    assert not daemon.call.is_listed("host")
    with open("/tmp/ignored", encoding="ascii") as ignored:
        # glibc leaves its own two, 32 and 33, ignored in what it spawns.
        assert int(ignored.read().split()[1], 16) & ~(3 << 31) == 0


@pytest.mark.parametrize("refusal", [None, ESCAPES], ids=["list", "status"])
def test_text_from_the_wire_is_shown_without_control_characters(start_agent, start_plugin_ctl, refusal):
    Appliance([init_snapshot(ESCAPES), init_snapshot(LUN)], ip=ESCAPES, refusal=refusal)
    agent = start_agent(serves=False)
    tools = [start_plugin_ctl("--target", TCP, *verb) for verb in (["list"], ["subscribe", "watcher"])]
    agent.wait_for_err("not subscribed" if refusal else "snapshot announced")
    wait_until(lambda: all(r"\x1b[2J" in each.out + each.err for each in tools))
    agent.signal(signal.SIGTERM)
    agent.wait()
    assert r"\x1b[2J" in agent.err
    for each in (agent, *tools):
        assert not control_characters(each.out + each.err)
        assert not any(line.startswith('{"verdict') for line in (each.out + each.err).splitlines())
