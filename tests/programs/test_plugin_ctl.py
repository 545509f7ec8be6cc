"""plugin_ctl's verbs that ask once: what they print, and how they end."""

import json


def test_lists_who_is_subscribed(daemon, plugin_ctl):
    daemon.subscribe("esx")
    listed = plugin_ctl("list", "-o", "json")
    assert listed.status == 0
    assert [plugin["plugin_id"] for plugin in json.loads(listed.out)["list"]] == ["esx"]
