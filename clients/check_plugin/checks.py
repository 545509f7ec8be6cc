# What is tried, in trials that each have an appliance of their own and run side by side.

import signal
import time

from appliance import (ADDRESS, DEPART, MIRROR, NAME, OTHER_LUN, SILENCE_SECONDS,
                       START, Appliance, Missed)
from support.calls import init_snapshot

MIRROR_SECONDS = 4  # of the mirror whose questions are counted
SPLIT_SECONDS = 2
# plugin_agent asks about 8 times a second in the first 4 s of a mirror and 20 times in those of a split.
MOST_MIRROR_QUESTIONS, MOST_DEPART_QUESTIONS = 10 * MIRROR_SECONDS, 50 * SPLIT_SECONDS
FIRST_QUESTION_SECONDS = 0.045  # a little less than the 50 ms that are asked for
KEEPALIVE_SECONDS = 300
STOPPED_SECONDS = 7  # longer than the usual deadline of a call
GIVE_UP_SECONDS = 15  # beyond the patience

TRIALS = {}  # the functions, and the checks that each decides: name, and what it is about


def trial(**checks):
    def add(function):
        TRIALS[function] = checks
        return function
    return add


class Verdicts:
    """Of one trial. `say` is given each as name, verdict, and a sentence."""

    def __init__(self, checks, say):
        self._left, self._say = list(checks), say

    def say(self, name, verdict, text):
        self._left.remove(name)
        self._say(name, verdict, text)

    def ok(self, name, text):
        self.say(name, "ok", text)

    def failed(self, name, text):
        self.say(name, "FAILED", text)

    def decide(self, name, fine, text, advice):
        self.say(name, "ok" if fine else "FAILED", text if fine else f"{text}: {advice}")

    def fail_next(self, text):
        self.failed(self._left[0], text)

    def end(self, why, verdict="skipped"):
        """For all checks that are left."""
        for name in list(self._left):
            self.say(name, verdict, why)

    def attempt(self, name, what, text=None):
        """Does `what`, which raises Missed if the check has failed. Whether it has not."""
        try:
            result = what()
        except Missed as missed:
            self.failed(name, str(missed))
            return False
        self.ok(name, text or result)
        return True


@trial(ipv4="subscribes over IPv4")
def by_name(settings, verdicts):
    try:
        appliance = Appliance(settings, by=NAME)
    except Missed as missed:
        if "IPv6" in str(missed):
            return verdicts.failed("ipv4", str(missed))
        return verdicts.say("ipv4", "skipped", f"given a name instead of an address, {missed}")
    verdicts.ok("ipv4", "given a name that has an IPv6 address, too, it came over IPv4")
    appliance.tell_to_end()


@trial(subscribes="subscribes",
       answers="answers an announcement",
       start_once="sends start_mirror once",
       first_question="leaves a moment before it asks about the mirror",
       mirror_questions="does not ask too often about the mirror",
       departs="departs only when mirrored",
       at_rest="is at rest when it departs, and not before",
       stays="stays at rest for the split",
       depart_questions="does not ask too often whether the split is over",
       notices_end="notices the end",
       thaws="thaws after the end",
       again="takes part again",
       other_lun="ignores other LUNs",
       unsubscribes="unsubscribes on SIGTERM and ends")
def handshake(settings, verdicts):
    try:
        take_part(settings, verdicts)
    except Missed as missed:
        verdicts.fail_next(str(missed))


