#include "common/subscribe_call.h"

#include <algorithm>
#include <utility>

namespace vexo::tools {

using scsiplugin::PluginClient;
using scsiplugin::PluginClientList;
using scsiplugin::PluginCmd;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

// The daemon registers a subscriber a moment after the call has reached it. Each pause before a
// look at its list is this many times as long as the one before.
constexpr milliseconds kFirstPause{20};
constexpr int kPauseGrowth = 4;
// The daemon ends the stream at once when it hears an UnSubscribe, unless it loses the wake-up.
constexpr milliseconds kStreamEnd = std::chrono::seconds(1);

}  // namespace

listing find_listed(service_stub& stub, const std::string& plugin_id, milliseconds timeout) {
  grpc::ClientContext context;
  set_timeout(context, timeout);
  PluginClientList list;
  listing found;
  found.status = stub.PluginConnList(&context, google::protobuf::Empty(), &list);
  const auto entry =
      std::find_if(list.list().begin(), list.list().end(),
                   [&](const PluginClient& each) { return each.plugin_id() == plugin_id; });
  if (entry != list.list().end()) found.entry = *entry;
  return found;
}

subscribe_call::subscribe_call(service_stub& stub, PluginClient self, milliseconds timeout,
                               on_command receive, on_end end)
    : stub_(stub),
      self_(std::move(self)),
      timeout_(timeout),
      reader_([this, receive = std::move(receive), end = std::move(end)] {
        const auto stream = stub_.Subscribe(&context_, self_);
        PluginCmd command;
        while (stream->Read(&command)) receive(command);
        status_ = stream->Finish();
        if (end) end(status_);
        ended_.raise();
      }) {}

subscribe_call::~subscribe_call() {
  context_.TryCancel();
  if (reader_.joinable()) reader_.join();
}

const grpc::Status& subscribe_call::status() {
  if (reader_.joinable()) reader_.join();
  return status_;
}

listing subscribe_call::confirm(milliseconds patience, const event* stop) {
  const auto deadline = steady_clock::now() + patience;
  listing found;
  for (milliseconds pause = kFirstPause;; pause *= kPauseGrowth) {
    const auto time = std::min<steady_clock::duration>(pause, deadline - steady_clock::now());
    if (wait_for(ended_, stop != nullptr ? *stop : ended_, time)) return found;
    found = find_listed(stub_, self_.plugin_id(), timeout_);
    if (found.entry || steady_clock::now() >= deadline) return found;
  }
}

// The daemon must forget the subscription before the call is cancelled: it never recovers from a
// broadcast to a subscriber that has vanished. An UnSubscribe that it handles before the Subscribe,
// or in the instant in which it loses the wake-up, does not end the stream. So the wait for the end
// has a limit; then the call is cancelled, and a second UnSubscribe removes what is still
// registered.
grpc::Status subscribe_call::leave() {
  grpc::Status result = unsubscribe();
  if (!wait_for(ended_, ended_, result.ok() ? kStreamEnd : milliseconds(0))) {
    context_.TryCancel();
    result = unsubscribe();
  }
  status();
  return result;
}

grpc::Status subscribe_call::unsubscribe() {
  grpc::ClientContext context;
  set_timeout(context, timeout_);
  google::protobuf::Empty response;
  return stub_.UnSubscribe(&context, self_, &response);
}

}  // namespace vexo::tools
