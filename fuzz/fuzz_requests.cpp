// The bytes of one request, parsed as gRPC parses them, into its handler of the service.
//
// An input begins with three characters, and the rest is the message:
//   method   S Subscribe, U UnSubscribe, L LunOp, P Publish, C PluginConnList
//   state    of the hand-shake under the key that the message names: 0, 2, 3, 4; otherwise none
//   answer   a: a wait for a host is answered; otherwise it lasts its minute
// Two hosts are subscribed, "host" and "". Waits take no time: see virtual_time.h.

#include <google/protobuf/stubs/logging.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>

#include "calls.h"
#include "captured_syslog.h"
#include "command_streams.h"
#include "fake_call.h"
#include "fake_conf.h"
#include "inventory.h"
#include "plugin_service_impl.h"
#include "target.h"
#include "virtual_time.h"

namespace vexo::fuzz {
namespace {

using namespace scsiplugin;

constexpr char kPeer[] = "ipv4:10.0.0.9:4711";

// The message that a call brings, in two slices; empty when gRPC would reject it.
template <typename Message>
std::optional<Message> parse(const std::string& bytes) {
  const std::size_t half = bytes.size() / 2;
  const grpc::Slice slices[] = {grpc::Slice(bytes.data(), half),
                                grpc::Slice(bytes.data() + half, bytes.size() - half)};
  grpc::ByteBuffer buffer(slices, std::size(slices));
  Message message;
  if (!grpc::SerializationTraits<Message>::Deserialize(&buffer, &message).ok()) return std::nullopt;
  return message;
}

template <typename Message>
void expect_sendable(const Message& message) {
  grpc::ByteBuffer buffer;
  bool own_buffer = false;
  EXPECT_TRUE(grpc::SerializationTraits<Message>::Serialize(message, &buffer, &own_buffer).ok());
  Message received;
  EXPECT_TRUE(grpc::SerializationTraits<Message>::Deserialize(&buffer, &received).ok());
  EXPECT_EQ(received.SerializeAsString(), message.SerializeAsString());
}

std::string key_of(const LunCmd& cmd) {
  switch (cmd.cmd_body_case()) {
    case LunCmd::kStartMirrorReq:
      return cmd.start_mirror_req().src_lun_id();
    case LunCmd::kIsMirrorDoneReq:
      return cmd.is_mirror_done_req().src_lun_id();
    default:
      return cmd.depart_relation_req().src_lun_id();
  }
}

std::string key_of(const PluginCmd& cmd) {
  return cmd.has_init_snapshot_req() ? cmd.init_snapshot_req().src_lun_p80() : cmd.task_id();
}

// The service with two hosts, as each input finds it.
class service_under_test {
 public:
  service_under_test(char state, bool answered)
      : state_(static_cast<std::uint32_t>(state - '0')), answered_(answered) {
    g_plugin_server_ctrl = std::make_shared<PluginServerCtrl>();
    host_.set_plugin_id("host");
    for (const PluginClient* request : {&host_, &unnamed_}) {
      ctrl().add_client(std::make_shared<plugin_client>(&context_, request, streams().writer(0)));
    }
    test::the_conf().reset();
    test::the_conf().set(kInventory);
    test::captured_syslog().clear();
    the_time().reset();
  }

  ~service_under_test() {
    EXPECT_EQ(test::the_conf().records_alive(), 0);
    EXPECT_EQ(test::the_conf().loads(), test::the_conf().frees());
    for (const auto& line : test::captured_syslog().lines()) {
      EXPECT_TRUE(line.text.starts_with("scsi_plugin:")) << line.text;
    }
    EXPECT_TRUE(ctrl().client_mutex.try_lock());
    EXPECT_TRUE(ctrl().task_mutex.try_lock());
    ctrl().client_mutex.unlock();
    ctrl().task_mutex.unlock();
  }

  service_under_test(const service_under_test&) = delete;
  service_under_test& operator=(const service_under_test&) = delete;

  void subscribe(const PluginClient& request) {
    bool waited = false;
    the_time().meanwhile = [&] {
      waited = true;
      const auto client = ctrl().get_client(request);
      EXPECT_TRUE(client && client->request == &request);
      push(*client);
      unsubscribe(request);
      const mutex_lock lock(client->write_mutex);
      EXPECT_FALSE(client->running);
      return true;
    };
    EXPECT_TRUE(service_.Subscribe(&context_, &request, streams().writer(0)).ok());
    EXPECT_TRUE(waited);
    expect_logged_once("scsi_plugin:plugin_service_impl:32:Subscribe Connected: ");
    expect_logged_once("scsi_plugin:plugin_service_impl:37:Subscribe Disconnect: ");
  }

  void unsubscribe(const PluginClient& request) {
    google::protobuf::Empty response;
    EXPECT_TRUE(service_.UnSubscribe(&context_, &request, &response).ok());
    EXPECT_EQ(ctrl().get_client(request), nullptr);
  }

