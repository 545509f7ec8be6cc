#include "plugin_agent/subscription.h"

#include <exception>
#include <utility>

#include "common/channel.h"
#include "common/errors.h"
#include "common/text.h"
#include "plugin_agent/agent_log.h"

namespace vexo::tools {

using scsiplugin::PluginClient;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

// How long a daemon that answers may take to list a host that has just subscribed.
constexpr milliseconds kListedWithin{2000};
// How often to ask a daemon that does not answer. Each unanswered call occupies a thread of it.
constexpr int kListTries = 4;

}  // namespace

subscription::subscription(std::shared_ptr<appliance> where, PluginClient self,
                           subscribe_call::on_command receive)
    : appliance_(std::move(where)),
      self_(std::move(self)),
      receive_(std::move(receive)),
      thread_(&subscription::run, this) {}

subscription::~subscription() {
  begin_to_leave();
  thread_.join();
}

void subscription::run() {
  for (;;) {
    const auto start = steady_clock::now();
    std::string how_it_ended;
    try {
      how_it_ended = subscribe_once();
    } catch (const std::exception& error) {
      how_it_ended = std::string("not subscribed: ") + error.what();  // no thread, or no descriptor
    }
    state_.fails(how_it_ended);
    if (stop_.raised()) return;
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
  const auto stub = appliance_->stub();
  subscribe_call call(*stub, self_, kCallTimeout, receive_, [this](const grpc::Status& status) {
    if (!status.ok()) appliance_->count_loss();
  });
  if (!confirm(call)) {
    call.leave();
    return "connected to " + name +
           ", which does not list this host: somebody unsubscribed it in "
           "the instant in which it subscribed";
  }
  while (!wait_for(stop_, call.ended(), std::chrono::hours(1))) {
  }
  if (stop_.raised()) {
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

bool subscription::confirm(subscribe_call& call) {
  listing found;
  int tries = 0;
  do {
    found = call.confirm(kListedWithin, &stop_);
  } while (!found.status.ok() && ++tries < kListTries && !stop_.raised() && !call.ended().raised());
  if (found.entry) {
    state_.stands(found.entry->ip());
    agent_log().info("subscribed to {} as \"{}\", seen there as {}", printable(appliance_->name()),
                     printable(self_.plugin_id()), printable(found.entry->ip()));
    return true;
  }
  if (stop_.raised() || call.ended().raised()) return true;
  if (found.status.ok()) return false;
  state_.fails("it does not say whether it lists this host: " + status_text(found.status));
  agent_log().warn(
      "subscribing to {}, but it does not list this host ({}); its daemon may be stuck "
      "on a vanished subscriber: see \"plugin_ctl probe\" there",
      printable(appliance_->name()), printable(status_text(found.status)));
  return true;
}

void subscription::leave(subscribe_call& call) {
  const grpc::Status status = call.leave();
  if (status.ok()) {
    agent_log().info("unsubscribed from {}", printable(appliance_->name()));
  } else {
    agent_log().warn("left {} without being able to unsubscribe: {}", printable(appliance_->name()),
                     printable(status_text(status)));
  }
}

}  // namespace vexo::tools
