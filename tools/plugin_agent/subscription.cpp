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
    attempt ended;
    try {
      ended = subscribe_once();
    } catch (const std::exception& error) {
      ended.text = std::string("not subscribed: ") + error.what();  // no thread, or no descriptor
      ended.how = backoff::ending::turned_away;
    }
    state_.fails(ended.text);
    if (stop_.raised()) return;
    comes_back_ = ended.how != backoff::ending::turned_away;
    const auto wait = backoff_.next(ended.how, ended.held);
    report(ended, wait);
    if (pause(wait)) return;
  }
}

void subscription::report(const attempt& ended, milliseconds wait) {
  constexpr std::chrono::minutes kAgain{1};
  const auto now = steady_clock::now();
  const bool is_said = ended.text == reported_ && now < reported_at_ + kAgain;
  if (!is_said) {
    reported_ = ended.text;
    reported_at_ = now;
  }
  agent_log().log(is_said ? spdlog::level::debug : spdlog::level::warn,
                  "{}; subscribing again in {:.1f} s", printable(ended.text),
                  std::chrono::duration<double>(wait).count());
}

subscription::attempt subscription::subscribe_once() {
  using ending = backoff::ending;
  try {
    appliance_->connect(stop_);
  } catch (const std::runtime_error& error) {
    return {.text = error.what(), .how = ending::unreachable};
  }
  const auto start = steady_clock::now();
  const auto attempt_until_now = [&](std::string text, ending how) -> attempt {
    return {std::move(text), how,
            std::chrono::duration_cast<milliseconds>(steady_clock::now() - start)};
  };
  const std::string name = appliance_->name();
  const auto stub = appliance_->stub();
  subscribe_call call(*stub, self_, kCallTimeout, receive_, [this](const grpc::Status& status) {
    if (!status.ok()) appliance_->lost();
  });
  if (!confirm(call)) {
    call.leave();
    return attempt_until_now("connected to " + name +
                                 ", which does not list this host: somebody unsubscribed it in "
                                 "the instant in which it subscribed",
                             ending::turned_away);
  }
  while (!wait_for(stop_, call.ended(), std::chrono::hours(1))) {
  }
  if (stop_.raised()) {
    leave(call);
    return {};
  }
  if (!call.status().ok()) {
    return attempt_until_now("not subscribed to " + name + ": " + status_text(call.status()),
                             call.status().error_code() == grpc::StatusCode::UNAVAILABLE
                                 ? ending::disconnected
                                 : ending::turned_away);
  }
  return attempt_until_now(
      "the subscription to " + name + " was ended there: another plugin subscribed as \"" +
          self_.plugin_id() + "\", or somebody unsubscribed it (give each agent a " +
          "--plugin-id of its own)",
      ending::turned_away);
}

bool subscription::confirm(subscribe_call& call) {
  if (comes_back_) {
    state_.fails("it is subscribing, and asks within a minute whether it is listed");
    agent_log().info(
        "connected to {} and subscribing as \"{}\"; asking within a minute whether it is listed",
        printable(appliance_->name()), printable(self_.plugin_id()));
    if (wait_for(stop_, call.ended(), backoff_.until_list_check())) return true;
  }
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
