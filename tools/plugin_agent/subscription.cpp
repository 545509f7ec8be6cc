#include "plugin_agent/subscription.h"

#include <exception>
#include <utility>

#include "common/channel.h"
#include "common/errors.h"
#include "common/text.h"
#include "plugin_agent/agent_log.h"

namespace vexo::tools {

using scsiplugin::PluginClient;
using scsiplugin::PluginClientList;
using scsiplugin::PluginCmd;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

// The daemon registers a subscriber a moment after the call has reached it.
constexpr milliseconds kConfirmTimes[] = {milliseconds(20), milliseconds(100), milliseconds(400),
                                          milliseconds(1500)};
// The daemon ends the stream at once when it hears an UnSubscribe, unless it loses the wake-up.
constexpr milliseconds kStreamEnd = std::chrono::seconds(1);

}  // namespace

// On a thread of its own, since reading blocks.
class subscription::stream {
 public:
  stream(std::shared_ptr<appliance> where, const PluginClient& self, const on_command& receive)
      : appliance_(std::move(where)),
        stub_(appliance_->stub()),
        thread_(&stream::read_all, this, self, receive) {}
  // Cancels the call if it has not ended.
  ~stream() {
    cancel();
    if (thread_.joinable()) thread_.join();
  }
  stream(const stream&) = delete;
  stream& operator=(const stream&) = delete;

  void cancel() { context_.TryCancel(); }
  // How the call ended; blocks until it has.
  const grpc::Status& status() {
    if (thread_.joinable()) thread_.join();
    return status_;
  }

  event ended;

 private:
  void read_all(const PluginClient& self, const on_command& receive) {
    const auto reader = stub_->Subscribe(&context_, self);
    PluginCmd command;
    while (reader->Read(&command)) receive(command);
    status_ = reader->Finish();
    if (!status_.ok()) appliance_->count_loss();
    ended.raise();
  }

  const std::shared_ptr<appliance> appliance_;
  const std::shared_ptr<scsiplugin::PluginService::Stub> stub_;
  grpc::ClientContext context_;
  grpc::Status status_;
  std::thread thread_;
};

subscription::subscription(std::shared_ptr<appliance> where, PluginClient self, on_command receive)
    : appliance_(std::move(where)),
      self_(std::move(self)),
      receive_(std::move(receive)),
      thread_(&subscription::run, this) {}

subscription::~subscription() {
  begin_to_leave();
  thread_.join();
}

bool subscription::pause(milliseconds time) const { return wait_for(stop_, stop_, time); }

void subscription::run() {
  for (;;) {
    const auto start = steady_clock::now();
    std::string how_it_ended;
    try {
      how_it_ended = subscribe_once();
    } catch (const std::exception& error) {
      how_it_ended = std::string("not subscribed: ") + error.what();  // no thread, or no descriptor
    }
    if (pause(milliseconds(0))) return;
    const auto wait =
        backoff_.next(std::chrono::duration_cast<milliseconds>(steady_clock::now() - start));
    agent_log().warn("{}; subscribing again in {:.1f} s", printable(how_it_ended),
                     std::chrono::duration<double>(wait).count());
    if (pause(wait)) return;
  }
}

std::string subscription::subscribe_once() {
  try {
    appliance_->connect();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  const std::string name = appliance_->name();
  stream call(appliance_, self_, receive_);
  if (!wait_for(stop_, call.ended, kConfirmTimes[0]) && !confirm(call)) {
    drop(call);
    return "connected to " + name +
           ", which does not list this host: somebody unsubscribed it in "
           "the instant in which it subscribed";
  }
  while (!wait_for(stop_, call.ended, std::chrono::hours(1))) {
  }
  if (pause(milliseconds(0))) {
    leave(call);
    return {};
  }
  if (!call.status().ok()) {
    return "not subscribed to " + name + ": " + status_text(call.status());
  }
  return "the subscription to " + name + " was ended there: another plugin subscribed as \"" +
         self_.plugin_id() + "\", or somebody unsubscribed it (give each agent a " +
         "--plugin-id of its own)";
}

bool subscription::confirm(const stream& call) {
  grpc::Status status;
  for (const auto pause_before_next : kConfirmTimes) {
    grpc::ClientContext context;
    set_timeout(context, kCallTimeout);
    PluginClientList list;
    status = appliance_->stub()->PluginConnList(&context, google::protobuf::Empty(), &list);
    for (const auto& listed : list.list()) {
      if (listed.plugin_id() != self_.plugin_id()) continue;
      agent_log().info("subscribed to {} as \"{}\", seen there as {}",
                       printable(appliance_->name()), printable(self_.plugin_id()),
                       printable(listed.ip()));
      return true;
    }
    if (wait_for(stop_, call.ended, pause_before_next)) return true;
  }
  if (status.ok()) return false;
  agent_log().warn(
      "subscribing to {}, but it does not list this host ({}); its daemon may be stuck "
      "on a vanished subscriber: see \"plugin_ctl probe\" there",
      printable(appliance_->name()), printable(status_text(status)));
  return true;
}

// Registered it may be all the same, or be in a moment, and must not stay so as a vanished one.
void subscription::drop(stream& call) {
  unsubscribe();
  call.cancel();
  unsubscribe();
}

// The daemon must forget the subscription before the call is cancelled: it never recovers from a
// broadcast to a subscriber that has vanished. It can hear the UnSubscribe before it has taken in
// the Subscribe, or in the instant in which the wake-up is lost, so the stream's end is not waited
// for without limit, and then it is told again.
void subscription::leave(stream& call) {
  const event never;
  grpc::Status status = unsubscribe();
  if (!wait_for(call.ended, never, status.ok() ? kStreamEnd : milliseconds(0))) {
    call.cancel();
    status = unsubscribe();
    wait_for(call.ended, never, std::chrono::hours(1));
  }
  if (status.ok()) {
    agent_log().info("unsubscribed from {}", printable(appliance_->name()));
  } else {
    agent_log().warn("left {} without being able to unsubscribe: {}", printable(appliance_->name()),
                     printable(status_text(status)));
  }
}

grpc::Status subscription::unsubscribe() {
  grpc::ClientContext context;
  set_timeout(context, kCallTimeout);
  google::protobuf::Empty response;
  return appliance_->stub()->UnSubscribe(&context, self_, &response);
}

}  // namespace vexo::tools