  void lun_op(const LunCmd& request) {
    constexpr int kHandled = 1 << 4 | 1 << 5 | 1 << 6 | 1 << 10;  // by number of the oneof's field
    prepare(key_of(request));
    LunCmdResp response;
    const grpc::Status status = service_.LunOp(&context_, &request, &response);
    expect_status(status, (kHandled & 1 << request.cmd_body_case()) != 0);
    expect_sendable(response);
    response.clear_success();
    EXPECT_EQ(response.ByteSizeLong(), 0U) << response.ShortDebugString();
  }

  void publish(const PluginCmd& request) {
    const std::string key = key_of(request);
    prepare(key);
    std::size_t announced = 0;
    the_time().meanwhile = [&] {
      if (request.has_init_snapshot_req() && announced == 0) {
        for (; announced < 2; ++announced) EXPECT_EQ(streams().read(0).task_id(), key);
      }
      if (!answered_) return false;
      LunCmdResp response;
      const LunCmd answer =
          request.has_init_snapshot_req() ? test::start_mirror(key) : test::depart_relation(key);
      EXPECT_TRUE(service_.LunOp(&context_, &answer, &response).ok());
      return true;
    };
    PluginCmdResp response;
    const grpc::Status status = service_.Publish(&context_, &request, &response);
    expect_status(status, request.cmd_body_case() != PluginCmd::CMD_BODY_NOT_SET);
    expect_sendable(response);
    if (request.has_depart_done_req() && prepared_) {
      EXPECT_EQ(streams().read(0).SerializeAsString(), request.SerializeAsString());
    }
    if (response.success() && request.has_init_snapshot_req()) {
      EXPECT_EQ(response.init_snapshot_resp().task_id(), key);
      response.clear_init_snapshot_resp();
    }
    response.clear_success();
    EXPECT_EQ(response.ByteSizeLong(), 0U) << response.ShortDebugString();
  }

  void list(const google::protobuf::Empty& request) {
    PluginClientList response;
    EXPECT_TRUE(service_.PluginConnList(&context_, &request, &response).ok());
    EXPECT_EQ(response.list_size(), 2);
    expect_sendable(response);
  }

 private:
  static PluginServerCtrl& ctrl() { return *g_plugin_server_ctrl; }

  static command_streams& streams() {
    static command_streams one(1);
    return one;
  }

  // By its beginning, since an identifier may hold any text, that of a log line too.
  static void expect_logged_once(const char* start) {
    const auto lines = test::captured_syslog().lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [=](const auto& line) { return line.text.starts_with(start); }),
              1)
        << start;
  }

  static void push(plugin_client& client) {
    static std::uint32_t number = 0;
    PluginCmd cmd;
    cmd.set_cmd_sn(++number);
    client.push_cmd(cmd);
    EXPECT_EQ(streams().read(0).cmd_sn(), number);
  }

  void prepare(const std::string& key) {
    prepared_ =
        state_ == TASK_CREATED || (state_ >= TASK_MIRROR_STARTED && state_ <= TASK_DEPART_STARTED);
    if (!prepared_) return;
    EXPECT_TRUE(ctrl().add_task(key));
    ctrl().find_task(key)->set_state(static_cast<task_state>(state_));
  }

  static void expect_status(const grpc::Status& status, bool handled) {
    EXPECT_EQ(status.error_code(), handled ? grpc::OK : grpc::CANCELLED);
    EXPECT_EQ(status.error_message(), "");
  }

  std::uint32_t state_;
  bool answered_;
  bool prepared_ = false;
  fake_call context_{kPeer};
  PluginClient host_;
  PluginClient unnamed_;
  PluginServiceImpl service_;
};

void run(char method, char state, char answer, const std::string& bytes) {
  service_under_test service(state, answer == 'a');
  switch (method) {
    case 'S':
      if (const auto request = parse<PluginClient>(bytes)) service.subscribe(*request);
      break;
    case 'U':
      if (const auto request = parse<PluginClient>(bytes)) service.unsubscribe(*request);
      break;
    case 'L':
      if (const auto request = parse<LunCmd>(bytes)) service.lun_op(*request);
      break;
    case 'P':
      if (const auto request = parse<PluginCmd>(bytes)) service.publish(*request);
      break;
    case 'C':
      if (const auto request = parse<google::protobuf::Empty>(bytes)) service.list(*request);
      break;
    default:
      break;
  }
}

}  // namespace
}  // namespace vexo::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kHeader = 3;
  if (size < kHeader) return 0;
  // Which reports every string that is no UTF-8.
  static auto* const silenced = google::protobuf::SetLogHandler(nullptr);
  static_cast<void>(silenced);
  const std::string input(reinterpret_cast<const char*>(data), size);
  vexo::fuzz::run(input[0], input[1], input[2], input.substr(kHeader));
  return 0;
}
