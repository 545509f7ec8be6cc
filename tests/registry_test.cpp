// Subscribers: registered, replaced, listed, pushed to and let go.

#include <gtest/gtest.h>

#include <future>
#include <map>
#include <string>

#include "captured_syslog.h"
#include "peer_address.h"
#include "service.h"

namespace vexo::test {
namespace {

using namespace scsiplugin;
using Registry = service;

constexpr std::chrono::milliseconds kStillBlocked{300};

PluginCmd numbered(std::uint32_t cmd_sn) {
  PluginCmd cmd = init_snapshot("K");
  cmd.set_cmd_sn(cmd_sn);
  return cmd;
}

TEST(PeerAddress, IsTheTextOfAnIpv4PeerWithAPort) {
  const std::map<std::string, std::string> cases = {
      {"ipv4:192.168.1.20:51544", "192.168.1.20"},
      {"ipv4:192.168.1.20", "Unknown"},
      {"ipv4:192.168.1.20:", "Unknown"},
      {"ipv4:192.168.1.20:port", "Unknown"},
      {"ipv4::51544", "Unknown"},
      {"ipv6:[::1]:40000", "Unknown"},
      {"ipv6:%5B::1%5D:40000", "Unknown"},
      {"unix:", "Unknown"},
      {"unix:/tmp/iscsi/plugin_server.sock", "Unknown"},
      {"", "Unknown"},
      {"ipv4:" + std::string(63, '1') + ":1", std::string(63, '1')},
      {"ipv4:" + std::string(64, '1') + ":1", "Unknown"},
  };
  for (const auto& [peer, address] : cases) EXPECT_EQ(peer_ipv4(peer), address) << peer;
}

TEST_F(Registry, AnEmptyOneListsNobodyAndBroadcastsToNobody) {
  EXPECT_EQ(call->list().list_size(), 0);
  ctrl().broadcast_cmd(init_snapshot("K"));
  ctrl().release_all_clients();
  EXPECT_EQ(ctrl().get_client("nobody"), nullptr);
}

TEST_F(Registry, ListsWhatTheServerSees) {
  const auto vmware = subscribe("esx", PluginClient::VMWARE);
  const auto numbered_type = subscribe("odd", static_cast<PluginClient::Type>(7));
  const auto list = call->list();
  ASSERT_EQ(list.list_size(), 2);
  std::map<std::string, PluginClient> by_id;
  for (const auto& entry : list.list()) by_id[entry.plugin_id()] = entry;
  EXPECT_EQ(by_id["esx"].type(), PluginClient::VMWARE);
  EXPECT_EQ(by_id["esx"].ip(), "127.0.0.1");
  EXPECT_EQ(by_id["odd"].type(), 7);
}

TEST_F(Registry, LogsConnectAndDisconnect) {
  auto host = subscribe("esx");
  call->unsubscribe("esx");
  ASSERT_TRUE(host->end());
  const std::vector<log_line> expected = {
      {6, "scsi_plugin:plugin_service_impl:32:Subscribe Connected: Plugin ID=esx IP=127.0.0.1", 0},
      {6, "scsi_plugin:plugin_service_impl:37:Subscribe Disconnect: Plugin ID=esx IP=127.0.0.1", 0},
  };
  EXPECT_EQ(captured_syslog().lines(), expected);
}

TEST_F(Registry, UnSubscribeEndsTheMatchingCallOnly) {
  const auto one = subscribe("one");
  const auto two = subscribe("two");
  call->unsubscribe("nobody");
  call->unsubscribe("one");
  const auto end = one->end();
  ASSERT_TRUE(end);
  EXPECT_TRUE(end->ok());
  call->unsubscribe("one");  // again, to no effect
  ASSERT_EQ(call->list().list_size(), 1);
  ctrl().broadcast_cmd(numbered(1));
  ASSERT_TRUE(two->next_cmd());
  EXPECT_EQ(captured_syslog().count("Disconnect"), 1U);
}

TEST_F(Registry, ANewerCallReplacesTheOlder) {
  const auto older = subscribe("esx", PluginClient::VMWARE);
  const auto newer = subscribe("esx", PluginClient::WINDOWS);
  const auto end = older->end();
  ASSERT_TRUE(end);
  EXPECT_TRUE(end->ok());
  const auto list = call->list();
  ASSERT_EQ(list.list_size(), 1);
  EXPECT_EQ(list.list(0).type(), PluginClient::WINDOWS);
  ctrl().broadcast_cmd(numbered(1));
  ASSERT_TRUE(newer->next_cmd());
  EXPECT_EQ(older->cmds_waiting(), 0U);
}

TEST_F(Registry, ABroadcastReachesEveryHostOnceAndInOrder) {
  const auto one = subscribe("one");
  const auto two = subscribe("two");
  const auto no_id = subscribe("");
  for (std::uint32_t sn = 1; sn <= 20; ++sn) ctrl().broadcast_cmd(numbered(sn));
  for (const auto& host : {one.get(), two.get(), no_id.get()}) {
    for (std::uint32_t sn = 1; sn <= 20; ++sn) {
      const auto cmd = host->next_cmd();
      ASSERT_TRUE(cmd);
      EXPECT_EQ(cmd->cmd_sn(), sn);
    }
    EXPECT_EQ(host->cmds_waiting(), 0U);
  }
  EXPECT_EQ(captured_syslog().count("scsi_plugin:plugin_client:37:push_cmd push command to "
                                    "plugin_id=one ip=127.0.0.1"),
            20U);
}

TEST_F(Registry, PushesToIpv4PeersOnly) {
  std::map<std::string, std::string> targets = {{"over_unix", unix_target}};
  if (!ipv6_target.empty()) targets["over_ipv6"] = ipv6_target;
  for (const auto& [id, target] : targets) {
    subscriber host(connect(target), id);
    wait_until_waiting(id);
    const auto list = call->list();
    ASSERT_EQ(list.list_size(), 1);
    EXPECT_EQ(list.list(0).ip(), "Unknown");
    ctrl().broadcast_cmd(numbered(1));
    EXPECT_EQ(captured_syslog().count("scsi_plugin:plugin_client:31:push_cmd Unknown ip address, "
                                      "plugin_id=" +
                                      id),
              1U);
    call->unsubscribe(id);
    ASSERT_TRUE(host.end());
    EXPECT_EQ(host.cmds_waiting(), 0U);
    EXPECT_EQ(captured_syslog().count("Connected: Plugin ID=" + id + " IP=Unknown"), 1U);
    EXPECT_EQ(captured_syslog().count("Disconnect: Plugin ID=" + id + " IP=Unknown"), 1U);
  }
  if (ipv6_target.empty()) GTEST_SKIP() << "no IPv6 on this machine; the unix socket passed";
}

TEST_F(Registry, ACancelledCallIsHiddenButStaysRegistered) {
  const auto host = subscribe("esx");
  host->cancel();
  wait_until_cancelled("esx");
  EXPECT_EQ(call->list().list_size(), 0);
  EXPECT_NE(ctrl().get_client("esx"), nullptr);
  EXPECT_EQ(captured_syslog().count("Disconnect"), 0U);  // nothing has woken its handler

  const auto back = subscribe("esx");
  EXPECT_TRUE(captured_syslog().wait_for("Disconnect: Plugin ID=esx"));
  EXPECT_EQ(call->list().list_size(), 1);
}

TEST_F(Registry, APushToACancelledCallIsLostQuietly) {
  const auto host = subscribe("");
  host->cancel();
  wait_until_cancelled("");
  ASSERT_TRUE(ctrl().add_task("K"));
  EXPECT_TRUE(call->publish(depart_done("K")));
  EXPECT_EQ(captured_syslog().count("push command to plugin_id= ip=127.0.0.1"), 1U);
  EXPECT_EQ(ctrl().find_task("K"), nullptr);
}

// The Subscribe call's context, request and writer are reached through its record: the call may not
// end while anybody has one.
TEST_F(Registry, ACallOutlivesEveryPointerToItsRecord) {
  const auto host = subscribe("esx", PluginClient::VMWARE);
  auto held = ctrl().get_client("esx");
  call->unsubscribe("esx");
  ASSERT_TRUE(captured_syslog().wait_for("Disconnect: Plugin ID=esx"));
  EXPECT_EQ(call->list().list_size(), 0);
  EXPECT_EQ(held->request->type(), PluginClient::VMWARE);
  EXPECT_FALSE(held->context->IsCancelled());
  held->push_cmd(numbered(5));
  const auto cmd = host->next_cmd();
  ASSERT_TRUE(cmd);
  EXPECT_EQ(cmd->cmd_sn(), 5U);
  held.reset();
  const auto end = host->end();
  ASSERT_TRUE(end);
  EXPECT_TRUE(end->ok());
}

// While a broadcast writes to a host that takes nothing, it holds client_mutex.
TEST_F(Registry, ASlowBroadcastHoldsUpTheRegistryAndNothingElse) {
  const auto slow = subscribe("slow");
  auto stalled = stall("slow");
  auto first =
      std::async(std::launch::async, [&] { return caller(dial()).publish(init_snapshot("K")); });
  wait_until_registry_is_held();

  PluginClientList list;
  EXPECT_EQ(call->list_status(kStillBlocked, &list).error_code(), grpc::DEADLINE_EXCEEDED);
  EXPECT_EQ(call->unsubscribe_status("slow", kStillBlocked).error_code(), grpc::DEADLINE_EXCEEDED);
  subscriber late(dial(), "late");
  ASSERT_TRUE(captured_syslog().wait_for("Connected: Plugin ID=late"));

  // Task table, task lookups and the configuration go on; so does a second announcement, as far as
  // its own broadcast.
  EXPECT_TRUE(call->lun_op(start_mirror("K")));
  EXPECT_FALSE(call->lun_op(is_lun_support("K", LUN_TYPE_80)));
  auto second =
      std::async(std::launch::async, [&] { return caller(dial()).publish(init_snapshot("K2")); });
  ASSERT_TRUE(captured_syslog().wait_for("Init snapshots broadcast [K2]"));
  while (!ctrl().find_task("K2")) std::this_thread::yield();
  EXPECT_TRUE(call->lun_op(start_mirror("K2")));
  ASSERT_TRUE(ctrl().add_task("K3"));
  EXPECT_TRUE(call->publish(depart_done("K3")));
  EXPECT_EQ(ctrl().client_map.find("late"), nullptr);

  stalled.unlock();
  EXPECT_TRUE(first.get());
  EXPECT_TRUE(second.get());
  // The UnSubscribe whose caller gave up was still carried out.
  const auto end = slow->end();
  ASSERT_TRUE(end);
  EXPECT_TRUE(end->ok());
  wait_until_waiting("late");
}

}  // namespace
}  // namespace vexo::test
