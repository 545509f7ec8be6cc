"""The host agent and a real file system, in use while it is frozen."""

from support.calls import LUN, depart_done


def test_freezes_and_thaws(daemon, volume, start_agent):
    agent = start_agent("--fs", volume.path, "--max-freeze", "5")
    daemon.call.go_to_split()
    volume.wait_until_frozen()
    assert daemon.call.ask(depart_done(LUN))
    assert agent.record()["verdict"] == "filesystem-consistent"
    volume.wait_until_thawed()
    agent.leave()
