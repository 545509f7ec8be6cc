// Scripts of calls against the controller, compared with a model after each. See README.md for the
// letters.
//
// Single-threaded: what follows in the script while a call waits, happens during that wait. A
// broadcast that meets a vanished subscriber, which by contract never returns, is left by an
// exception once it has examined that one again and again. Not played: two calls at work at the
// very same time (tests/stress_test.cpp does that), and release_all_clients, which nothing calls.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "calls.h"
#include "captured_syslog.h"
#include "command_streams.h"
#include "controller_model.h"
#include "fake_conf.h"
#include "log_lines.h"
#include "virtual_time.h"

namespace vexo::fuzz {
namespace {

using namespace scsiplugin;
using namespace std::chrono_literals;

const std::string kIds[] = {"", "esx", "win", "a longer identifier, with \xc3\xa4 and %s in it"};
const std::string kKeys[] = {
    "1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6", "c3d9e8b1-2f64-4b7a-9e05-7714aa0c6f2e",
    "0e984725-c51c-4bf4-9960-e1c80e27aba0", "6001405c3d9e8b1d2f64d4b7ad9e05d7", ""};
// What gRPC says of a peer, and what is listed for it.
const std::pair<std::string, std::string> kPeers[] = {{"ipv4:10.0.0.9:4711", "10.0.0.9"},
                                                      {"ipv6:%5B::1%5D:40000", "Unknown"},
                                                      {"unix:", "Unknown"},
                                                      {"ipv4:10.0.0.9", "Unknown"}};
constexpr std::chrono::seconds kSpans[] = {1s, 59s, 60s, 300s, -3600s};

command_streams& streams() {
  static command_streams one_each(std::size(kIds));
  return one_each;
}

class script {
 public:
  explicit script(std::string_view text) : rest_(text) {
    the_time().reset();
    the_time().meanwhile = [this](auto deadline) { return during_a_wait(deadline); };
    test::the_conf().reset();
    test::the_conf().set(kInventory);
    test::captured_syslog().clear();
  }

  // Plays the next call, and all that comes while it waits. False at the end of the script.
  bool step() {
    if (rest_.empty()) return false;
    switch (next()) {
      case 'S':
        subscribe();
        break;
      case 'U':
        unsubscribe(operand(kIds));
        break;
      case 'V':
        vanish(operand(kIds));
        break;
      case 'L':
        list();
        break;
      case 'I':
        init_snapshot(operand(kKeys));
        break;
      case 'M':
        mirror_done(operand(kKeys));
        break;
      case 'W':
        wait_for_depart(operand(kKeys));
        break;
      case 'D':
        depart_done(operand(kKeys));
        break;
      case 's':
        move(&test::start_mirror, TASK_MIRROR_STARTED, operand(kKeys));
        break;
      case 'd':
        move(&test::depart_relation, TASK_DEPART_STARTED, operand(kKeys));
        break;
      case 'm':
        is_mirror_done();
        break;
      case 'q':
        is_lun_support();
        break;
      case 'E':
        the_time().pass(kSpans[operand(kSpans)]);
        break;
      case 'F':
        fail_loads(!model_.loads_fail);
        break;
      default:
        return true;  // no letter of ours
    }
    model_.expect_equal(&ctrl_);
    return true;
  }

 private:
  static constexpr int kTypes[] = {0, 1, 2, 3};  // LunType, and a number that is none

  char next() {
    if (rest_.empty()) return '0';
    const char c = rest_.front();
    rest_.remove_prefix(1);
    return c;
  }

  // The next character's index into `table`: '0' is the first, and any character is one.
  template <typename T, std::size_t N>
  std::size_t operand(const T (&/*table*/)[N]) {
    return static_cast<unsigned char>(next() - '0') % N;
  }

  // --- Subscribers ---

  void subscribe() {
    const std::size_t id = operand(kIds);
    const std::size_t peer = operand(kPeers);
    PluginClient request;
    request.set_plugin_id(kIds[id]);
    request.set_type(static_cast<PluginClient::Type>(peer));
    auto added =
        std::make_unique<host>(kPeers[peer].first, std::move(request), streams().writer(id));
    added->ip = kPeers[peer].second;
    const auto replaced = std::exchange(model_.hosts[kIds[id]], std::move(added));
    ctrl_.add_client(model_.hosts[kIds[id]]->record);
    if (replaced) expect_let_go(*replaced);
  }

