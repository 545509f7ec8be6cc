// Scripts of calls against the controller, compared with a model after each. See README.md for the
// letters.
//
// Single-threaded: what follows in the script while a call waits, happens during that wait. A
// broadcast that meets a vanished subscriber, which by contract never returns, is left by an
// exception once it has examined that one again and again. Not played: two calls at work at the
// very same time (tests/stress_test.cpp does that), and release_all_clients, which nothing calls.

#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "calls.h"
#include "captured_syslog.h"
#include "controller_model.h"
#include "fake_conf.h"
#include "log_lines.h"
#include "plugin_service.grpc.pb.h"
#include "simulation.h"
#include "subscriber.h"

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
constexpr LunType kTypes[] = {LUN_TYPE_NONE, LUN_TYPE_80, LUN_TYPE_83, static_cast<LunType>(3)};
constexpr std::chrono::seconds kSpans[] = {1s, 59s, 60s, 300s, -3600s};

// Real Subscribe streams, one for each id, opened once and never ended, for subscriber records
// whose calls are fake: what is written to one comes out at its other end.
class command_streams : PluginService::Service {
 public:
  command_streams() {
    int port = 0;
    grpc::ServerBuilder builder;
    builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
    builder.RegisterService(this);
    server_ = builder.BuildAndStart();
    stub_ = PluginService::NewStub(test::connect("127.0.0.1:" + std::to_string(port)));
    PluginClient request;
    for (std::size_t i = 0; i < std::size(kIds); ++i) {
      request.set_type(static_cast<PluginClient::Type>(i));
      contexts_[i].set_wait_for_ready(true);
      readers_[i] = stub_->Subscribe(&contexts_[i], request);
      writers_[i] = lent_[i].get_future().get();
    }
  }
  grpc::ServerWriter<PluginCmd>* writer(std::size_t i) const { return writers_[i]; }
  // The next command from stream `i`; blocks until there is one.
  PluginCmd read(std::size_t i) {
    PluginCmd cmd;
    EXPECT_TRUE(readers_[i]->Read(&cmd));
    return cmd;
  }

 private:
  // Lends its writer, and stays open. The request's type is the number of the stream.
  grpc::Status Subscribe(grpc::ServerContext* /*context*/, const PluginClient* request,
                         grpc::ServerWriter<PluginCmd>* writer) override {
    lent_[request->type()].set_value(writer);
    std::promise<void>().get_future().wait();
    return grpc::Status::OK;
  }

  std::unique_ptr<grpc::Server> server_;
  std::unique_ptr<PluginService::Stub> stub_;
  grpc::ClientContext contexts_[std::size(kIds)];
  std::unique_ptr<grpc::ClientReader<PluginCmd>> readers_[std::size(kIds)];
  std::promise<grpc::ServerWriter<PluginCmd>*> lent_[std::size(kIds)];
  grpc::ServerWriter<PluginCmd>* writers_[std::size(kIds)];
};

// Never destroyed: their calls do not end.
command_streams& streams() {
  static command_streams& one_each = *new command_streams;
  return one_each;
}

class script {
 public:
  explicit script(std::string_view text) : rest_(text) {
    the_time() = {.meanwhile = [this](auto deadline) { return during_a_wait(deadline); }};
    test::the_conf().reset();
    test::the_conf().set(kInventory);
    test::captured_syslog().clear();
  }

  // Plays the next call, and all that comes while it waits. False at the end of the script.
  bool step() {
    static const std::map<char, void (script::*)()> calls = {
        {'S', &script::subscribe},       {'U', &script::unsubscribe},
        {'V', &script::vanish},          {'L', &script::list},
        {'I', &script::init_snapshot},   {'M', &script::mirror_done},
        {'W', &script::wait_for_depart}, {'D', &script::depart_done},
        {'s', &script::start_mirror},    {'d', &script::depart_relation},
        {'m', &script::is_mirror_done},  {'q', &script::is_lun_support},
        {'E', &script::pass_time},       {'F', &script::change_what_loads_do},
    };
    if (rest_.empty()) return false;
    const auto found = calls.find(next());
    if (found == calls.end()) return true;  // no letter of ours
    (this->*found->second)();
    model_.expect_equal(&ctrl_);
    return true;
  }

