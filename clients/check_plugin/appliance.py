# An appliance of the kit's own, with the plugin under test as its only host.

import os
import pathlib
import signal
import subprocess
import time

import grpc

from relay import ADDRESS, PORT, Relay
from support import namespaces
from support.calls import depart_done, init_snapshot, mirror_done, wait_for_depart
from support.daemon import Daemon
from support.log import Log
from support.program import Program

# What the daemon logs about the plugin's requests, and about its no to the last.
START, MIRROR, DEPART = "Start mirror", "Check mirror done", "Depart relation start"
DEPART_REFUSED = "handle_cmd_depart_relation Task not exists:"
OTHER_LUN = "00000000-0000-4000-8000-000000000000"  # of another host
NAME = "appliance"  # which stands for an IPv6 and an IPv4 address

LISTED_SECONDS = 20  # for a plugin that is started
LISTED_AGAIN_SECONDS = 45  # for one that has lost its connection: longer than the longest back-off
END_SECONDS = 30  # for one that was told to end
SILENCE_SECONDS = 3  # without a request, after which the plugin has given up: else it asks every second
CONFIRM_SECONDS = 5  # for the question after the split


class Missed(Exception):
    """The plugin has not done what was waited for; the text says what."""


class Appliance:
    """A daemon, its log, and the plugin, which is subscribed when this returns. Raises Missed.

    `by`: what the plugin is given as the appliance's address. `settings`: as of the command line.
    """

    def __init__(self, settings, by="127.0.0.1"):
        self.settings = settings
        self.luns = settings.lun
        self.relay = None
        self._by = by
        if by == NAME:
            hosts = pathlib.Path("/tmp/hosts")
            hosts.write_text(f"127.0.0.1 localhost\n::1 {NAME}\n127.0.0.1 {NAME}\n")
            namespaces.bind(hosts, "/etc/hosts")
        self.log = Log()
        self._start_daemon()
        if by == ADDRESS:
            self.relay = Relay()
        self.start_plugin()

    def _start_daemon(self):
        self.daemon = Daemon(self.log, luns=[*self.luns, OTHER_LUN])
        self.call = self.daemon.call

    def start_plugin(self):
        values = {"appliance": f"{self._by}:{PORT}", "lun": self.luns[0], "lun2": self.luns[-1]}
        command = list(self.settings.command)
        for name, value in values.items():
            command = [word.replace(f"{{{name}}}", value) for word in command]
        before = self.subscriptions()
        self.plugin = Program(*command, group=True, environment={
            f"VEXO_{name.upper()}": value for name, value in values.items()})
        self.wait_until_listed(LISTED_SECONDS, before)

    def subscriptions(self):
        """How often it has subscribed so far."""
        return self.log.count(" Connected: Plugin ID=")

    def wait_until_listed(self, seconds=LISTED_AGAIN_SECONDS, subscriptions=0):
        """Until it is listed, and has subscribed more than `subscriptions` times. Raises Missed."""
        def is_listed():
            if self.subscriptions() <= subscriptions:
                return False
            addresses = [client.ip for client in self.call.list()]
            if addresses and set(addresses) == {"Unknown"}:
                raise Missed("it came over IPv6, and commands are pushed to IPv4 peers only: "
                             "look up the appliance's IPv4 address and connect to that")
            return addresses

        self.wait(is_listed, seconds, "did not subscribe" + (" again" if subscriptions else ""))

    def wait(self, condition, seconds, what):
        """Until `condition` holds. Raises Missed, which says `what`, and at once if the plugin has ended."""
        end = time.monotonic() + seconds
        while not condition():
            if not self.plugin.alive:
                raise Missed(f"it {what}, since it has ended with {self.plugin.status}")
            if time.monotonic() > end:
                raise Missed(f"it {what} within {seconds:g} s")
            time.sleep(0.01)

    # --- what the plugin asks ---

    def times(self, *questions, lun=None, since=0):
        """When the plugin has asked these about a LUN (the first), by the clock of `mark`."""
        ends = tuple(f"{question} [{lun or self.luns[0]}]" for question in questions)
        return [when for when, line in self.log.timed() if when > since and line.text.endswith(ends)]

    mark = staticmethod(time.time)

    def silent_since(self):
        """For how long it has asked nothing, in seconds."""
        return time.time() - max(self.times(START, MIRROR, DEPART), default=0)

    # --- the local caller ---

    def announce(self, lun=None):
        """Until the plugin has answered: how long that took, in seconds. Raises Missed."""
        lun = lun or self.luns[0]
        begun = time.monotonic()
        if not self._publish(init_snapshot(lun), self.settings.patience):
            raise Missed("it did not answer an announcement of its LUN with start_mirror within "
                         f"{self.settings.patience:g} s")
        return time.monotonic() - begun

    def go_to_split(self, lun=None):
        """From the announcement until the plugin has departed. Raises Missed."""
        self.announce(lun)
        self.mirror_done(lun)
        self.wait_for_depart(lun)

    def mirror_done(self, lun=None):
        if not self._publish(mirror_done(lun or self.luns[0]), self.settings.patience):
            raise Missed("it moved the handshake on before the mirror was done")

    def wait_for_depart(self, lun=None):
        """Raises Missed."""
        if not self._publish(wait_for_depart(lun or self.luns[0]), self.settings.patience):
            hint = (": is_mirror_done_req needs type = LUN_TYPE_80 with the page-80h identifier"
                    if self.log.count("Failed to get lun config") else "")
            raise Missed(f"it did not depart within {self.settings.patience:g} s after the mirror was done{hint}")

    def departure_stands(self, lun=None):
        return self._publish(wait_for_depart(lun or self.luns[0]), CONFIRM_SECONDS)

    def end(self, result=0, lun=None):
        """depart_done. When that was sent, by the clock of `mark`."""
        sent = self.mark()
        self._publish(depart_done(lun or self.luns[0], result), self.settings.patience)
        return sent

    def whole_handshake(self):
        """Raises Missed."""
        self.go_to_split()
        if not self.departure_stands():
            raise Missed("it did not stay at rest for the split")
        self.wait_until_told(self.end())

    def wait_until_told(self, since):
        """Until the plugin has asked again and so heard that the handshake is over. Raises Missed."""
        self.wait(lambda: self.times(DEPART_REFUSED, since=since), self.settings.patience,
                  "did not ask depart_relation again after the end of the handshake")

    def _publish(self, request, seconds):
        try:
            return self.call.ask(request, seconds)
        except grpc.RpcError as error:
            if error.code() is not grpc.StatusCode.DEADLINE_EXCEEDED:
                raise
            return False

    # --- faults ---

    def restart_daemon(self):
        self.daemon.kill()
        self._start_daemon()

    def restart_daemon_under_plugin(self):
        """Restarts it and waits until the plugin has subscribed again. Raises Missed."""
        before = self.subscriptions()
        self.restart_daemon()
        self.wait_until_listed(subscriptions=before)

    def cut(self):
        """Cuts the connection and waits until the plugin has subscribed again: until then the daemon would
        hang at an announcement. Raises Missed."""
        before = self.subscriptions()
        self.relay.cut()
        self.wait_until_listed(subscriptions=before)

    def stop_daemon_for(self, seconds):
        self.daemon.stop()
        time.sleep(seconds)
        self.daemon.signal(signal.SIGCONT)

    def tell_to_end(self):
        self.plugin.signal_group(signal.SIGTERM)

    def check_left(self):
        """After tell_to_end(): it ends and leaves no registration behind. What to say. Raises Missed."""
        begun = time.monotonic()
        while self.plugin.alive:
            if time.monotonic() > begun + END_SECONDS:
                raise Missed(f"it did not end within {END_SECONDS} s after SIGTERM")
            time.sleep(0.01)
        took = time.monotonic() - begun
        empty = self.log.count("Plugin list is empty")
        self._publish(init_snapshot(OTHER_LUN), CONFIRM_SECONDS)
        if self.log.count("Plugin list is empty") == empty:
            self.restart_daemon()  # it hangs for ever
            raise Missed("it ended without UnSubscribe, so the next announcement hung the daemon")
        return f"it ended {took:.1f} s later, and no registration is left"

    def rests(self):
        """Whether the host is at rest, by the author's own command."""
        return subprocess.run(["sh", "-c", self.settings.at_rest], stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env={
                                  **os.environ, "VEXO_LUN": self.luns[0]}).returncode == 0