  void unsubscribe(std::size_t id) {
    PluginClient request;
    request.set_plugin_id(kIds[id]);
    auto client = ctrl_.get_client(request);
    const auto found = model_.hosts.find(kIds[id]);
    ASSERT_EQ(client != nullptr, found != model_.hosts.end());
    if (!client) return;
    client->release();
    ctrl_.del_client(client);
    client.reset();
    expect_let_go(*found->second);
    model_.hosts.erase(found);
  }

  // The record of a call that may now end.
  static void expect_let_go(const host& gone) {
    EXPECT_EQ(gone.record.use_count(), 1);
    const mutex_lock lock(gone.record->write_mutex);
    EXPECT_FALSE(gone.record->running);
  }

  void vanish(std::size_t id) {
    const auto found = model_.hosts.find(kIds[id]);
    if (found != model_.hosts.end()) found->second->call.cancel();
  }

  void list() {
    PluginClientList listed;
    ctrl_.list_clients(&listed);
    int alive = 0;
    for (const auto& [plugin_id, host] : model_.hosts) {
      EXPECT_EQ(host->call.times_told(), host->call.cancelled() ? 1 : 0);
      if (!host->call.cancelled()) ++alive;
    }
    EXPECT_EQ(listed.list_size(), alive);
    for (const auto& entry : listed.list()) {
      const auto found = model_.hosts.find(entry.plugin_id());
      ASSERT_NE(found, model_.hosts.end());
      EXPECT_FALSE(found->second->call.cancelled());
      EXPECT_EQ(entry.type(), found->second->request.type());
      EXPECT_EQ(entry.ip(), found->second->ip);
    }
  }

  // --- The local caller ---

  void init_snapshot(std::size_t key) {
    const bool any = !model_.hosts.empty();
    const auto mine = any ? model_.begin(kKeys[key]) : nullptr;
    PluginCmd request = numbered(test::init_snapshot(kKeys[key]));
    host* vanished = nullptr;
    if (mine) vanished = announce(request);
    PluginCmdResp response;
    deadlines_.push_back(the_time().now() + 60s);
    try {
      ctrl_.handle_cmd_init_snapshot(request, &response);
      deadlines_.pop_back();
    } catch (const never_returns&) {
      deadlines_.pop_back();
      ASSERT_TRUE(vanished != nullptr);
      EXPECT_EQ(vanished->call.times_told(), fake_call::enough);
      vanished->released = true;
      take_deliveries();
      return;
    }
    EXPECT_EQ(vanished, nullptr);
    EXPECT_TRUE(deliveries_.empty());  // before its wait
    EXPECT_EQ(response.success(), mine && mine->state == TASK_MIRROR_STARTED);
    EXPECT_EQ(response.has_init_snapshot_resp(), response.success());
    EXPECT_EQ(response.init_snapshot_resp().task_id(), response.success() ? kKeys[key] : "");
    if (mine) expect_logged_last(response.success() ? 220 : 224, key);
    // Also one that has taken its place meanwhile.
    if (mine && !response.success()) model_.hand_shakes.erase(kKeys[key]);
  }

  void mirror_done(std::size_t key) {
    const bool expected = model_.mirror_done(kKeys[key]);
    publish(&PluginServerCtrl::handle_cmd_mirror_done, test::mirror_done(kKeys[key]),
            [=] { return expected; });
  }

  void wait_for_depart(std::size_t key) {
    const auto mine = model_.find(kKeys[key]);
    publish(&PluginServerCtrl::handle_cmd_wait_for_depart, test::wait_for_depart(kKeys[key]),
            [=] { return mine && mine->state == TASK_DEPART_STARTED; });
    if (mine) expect_logged_last(mine->state == TASK_DEPART_STARTED ? 264 : 267, key);
  }

  void depart_done(std::size_t key) {
    const PluginCmd request = numbered(test::depart_done(kKeys[key]));
    const auto unnamed = model_.hosts.find("");
    if (model_.find(kKeys[key]) && unnamed != model_.hosts.end()) {
      deliver(*unnamed->second, request);
    }
    model_.hand_shakes.erase(kKeys[key]);
    publish(&PluginServerCtrl::handle_cmd_depart_done, request, [] { return true; });
    take_deliveries();
  }

