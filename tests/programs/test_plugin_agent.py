"""The host agent beside the real daemon, with hooks only."""

from support.calls import LUN


def test_runs_hooks_in_order_and_undoes_in_reverse(daemon, hooks, start_agent):
    hooks.add("20-b", "10-a")
    hooks.add("30-not-executable", mode=0o644)
    hooks.add("40-everybodys", mode=0o757)
    agent = start_agent("--hooks", hooks.path)
    daemon.call.whole_handshake()
    record = agent.record()
    assert (record["verdict"], record["lun"]) == ("application-consistent", LUN)
    assert record["frozen_ms"] > 0
    assert len(record["hooks"]) == 6 and len(record["refused_hooks"]) == 2
    assert hooks.take_runs() == ["10-a prepare", "20-b prepare", "10-a freeze", "20-b freeze",
                                 "20-b thaw", "10-a thaw"]
    assert "30-not-executable is not run: it is not executable" in agent.err
    assert "40-everybodys is not run: everybody may write" in agent.err
    agent.leave()
    assert not daemon.call.is_listed("host")
