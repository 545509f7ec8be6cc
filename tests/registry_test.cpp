// Subscribers: how they are registered, replaced, listed, pushed to and released.

#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "captured_syslog.h"
#include "peer_address.h"
#include "service.h"

namespace vexo::test {
namespace {

using namespace scsiplugin;
using Registry = service;

PluginCmd numbered(std::uint32_t cmd_sn) {
  PluginCmd cmd = init_snapshot("K");
  cmd.set_cmd_sn(cmd_sn);
  return cmd;
}

log_line disconnect(const std::string& id) { return line(37, id, "127.0.0.1", "Subscribe"); }

void wait_until_disconnected(const std::string& id) {
  wait_until("no line for the end of " + id,
             [&] { return captured_syslog().count(disconnect(id)) > 0; });
}

TEST(PeerAddress, IsTheTextOfAnIpv4PeerWithAPort) {
  const std::map<std::string, std::string> cases = {
      {"ipv4:192.168.1.20:51544", "192.168.1.20"},
      {"ipv4:192.168.1.20", "Unknown"},
      {"ipv4:192.168.1.20:", "Unknown"},
      {"ipv4:10.0.0.1: -7", "10.0.0.1"},
      {"ipv4:10.0.0.1:+", "Unknown"},
      {"ipv4:10.0.0.1:99999999999999999999", "10.0.0.1"},
      {"ipv4: \t:1", " \t"},
      {std::string("ipv4:10.0.0.1\0:1", 16), "Unknown"},
      {"ipv4::51544", "Unknown"},
      {" ipv4:10.0.0.1:1", "Unknown"},
      {"unix:", "Unknown"},
      {"", "Unknown"},
      {"ipv4:" + std::string(63, '1') + ":1", std::string(63, '1')},
      {"ipv4:" + std::string(64, '1') + ":1", "Unknown"},
  };
  for (const auto& [peer, address] : cases) EXPECT_EQ(peer_ipv4(peer), address) << peer;
}

// It never returns, so a second thread ends the process when it has seen enough.
TEST(RegistryDeathTest, ReleaseAllClientsNeverReachesTheSecond) {
  EXPECT_EXIT(
      {
        PluginServerCtrl ctrl;
        grpc::ServerContext context;
        PluginClient requests[2];
        requests[1].set_plugin_id("another");
        for (const auto& request : requests) {
          ctrl.add_client(std::make_shared<plugin_client>(&context, &request, nullptr));
        }
        plugin_client& first = *ctrl.client_map.begin()->second;
        plugin_client& second = *std::next(ctrl.client_map.begin())->second;
        std::thread([&] {
          for (int round = 0; round < 10;) {
            const mutex_lock lock(first.write_mutex);
            if (!std::exchange(first.running, true)) ++round;
          }
          const mutex_lock lock(second.write_mutex);
          std::_Exit(second.running ? 0 : 1);
        }).detach();
        ctrl.release_all_clients();
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(Registry, UnSubscribeEndsTheMatchingCallOnlyAndThenForgetsIt) {
  const auto looking = captured_syslog().watch([](const log_line& logged) {
    EXPECT_TRUE(logged != line(32, "one", "127.0.0.1") || !ctrl().client_map.find("one")) << logged;
  });
  const auto one = subscribe("one");
  const auto two = subscribe("two");
  call->unsubscribe("nobody");
  auto stalled = stall("one");
  auto ending = std::async(std::launch::async, [&] { caller(dial()).unsubscribe("one"); });
  wait_until_needed(stalled);
  EXPECT_NE(ctrl().get_client("one"), nullptr);  // woken before it is removed
  stalled.unlock();
  ending.get();
  EXPECT_TRUE(one->ends_well());
  call->unsubscribe("one");  // a second time: no effect
  ASSERT_EQ(call->list().list_size(), 1);
  ctrl().broadcast_cmd(numbered(1));
  EXPECT_EQ(two->next_cmd().cmd_sn(), 1U);
  EXPECT_EQ(captured_syslog().count(disconnect("one")), 1U);
  EXPECT_EQ(captured_syslog().count(disconnect("two")), 0U);
}

TEST_F(Registry, ANewerCallReplacesTheOlderAndThenReleasesIt) {
  const auto older = subscribe("esx", PluginClient::VMWARE);
  auto stalled = stall("esx");
  subscriber newer(dial(), "esx", PluginClient::WINDOWS);
  wait_until_needed(stalled);
  auto record = ctrl().client_map.find("esx");
  ASSERT_EQ(record->request->type(), PluginClient::WINDOWS);  // stored before the release

  // A release before the newer call begins to wait is lost.
  std::unique_lock<std::mutex> not_yet(record->wait_mutex);
  record->release();
  stalled.unlock();
  wait_until_needed(not_yet);
  not_yet.unlock();
  record.reset();
  wait_until_waiting("esx");

  EXPECT_TRUE(older->ends_well());
  const auto list = call->list();
  ASSERT_EQ(list.list_size(), 1);
  EXPECT_EQ(list.list(0).type(), PluginClient::WINDOWS);
  ctrl().broadcast_cmd(numbered(1));
  EXPECT_EQ(newer.next_cmd().cmd_sn(), 1U);
  EXPECT_EQ(older->cmds_waiting(), 0U);
}

TEST_F(Registry, AnyWakeUpEndsACall) {
  const auto host = subscribe("esx");
  ctrl().get_client("esx")->cond.notify_one();  // without a release
  wait_until_disconnected("esx");
}

TEST_F(Registry, ACancelledCallIsHiddenButStaysRegistered) {
  const auto host = subscribe("");
  host->cancel();
  wait_until_cancelled("");
  EXPECT_EQ(call->list().list_size(), 0);

  // A push to it is lost, and nothing is logged about that.
  auto registered = ctrl().get_client("");
  ASSERT_TRUE(ctrl().add_task("K"));
  EXPECT_TRUE(call->publish(depart_done("K")));
  EXPECT_EQ(captured_syslog().count(line(37, "", "127.0.0.1")), 1U);
  EXPECT_EQ(ctrl().find_task("K"), nullptr);
  {
    const mutex_lock lock(registered->write_mutex);
    EXPECT_TRUE(registered->running);
  }
  wait_until_waiting("");
  EXPECT_EQ(captured_syslog().count(disconnect("")), 0U);  // nothing has woken its handler

  registered.reset();
  const auto back = subscribe("");
  wait_until_disconnected("");
  EXPECT_EQ(call->list().list_size(), 1);
}

// The Subscribe call's context, request and writer are reached through its record, so the call may
// not end while any thread holds a pointer to it.
TEST_F(Registry, ACallOutlivesEveryPointerToItsRecord) {
  const auto host = subscribe("esx", PluginClient::VMWARE);
  auto held = ctrl().get_client("esx");
  call->unsubscribe("esx");
  wait_until_disconnected("esx");
  EXPECT_EQ(call->list().list_size(), 0);
  EXPECT_EQ(held->request->type(), PluginClient::VMWARE);
  EXPECT_FALSE(held->context->IsCancelled());
  held->push_cmd(numbered(5));
  EXPECT_EQ(host->next_cmd().cmd_sn(), 5U);
  held.reset();
  EXPECT_TRUE(host->ends_well());
}

// While a broadcast writes to a host that takes nothing, it holds client_mutex.
TEST_F(Registry, ASlowBroadcastHoldsUpTheRegistryAndNothingElse) {
  const auto slow = subscribe("slow");
  auto stalled = stall("slow");
  auto first =
      std::async(std::launch::async, [&] { return caller(dial()).publish(init_snapshot("K")); });
  wait_until_needed(stalled);

  auto list = std::async(std::launch::async, [&] { return caller(dial()).list(); });
  auto ending = std::async(std::launch::async, [&] { caller(dial()).unsubscribe("slow"); });
  subscriber late(dial(), "late");
  wait_until("not all three wait for the registry",
             [] { return sleepers(&ctrl().client_mutex, sizeof ctrl().client_mutex) == 3; });

  // The task table, task lookups and the configuration can be used. A second announcement proceeds
  // until its own broadcast.
  EXPECT_TRUE(call->lun_op(start_mirror("K")));
  EXPECT_FALSE(call->lun_op(is_lun_support("K", LUN_TYPE_80)));
  auto second =
      std::async(std::launch::async, [&] { return caller(dial()).publish(init_snapshot("K2")); });
  wait_until("no second task", [] { return ctrl().find_task("K2") != nullptr; });
  EXPECT_TRUE(call->lun_op(start_mirror("K2")));
  ASSERT_TRUE(ctrl().add_task("K3"));
  EXPECT_TRUE(call->publish(depart_done("K3")));
  EXPECT_EQ(ctrl().client_map.find("late"), nullptr);

  stalled.unlock();
  EXPECT_TRUE(first.get());
  EXPECT_TRUE(second.get());
  list.get();
  ending.get();
  EXPECT_TRUE(slow->ends_well());
  wait_until_waiting("late");
}

}  // namespace
}  // namespace vexo::test