def take_part(settings, verdicts):
    begun = time.monotonic()
    appliance = Appliance(settings)
    verdicts.ok("subscribes", f"listed {time.monotonic() - begun:.1f} s after its start")
    # In the background for the whole trial: the announcement of a LUN of another host.
    other = appliance.call.begin(init_snapshot(OTHER_LUN))

    begun = appliance.mark()
    try:
        took = appliance.announce()
    except Missed:
        if not appliance.times(START, lun=OTHER_LUN):
            raise
        verdicts.failed("other_lun", f"it took up the announcement of {OTHER_LUN}, a LUN of another host, and "
                                     "so did not answer that of its own: compare src_lun_p80")
        return
    verdicts.ok("answers", f"after {took:.2f} s; the appliance waits 60 s")
    looks = settings.at_rest is not None
    rested_too_early = looks and appliance.rests()
    time.sleep(MIRROR_SECONDS)
    questions = appliance.times(MIRROR, since=begun)
    departed_too_early = appliance.times(DEPART, since=begun)
    starts = appliance.times(START, since=begun)
    verdicts.decide("start_once", len(starts) == 1, f"{len(starts)} time(s)",
                    "after a yes never send it again, since it undoes a mirror_done that came in between")
    first = questions[0] - starts[0] if questions else None
    verdicts.decide("first_question", first is None or first >= FIRST_QUESTION_SECONDS,
                    f"{first:.3f} s after start_mirror" if questions else "it had not asked yet",
                    "wait 50 ms first, or the local caller may miss that the mirror may start")
    verdicts.decide("mirror_questions", len(questions) <= MOST_MIRROR_QUESTIONS,
                    f"{len(questions)} questions in {MIRROR_SECONDS} s",
                    f"ask once a second, at most {MOST_MIRROR_QUESTIONS} times in this time")
    if departed_too_early:
        verdicts.failed("departs", "it sent depart_relation before the mirror was done: wait for the yes "
                                   "to is_mirror_done, or an incomplete mirror is split")
        appliance.end(-1)
        return
    appliance.mirror_done()
    done = time.monotonic()
    appliance.wait_for_depart()
    verdicts.ok("departs", f"{time.monotonic() - done:.2f} s after the mirror was done")
    rested = looks and appliance.rests()
    if looks:
        verdicts.decide("at_rest", rested and not rested_too_early,
                        "at rest already during the mirror" if rested_too_early else
                        "at rest" if rested else "not at rest", "freeze, then send depart_relation")
    else:
        verdicts.say("at_rest", "skipped", "say with --at-rest how to see it")

    departed = appliance.mark()
    time.sleep(SPLIT_SECONDS)
    questions = appliance.times(DEPART, since=departed)
    verdicts.decide("stays", appliance.departure_stands(), f"for {SPLIT_SECONDS} s",
                    "it took its departure back; a split of this length is usual")
    verdicts.decide("depart_questions", len(questions) <= MOST_DEPART_QUESTIONS,
                    f"{len(questions)} questions in {SPLIT_SECONDS} s",
                    f"let the pauses grow, to at most {MOST_DEPART_QUESTIONS} questions in this time")
    ended = appliance.end()
    try:
        appliance.wait_until_told(ended)
        told = appliance.mark() - ended
        time.sleep(SILENCE_SECONDS)
        verdicts.decide("notices_end", appliance.silent_since() > SILENCE_SECONDS / 2,
                        f"it asked {told:.2f} s after the end" +
                        (" and is silent since" if appliance.silent_since() > SILENCE_SECONDS / 2 else
                         " and asks still"), "stop at the first no")
    except Missed as missed:
        verdicts.failed("notices_end", f"{missed}: no message tells the end, so ask depart_relation until no")
    if looks:
        verdicts.decide("thaws", not appliance.rests(), "at rest still" if appliance.rests() else "at work",
                        "thaw at the first no")
    else:
        verdicts.say("thaws", "skipped", "say with --at-rest how to see it")
    verdicts.attempt("again", appliance.whole_handshake, "a second handshake of the same LUN")
    asked = appliance.times(START, MIRROR, DEPART, lun=OTHER_LUN)
    verdicts.decide("other_lun", not asked, f"{len(asked)} requests about a LUN of another host",
                    "compare src_lun_p80 with the LUNs of the host")
    other.cancel()
    appliance.tell_to_end()
    verdicts.attempt("unsubscribes", appliance.check_left)


@trial(two_luns="two LUNs side by side")
def side_by_side(settings, verdicts):
    if not settings.two_luns:
        return verdicts.say("two_luns", "skipped", "give it a second LUN: {lun2} in COMMAND, or --lun twice")
    appliance = Appliance(settings)
    appliance.call.begin(init_snapshot(OTHER_LUN))
    for step in (appliance.announce, appliance.mirror_done, appliance.wait_for_depart):
        for lun in appliance.luns:
            step(lun)
    both = all(appliance.departure_stands(lun) for lun in appliance.luns)
    for lun in appliance.luns:
        appliance.end(lun=lun)
    verdicts.decide("two_luns", both, "both at rest together" if both else "not both at rest together",
                    "a handshake of one LUN must not end that of another")


@trial(long_split="withdraws, or stays at rest for a long split")
def long_split(settings, verdicts):
    appliance = Appliance(settings)
    appliance.go_to_split()
    departed = appliance.mark()
    taken_back = ()
    while not taken_back and appliance.mark() < departed + settings.split:
        time.sleep(0.05)
        taken_back = appliance.times(START, since=departed)
    if taken_back:
        time.sleep(SILENCE_SECONDS / 2)  # it may be told twice
        verdicts.decide("long_split", not appliance.departure_stands(),
                        f"its departure was taken back after {taken_back[0] - departed:.1f} s",
                        "it departed again; after start_mirror never send depart_relation any more")
    elif (silent := appliance.silent_since()) < SILENCE_SECONDS:
        verdicts.ok("long_split", f"it asked still after {settings.split:g} s")
    else:
        verdicts.failed("long_split", f"silent for {silent:.1f} s, and the departure stands: send "
                                      "start_mirror before you thaw without a no, or a bad copy counts as "
                                      "good")
    appliance.end(-1)


@trial(withdrawn="gives up an announcement that is withdrawn",
       superseded="a second announcement takes the place of the first",
       gives_up="gives up when the mirror fails")
