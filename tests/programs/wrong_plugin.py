#!/usr/bin/python3
"""A host plugin that is right, or wrong in the one way that its first argument names.

usage: wrong_plugin.py FAULT LUN APPLIANCE
"""
import os
import pathlib
import sys
import threading
import time

from scsi_plugin import Answer, GivenUp, HostPlugin, Limits, daemon, handshake, plugin, subscription

AT_REST = pathlib.Path("/tmp/at_rest")
MAY_GO_ON = pathlib.Path("/tmp/may_go_on")
LIMITS = {"never withdraws": Limits(rest=4.5, hold=1), "hangs in its freeze": Limits(rest=1, hold=0.5),
          "freezes slowly": Limits(rest=60, hold=59.9), "rests shortly": Limits(rest=3, hold=1)}


class Plugin(HostPlugin):
    def freeze(self, snapshot):
        AT_REST.touch()

    def thaw(self, snapshot):
        AT_REST.unlink(missing_ok=True)

    def finished(self, snapshot, failure):
        print(failure, flush=True)


def refuse(*_):
    raise GivenUp("never")


def freeze_and_refuse(_, snapshot):
    AT_REST.touch()
    refuse()


def wait_until_told(*_):
    while not MAY_GO_ON.exists():
        time.sleep(0.01)


def freeze_until_told(_, snapshot):
    AT_REST.touch()
    wait_until_told()


def ask_or_end(self, method, request, timeout):
    answer = ask_daemon(self, method, request, timeout)
    return os._exit(1) if answer is Answer.NONE else answer


def start_before_asking(self, request, timeout=5):
    if request == "is_mirror_done_req":
        ask(self, "start_mirror_req")
    return ask(self, request, timeout)


def start_and_ask(self):
    threading.Thread(target=ask, args=(self, "is_mirror_done_req")).start()
    start_mirror(self)


def wait_to_be_told(self, until):
    if not self._departed or not hasattr(self, "told"):
        self.told = True
        return stands(self, until)
    self._give_up.wait()
    return refuse()


def begin_if_idle(self, announced):
    before = self._handshakes.get(announced.src_lun_p80)
    if before is None or not before[1].is_alive():
        begin(self, announced)


def begin_and_wait(self, announced):
    self._plugin.luns = [announced.src_lun_p80]
    begin(self, announced)
    self._handshakes[announced.src_lun_p80][1].join()


def unsubscribe_and_end(self, at_once):
    self._daemon.unsubscribe(self._client)
    os._exit(0)


def start_but_for_one_snapshot(self):
    if self.name.startswith("snapshot of") and not hasattr(threading, "refused"):
        threading.refused = True
        raise RuntimeError("can't start new thread")
    start_thread(self)


class Everything:
    def __contains__(self, lun):
        return True


Handshake, Subscription, Daemon = handshake.Handshake, subscription.Subscription, daemon.Daemon
ask_daemon, ask, stands = Daemon._ask, Handshake._ask, Handshake._stands
start_mirror, growing, begin = Handshake._start_mirror, handshake._growing, Subscription._begin
start_thread = threading.Thread.start
FAULTS = {  # what is put in the place of what
    "none": [],
    "rests shortly": [],
    "comes by IPv6": (daemon, "ipv4_target", lambda appliance: appliance),
    "never answers": (Plugin, "prepare", refuse),
    "starts the mirror again and again": (Handshake, "_ask", start_before_asking),
    "asks at once": (Handshake, "_start_mirror", start_and_ask),
    "asks about the mirror all the time": (
        handshake, "_growing", lambda so_far, first: 0 if so_far > 0.05 <= first else growing(so_far, first)),
    "asks about the split all the time": (
        handshake, "_growing", lambda so_far, first: 0 if first < 0.05 else growing(so_far, first)),
    "departs before the mirror is done": (Handshake, "_wait_for_mirror", lambda _: None),
    "fails to freeze": (Plugin, "freeze", freeze_and_refuse),
    "hangs in its freeze": (Plugin, "freeze", freeze_until_told),
    "freezes slowly": (Plugin, "freeze", freeze_until_told),
    "thaws slowly": (Plugin, "thaw", wait_until_told),
    "does not freeze": (Plugin, "freeze", lambda *_: None),
    "waits to be told the end": (Handshake, "_stands", wait_to_be_told),
    "never thaws": (Plugin, "thaw", lambda *_: None),
    "takes part for every LUN": (plugin, "frozenset", lambda _: Everything()),
    "takes part for every LUN in turn": (Subscription, "_begin", begin_and_wait),
    "ends without unsubscribing": (Daemon, "unsubscribe", lambda *_: os._exit(0)),
    "never withdraws": (Handshake, "_withdraw", lambda _: None),
    "goes on after a no": (Handshake, "_start_mirror", lambda self: ask(self, "start_mirror_req")),
    "keeps to its first handshake": (Subscription, "_begin", begin_if_idle),
    "never gives up": (Subscription, "_exists", lambda *_: True),
    "ends with its stream": (
        Subscription, "_stay_subscribed", lambda self: (self._subscribe_once((1,)), os._exit(1))),
    "ends on a timeout": (Daemon, "_ask", ask_or_end),
    "pings every second": (daemon, "_OPTIONS", [
        ("grpc.keepalive_time_ms", 1000), ("grpc.http2.max_pings_without_data", 0),
        ("grpc.http2.min_ping_interval_without_data_ms", 1000),
        ("grpc.http2.min_time_between_pings_ms", 1000)]),
    "has no thread for its first snapshot": (threading.Thread, "start", start_but_for_one_snapshot),
    "forgets its promise at SIGTERM": (Subscription, "stop", unsubscribe_and_end),
}

fault, lun, appliance = sys.argv[1:]
if FAULTS[fault]:
    setattr(*FAULTS[fault])
Plugin(appliance, "me", [lun], limits=LIMITS.get(fault, Limits())).run()
