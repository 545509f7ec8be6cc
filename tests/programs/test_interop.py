# The programs of examples/: other languages, one of them with an HTTP/2 stack that is not gRPC's own, take
# a whole handshake through the daemon.

import os
import signal
import sys

import pytest

from support.calls import LUN
from support.program import SOURCE, Program, run

pytestmark = pytest.mark.not_under("tsan")  # the clients differ; the daemon's threads do not

EXAMPLES = SOURCE / "examples"
LANGUAGES = {  # language: host plugin, local caller
    "python": ([sys.executable, "-B", EXAMPLES / "python/host_plugin.py"],
               [sys.executable, "-B", EXAMPLES / "python/local_caller.py"]),
    "node": (["node", EXAMPLES / "node/host_plugin.js"], ["node", EXAMPLES / "node/local_caller.js"]),
}
PACKAGE = {"PYTHONPATH": str(SOURCE / "clients/python")}


def start_plugin(log, daemon, *languages):
    """The host plugin in the first of these languages, if all can be had."""
    if "node" in languages and os.system(f"node {EXAMPLES}/node/service.js 2>/dev/null") != 0:
        pytest.skip("no Node with gRPC: scripts/setup --interop installs it")
    plugin = Program(*LANGUAGES[languages[0]][0], "example", LUN, environment=PACKAGE)
    log.wait_for("Connected: Plugin ID=example IP=127.0.0.1")
    daemon.call.wait_until_listed("example")
    return plugin


@pytest.mark.parametrize("local", LANGUAGES)
@pytest.mark.parametrize("host", LANGUAGES)
def test_a_handshake_across_languages(log, daemon, host, local):
    plugin = start_plugin(log, daemon, host, local)

    snapshot = run(*LANGUAGES[local][1], LUN, environment=PACKAGE)
    assert snapshot.status == 0, snapshot.err
    assert snapshot.out == ("init_snapshot_req: yes\nmirror_done_req: yes\n"
                            "wait_for_depart_req: yes\nwait_for_depart_req: yes\ndepart_done_req: yes\n")
    plugin.wait_for_out("at rest\nat work\n")

    plugin.signal(signal.SIGTERM)
    assert plugin.wait() == 0, plugin.err
    log.wait_for("Disconnect: Plugin ID=example")
    nobody = run(*LANGUAGES[local][1], LUN, environment=PACKAGE)
    assert nobody.status == 1
    assert "init_snapshot_req: no" in nobody.err