def giving_up(settings, verdicts):
    appliance = Appliance(settings)
    appliance.plugin.signal_group(signal.SIGSTOP)
    begun = appliance.mark()
    announced = appliance.call.begin(init_snapshot(appliance.luns[0]))
    appliance.wait(lambda: appliance.log.count("push command"), settings.patience, "was sent no announcement")
    appliance.end(-1)
    announced.cancel()
    appliance.plugin.signal_group(signal.SIGCONT)
    appliance.wait(lambda: appliance.times(START, since=begun), settings.patience,
                   "did not answer an announcement")
    time.sleep(SILENCE_SECONDS)
    asked = appliance.times(START, MIRROR, DEPART, since=begun)
    verdicts.decide("withdrawn", len(asked) == 1, f"{len(asked) - 1} requests after a no to start_mirror",
                    "stop there: nobody waits any more")

    appliance.announce()
    appliance.end(-1)
    verdicts.attempt("superseded", appliance.whole_handshake, "and the new handshake went through")
    appliance.announce()
    time.sleep(0.5)
    begun = time.monotonic()
    appliance.end(-1)
    limit = settings.patience + GIVE_UP_SECONDS
    verdicts.attempt("gives_up", lambda: appliance.wait(
        lambda: appliance.silent_since() > SILENCE_SECONDS, limit,
        "still asked about a handshake that is gone, so it never undoes what it prepared; it did not stop")
        or f"silent {time.monotonic() - begun - SILENCE_SECONDS:.0f} s after the appliance gave up")


@trial(restart="survives a restart of the daemon during the mirror",
       restart_at_rest="survives a restart of the daemon while at rest")
def restarts(settings, verdicts):
    appliance = Appliance(settings)
    appliance.announce()

    def during_the_mirror():
        appliance.restart_daemon_under_plugin()
        appliance.whole_handshake()

    def at_rest():
        appliance.go_to_split()
        begun = appliance.mark()
        appliance.restart_daemon_under_plugin()
        appliance.wait_until_told(begun)
        appliance.whole_handshake()

    text = "and took part in the next handshake"
    if verdicts.attempt("restart", during_the_mirror, f"subscribed again, {text}"):
        verdicts.attempt("restart_at_rest", at_rest, f"was told no, {text}")


@trial(stopped="survives a daemon that stops answering during the mirror",
       stopped_at_rest="survives a daemon that stops answering while at rest")
def stopped_daemon(settings, verdicts):
    appliance = Appliance(settings)
    appliance.announce()

    def during_the_mirror():
        appliance.stop_daemon_for(STOPPED_SECONDS)
        appliance.mirror_done()
        appliance.wait_for_depart()
        appliance.wait_until_told(appliance.end())

    def at_rest():
        appliance.go_to_split()
        appliance.stop_daemon_for(STOPPED_SECONDS)
        appliance.end(-1)
        appliance.wait_until_listed()
        appliance.whole_handshake()
        appliance.tell_to_end()
        appliance.check_left()

    text = f"for {STOPPED_SECONDS} s"
    if verdicts.attempt("stopped", during_the_mirror, f"{text}, and the handshake went on"):
        verdicts.attempt("stopped_at_rest", at_rest, f"{text}, and it took part again and unsubscribed")


@trial(keepalive="sends keepalive pings no more often than every 300 s",
       cut="survives a cut connection")
def connections(settings, verdicts):
    appliance = Appliance(settings, by=ADDRESS)
    time.sleep(1)  # what a new connection begins with
    before = appliance.relay.pings
    time.sleep(settings.idle)
    pings = appliance.relay.pings - before
    verdicts.decide("keepalive", pings <= settings.idle // KEEPALIVE_SECONDS,
                    f"{pings} in {settings.idle:g} s of silence",
                    "set the keepalive time to 300 s or more, or the server answers too_many_pings")

    def cut():
        appliance.cut()
        appliance.announce()
        appliance.cut()
        appliance.end(-1)
        appliance.whole_handshake()

    verdicts.attempt("cut", cut, "subscribed again, and took part in the next handshake")


@trial(sigterm_mirror="unsubscribes on SIGTERM during the mirror",
       sigterm_at_rest="keeps its promise on SIGTERM while at rest")
def sigterm(settings, verdicts):
    appliance = Appliance(settings)
    appliance.announce()

    def during_the_mirror():
        time.sleep(0.5)
        appliance.tell_to_end()
        return appliance.check_left()

    def at_rest():
        appliance.end(-1)
        appliance.start_plugin()
        appliance.go_to_split()
        appliance.tell_to_end()
        deadline = time.monotonic() + SILENCE_SECONDS
        while appliance.plugin.alive and time.monotonic() < deadline:
            time.sleep(0.01)
        if not appliance.plugin.alive and appliance.departure_stands():
            raise Missed("it ended while its departure stood: stay at rest until the split is over, or send "
                         "start_mirror before you thaw, or a bad copy counts as good")
        appliance.end()
        return f"it stayed at rest, or took its departure back; {appliance.check_left()}"

    if verdicts.attempt("sigterm_mirror", during_the_mirror):
        verdicts.attempt("sigterm_at_rest", at_rest)