  void publish(void (PluginServerCtrl::*handler)(const PluginCmd&, PluginCmdResp*),
               const PluginCmd& request, const std::function<bool()>& expected) {
    PluginCmdResp response;
    deadlines_.push_back(the_time().now() + 60s);
    (ctrl_.*handler)(request, &response);
    deadlines_.pop_back();
    EXPECT_EQ(response.success(), expected()) << request.ShortDebugString();
    response.clear_success();
    EXPECT_EQ(response.ByteSizeLong(), 0U);
  }

  static void expect_logged_last(int number, std::size_t key) {
    EXPECT_EQ(test::captured_syslog().lines().back(), test::line(number, kKeys[key]));
  }

  // --- The host plugins ---

  void move(LunCmd (*command)(const std::string&), task_state next, std::size_t key) {
    const auto handler = next == TASK_MIRROR_STARTED
                             ? &PluginServerCtrl::handle_cmd_start_mirror
                             : &PluginServerCtrl::handle_cmd_depart_relation;
    lun_op(handler, command(kKeys[key]), model_.move(kKeys[key], next));
  }

  void is_mirror_done() {
    const std::string& key = kKeys[operand(kKeys)];
    const int type = kTypes[operand(kTypes)];
    lun_op(&PluginServerCtrl::handle_cmd_is_mirror_done,
           test::is_mirror_done(key, static_cast<LunType>(type)), model_.is_mirror_done(key, type));
  }

  void is_lun_support() {
    const std::string& key = kKeys[operand(kKeys)];
    const int type = kTypes[operand(kTypes)];
    lun_op(&PluginServerCtrl::handle_cmd_is_lun_support,
           test::is_lun_support(key, static_cast<LunType>(type)), model_.is_lun_support(key, type));
  }

  void lun_op(void (PluginServerCtrl::*handler)(const LunCmd&, LunCmdResp*), const LunCmd& request,
              bool expected) {
    LunCmdResp response;
    (ctrl_.*handler)(request, &response);
    EXPECT_EQ(response.success(), expected) << request.ShortDebugString();
    response.clear_success();
    EXPECT_EQ(response.ByteSizeLong(), 0U);
  }

  void fail_loads(bool fail) {
    model_.loads_fail = fail;
    test::the_conf().fails = fail;
  }

  // --- Waits and deliveries ---

  bool during_a_wait(std::chrono::system_clock::time_point deadline) {
    EXPECT_EQ(deadline, deadlines_.back());
    take_deliveries();
    return step();
  }

  PluginCmd numbered(PluginCmd cmd) {
    cmd.set_cmd_sn(++cmd_sn_);
    return cmd;
  }

  // Notes who must get an announcement, in the registry's own order; up to the first who has
  // vanished, who is returned.
  host* announce(PluginCmd cmd) {
    cmd.set_task_id(cmd.init_snapshot_req().src_lun_p80());
    const mutex_lock lock(ctrl_.client_mutex);
    for (const auto& [plugin_id, client] : ctrl_.client_map) {
      host& next = *model_.hosts.at(plugin_id);
      next.call.times_told();
      if (next.call.cancelled()) return &next;
      deliver(next, cmd);
    }
    return nullptr;
  }

  void deliver(const host& to, const PluginCmd& cmd) {
    if (to.ip == "Unknown") return;
    const auto* const id = std::find(std::begin(kIds), std::end(kIds), to.request.plugin_id());
    deliveries_.emplace_back(id - std::begin(kIds), cmd);
  }

  void take_deliveries() {
    for (const auto& [stream, cmd] : std::exchange(deliveries_, {})) {
      EXPECT_EQ(streams().read(stream).SerializeAsString(), cmd.SerializeAsString());
    }
  }

  std::string_view rest_;
  PluginServerCtrl ctrl_;
  controller_model model_;
  std::vector<std::pair<std::size_t, PluginCmd>> deliveries_;  // that must have been made
  // Of the calls that are at work, each inside the wait of the one before.
  std::vector<std::chrono::system_clock::time_point> deadlines_;
  static inline std::uint32_t cmd_sn_ = 0;  // of the process, so that none is taken for another's
};

}  // namespace
}  // namespace vexo::fuzz

// The two that libFuzzer, or replay.cpp, calls: once before all else, and for each input.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  testing::GTEST_FLAG(throw_on_failure) = true;  // ends the process, as a crash does
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kLongest = 300;  // each call may wait inside the one before
  if (size > kLongest) return 0;
  vexo::fuzz::script script({reinterpret_cast<const char*>(data), size});
  while (script.step()) continue;
  return 0;
}
