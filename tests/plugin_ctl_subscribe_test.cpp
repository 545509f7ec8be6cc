// plugin_ctl subscribe: what it prints, and that it never stays behind as a vanished subscriber.

#include <csignal>
#include <future>

#include "plugin_ctl.h"

namespace vexo::test {
namespace {

class PluginCtlSubscribe : public PluginCtl {
 protected:
  void SetUp() override {
    PluginCtl::SetUp();
    if (!IsSkipped()) start();
  }

  // Runs `plugin_ctl subscribe` until it says that it is subscribed.
  std::unique_ptr<program> start_subscribe(words arguments) {
    arguments.insert(arguments.begin(), "subscribe");
    auto it = std::make_unique<program>(command_line(std::move(arguments)));
    EXPECT_TRUE(it->wait_for_err("subscribed to ")) << it->err();
    return it;
  }

  // Nobody is registered any more, vanished or not: a broadcast has nobody to meet.
  void expect_empty_registry() {
    EXPECT_FALSE(call->publish(init_snapshot("probe of the registry")));
    EXPECT_TRUE(log->wait_for("Plugin list is empty"));
  }
};

TEST_F(PluginCtlSubscribe, PrintsCommandsAndUnsubscribesOnASignal) {
  const std::string json =
      R"({"cmd_sn":0,"qel_sn":"","task_id":"K","init_snapshot_req":{"src_lun_uuid":"",)"
      R"("src_lun_p80":"K","src_lun_p83":"","dst_lun_uuid":"","is_for_replica":false}})"
      "\n";
  const std::vector<std::pair<words, std::string>> cases = {
      {{"w", "-t", "127.0.0.1"}, "init_snapshot_req    task_id=K src_lun_p80=K\n"},
      {{"-t", "127.0.0.1:3265", "w", "--type", "vmware", "-o", "json"}, json},
  };
  for (const auto& [arguments, printed] : cases) {
    log->clear();
    const auto watcher = start_subscribe(arguments);
    auto announced =
        std::async(std::launch::async, [&] { return call->publish(init_snapshot("K")); });
    EXPECT_TRUE(watcher->wait_for_out(printed)) << watcher->out();
    EXPECT_TRUE(call->lun_op(start_mirror("K")));
    EXPECT_TRUE(announced.get());
    EXPECT_TRUE(call->publish(depart_done("K")));
    watcher->signal(SIGINT);
    EXPECT_EQ(watcher->wait(), 5);
    EXPECT_TRUE(log->wait_for("Disconnect: Plugin ID=w"));
    expect_empty_registry();
  }
}

TEST_F(PluginCtlSubscribe, WarnsWhereNoCommandsCanCome) {
  // What a name or an IPv6 address leads to depends on the machine; the daemon's list knows.
  for (const std::string target : {kUnixTarget, "127.0.0.1", "localhost", "[::1]"}) {
    if (ctl({"-t", target, "list"}).status != 0) continue;  // no IPv6 here
    const auto watcher = start_subscribe({"w", "-t", target});
    const auto plugins = call->list();
    ASSERT_EQ(plugins.list_size(), 1);
    const bool pushed_to = plugins.list(0).ip() != "Unknown";
    EXPECT_TRUE(pushed_to || target != "127.0.0.1");
    watcher->signal(SIGTERM);
    EXPECT_EQ(watcher->wait(), 5);
    EXPECT_EQ(watcher->err().find("warning: ") == std::string::npos, pushed_to) << target;
  }
}

TEST_F(PluginCtlSubscribe, EndsWhenTheDaemonEndsIt) {
  const auto first = start_subscribe({"w", "-t", "127.0.0.1"});
  const auto second = start_subscribe({"w", "-t", "127.0.0.1"});
  EXPECT_EQ(first->wait(), 0);
  EXPECT_NE(first->err().find("the daemon ended the subscription"), std::string::npos);
  EXPECT_NE(second->err().find("is subscribed already, from 127.0.0.1"), std::string::npos);
  EXPECT_TRUE(call->is_listed("w"));  // the first one did not unsubscribe the second
  daemon->kill();
  EXPECT_EQ(second->wait(), 3);
  EXPECT_NE(second->err().find("came back: UNAVAILABLE"), std::string::npos) << second->err();
}

TEST_F(PluginCtlSubscribe, UnsubscribesWhenNobodyReadsItAnyMore) {
  const auto watcher = start_subscribe({"w", "-t", "127.0.0.1"});
  watcher->close_out();
  auto announced =
      std::async(std::launch::async, [&] { return call->publish(init_snapshot("K")); });
  EXPECT_EQ(watcher->wait(), 4);
  EXPECT_NE(watcher->err().find("writing to standard output"), std::string::npos);
  expect_empty_registry();
  EXPECT_TRUE(call->lun_op(start_mirror("K")));
  EXPECT_TRUE(announced.get());
}

// A daemon that does not answer the UnSubscribe must not keep the tool from ending.
TEST_F(PluginCtlSubscribe, SaysThatItMayStayBehindWhenItCannotUnsubscribe) {
  const auto watcher = start_subscribe({"w", "-t", "127.0.0.1", "--timeout", "5"});
  daemon->stop();
  watcher->signal(SIGINT);
  EXPECT_EQ(watcher->wait(), 3);
  EXPECT_NE(watcher->err().find("plugin_ctl unsubscribe w"), std::string::npos) << watcher->err();
}

}  // namespace
}  // namespace vexo::test
