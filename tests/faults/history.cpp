#include "history.h"

#include <utility>

namespace vexo::test {

using scsiplugin::PluginCmd;

const char* name_of(operation what) {
  switch (what) {
    case operation::init_snapshot:
      return "init_snapshot";
    case operation::mirror_done:
      return "mirror_done";
    case operation::wait_for_depart:
      return "wait_for_depart";
    case operation::depart_done:
      return "depart_done";
    case operation::start_mirror:
      return "start_mirror";
    case operation::is_mirror_done:
      return "is_mirror_done";
    case operation::depart_relation:
      return "depart_relation";
  }
  return "?";
}

moment history::now() const {
  const std::chrono::nanoseconds at = std::chrono::steady_clock::now().time_since_epoch();
  return {at, at + std::chrono::nanoseconds(step_)};
}

void history::add(recorded_call call) {
  const std::lock_guard lock(mutex_);
  events_.calls.push_back(std::move(call));
}

void history::add(const std::string& stream, const std::string& plugin_id,
                  const PluginCmd& message) {
  // Only these two are ever pushed; anything else is then a message without a cause.
  const auto what = message.has_init_snapshot_req() ? operation::init_snapshot
                    : message.has_depart_done_req() ? operation::depart_done
                                                    : operation::start_mirror;
  const moment at = now();
  const std::lock_guard lock(mutex_);
  events_.messages.push_back({stream, plugin_id, what, message.task_id(), message.cmd_sn(), at});
}

std::size_t history::subscribing() {
  const moment begin = now();
  const std::lock_guard lock(mutex_);
  events_.subscriptions.push_back({begin, std::nullopt, std::nullopt});
  return events_.subscriptions.size() - 1;
}

void history::listed(std::size_t subscription) {
  const std::lock_guard lock(mutex_);
  events_.subscriptions.at(subscription).listed = now();
}

void history::leaving(std::size_t subscription) {
  const std::lock_guard lock(mutex_);
  events_.subscriptions.at(subscription).leaving = now();
}

recorded_events history::events() const {
  const std::lock_guard lock(mutex_);
  return events_;
}

void history::drop_past() {
  const std::lock_guard lock(mutex_);
  events_.calls.clear();
  events_.messages.clear();
}

void history::clear() {
  const std::lock_guard lock(mutex_);
  events_ = {};
}

}  // namespace vexo::test