 private:
  char next() {
    if (rest_.empty()) return '0';
    const char c = rest_.front();
    rest_.remove_prefix(1);
    return c;
  }

  // What the next character chooses: '0' is the first, and any character is one.
  template <typename T, std::size_t N>
  const T& operand(const T (&table)[N]) {
    return table[static_cast<unsigned char>(next() - '0') % N];
  }

  // --- Subscribers ---

  void subscribe() {
    const std::string& id = operand(kIds);
    const auto& peer = operand(kPeers);
    const auto stream = static_cast<std::size_t>(&id - kIds);
    PluginClient request;
    request.set_plugin_id(id);
    request.set_type(static_cast<PluginClient::Type>(&peer - kPeers));
    std::unique_ptr<host> added(new host{fake_call(peer.first), request, peer.second, stream});
    added->record =
        std::make_shared<plugin_client>(&added->call, &added->request, streams().writer(stream));
    const auto replaced = std::exchange(model_.hosts[id], std::move(added));
    ctrl_.add_client(model_.hosts[id]->record);
    if (replaced) expect_let_go(*replaced);
  }

  void unsubscribe() {
    PluginClient request;
    request.set_plugin_id(operand(kIds));
    auto client = ctrl_.get_client(request);
    const auto found = model_.hosts.find(request.plugin_id());
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

  void vanish() {
    const auto found = model_.hosts.find(operand(kIds));
    if (found != model_.hosts.end()) found->second->call.cancelled = true;
  }

  void list() {
    PluginClientList listed;
    ctrl_.list_clients(&listed);
    int alive = 0;
    for (const auto& [plugin_id, host] : model_.hosts) {
      EXPECT_EQ(std::exchange(host->call.told, 0), host->call.cancelled ? 1 : 0);
      if (!host->call.cancelled) ++alive;
    }
    EXPECT_EQ(listed.list_size(), alive);
    for (const auto& entry : listed.list()) {
      const host& subscribed = *model_.hosts.at(entry.plugin_id());
      EXPECT_FALSE(subscribed.call.cancelled);
      EXPECT_EQ(entry.type(), subscribed.request.type());
      EXPECT_EQ(entry.ip(), subscribed.ip);
    }
  }

  // --- The local caller ---

  void init_snapshot() {
    const std::string& key = operand(kKeys);
    const auto mine = model_.hosts.empty() ? nullptr : model_.begin(key);
    const PluginCmd request = numbered(test::init_snapshot(key));
    host* const vanished = mine ? announce(request) : nullptr;
    PluginCmdResp response;
    const auto outer = std::exchange(deadline_, the_time().now + 60s);
    try {
      ctrl_.handle_cmd_init_snapshot(request, &response);
      EXPECT_EQ(vanished, nullptr);
    } catch (const never_returns&) {
      ASSERT_TRUE(vanished != nullptr);
      EXPECT_EQ(std::exchange(vanished->call.told, 0), fake_call::enough);
      vanished->released = true;
      take_deliveries();
    }
    deadline_ = outer;
    if (vanished) return;
    EXPECT_TRUE(deliveries_.empty());  // before its wait
    EXPECT_EQ(response.success(), mine && mine->state == TASK_MIRROR_STARTED);
    EXPECT_EQ(response.has_init_snapshot_resp(), response.success());
    EXPECT_EQ(response.init_snapshot_resp().task_id(), response.success() ? key : "");
    if (mine) expect_logged_last(response.success() ? 220 : 224, key);
    // Also one that has taken its place meanwhile.
    if (mine && !response.success()) model_.handshakes.erase(key);
  }

  void mirror_done() {
    const std::string& key = operand(kKeys);
    call(&PluginServerCtrl::handle_cmd_mirror_done, test::mirror_done(key),
         [&] { return model_.mirror_done(key); });
  }

  void wait_for_depart() {
    const std::string& key = operand(kKeys);
    const auto mine = model_.find(key);
    const auto departs = [&] { return mine && mine->state == TASK_DEPART_STARTED; };
    call(&PluginServerCtrl::handle_cmd_wait_for_depart, test::wait_for_depart(key), departs);
    if (mine) expect_logged_last(departs() ? 264 : 267, key);
  }

  void depart_done() {
    const std::string& key = operand(kKeys);
    const PluginCmd request = numbered(test::depart_done(key));
    const auto unnamed = model_.hosts.find("");
    if (model_.find(key) && unnamed != model_.hosts.end()) deliver(*unnamed->second, request);
    model_.handshakes.erase(key);
    call(&PluginServerCtrl::handle_cmd_depart_done, request, [] { return true; });
    take_deliveries();
  }

  static void expect_logged_last(int number, const std::string& key) {
    EXPECT_EQ(test::captured_syslog().lines().back(), test::line(number, key));
  }

  // --- The host plugins ---

  void start_mirror() {
    const std::string& key = operand(kKeys);
    call(&PluginServerCtrl::handle_cmd_start_mirror, test::start_mirror(key),
         [&] { return model_.move(key, TASK_MIRROR_STARTED); });
  }

  void depart_relation() {
    const std::string& key = operand(kKeys);
    call(&PluginServerCtrl::handle_cmd_depart_relation, test::depart_relation(key),
         [&] { return model_.move(key, TASK_DEPART_STARTED); });
  }

  void is_mirror_done() {
    const std::string& key = operand(kKeys);
    const LunType type = operand(kTypes);
    call(&PluginServerCtrl::handle_cmd_is_mirror_done, test::is_mirror_done(key, type),
         [&] { return model_.is_mirror_done(key, type); });
  }

  void is_lun_support() {
    const std::string& key = operand(kKeys);
    const LunType type = operand(kTypes);
    call(&PluginServerCtrl::handle_cmd_is_lun_support, test::is_lun_support(key, type),
         [&] { return model_.is_lun_support(key, type); });
  }

  // A call that answers with a verdict alone. `expected` is asked after the call.
  template <typename Request, typename Response>
  void call(void (PluginServerCtrl::*handler)(const Request&, Response*), const Request& request,
            const std::function<bool()>& expected) {
    Response response;
    const auto outer = std::exchange(deadline_, the_time().now + 60s);
    (ctrl_.*handler)(request, &response);
    deadline_ = outer;
    EXPECT_EQ(response.success(), expected()) << request.ShortDebugString();
    response.clear_success();
    EXPECT_EQ(response.ByteSizeLong(), 0U);
  }

  // --- The machine ---

  void pass_time() { the_time().now += operand(kSpans); }
  void change_what_loads_do() { test::the_conf().fails = !test::the_conf().fails; }

  // --- Waits and deliveries ---

  bool during_a_wait(time_point deadline) {
    EXPECT_EQ(deadline, deadline_);
    take_deliveries();
    return step();
  }

  PluginCmd numbered(PluginCmd cmd) {
    cmd.set_cmd_sn(++cmd_sn_);
    return cmd;
  }

  // Notes which hosts must get an announcement, in the registry's own order, up to the first that
  // has vanished. Returns that one.
  host* announce(PluginCmd cmd) {
    cmd.set_task_id(cmd.init_snapshot_req().src_lun_p80());
    const mutex_lock lock(ctrl_.client_mutex);
    for (const auto& [plugin_id, client] : ctrl_.client_map) {
      host& next = *model_.hosts.at(plugin_id);
      next.call.told = 0;
      if (next.call.cancelled) return &next;
      deliver(next, cmd);
    }
    return nullptr;
  }

  void deliver(const host& to, const PluginCmd& cmd) {
    if (to.ip != "Unknown") deliveries_.emplace_back(to.stream, cmd);
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
  time_point deadline_;  // of the call at work, which may be inside the wait of another
  static inline std::uint32_t cmd_sn_ = 0;  // different in all scripts of the process
};

}  // namespace
}  // namespace vexo::fuzz

// What libFuzzer, or replay.cpp, calls: once before all else, and for each input.
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
