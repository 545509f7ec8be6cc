#include "snapshot_hosts.h"

#include <algorithm>
#include <utility>

namespace vexo::tools {

using google::protobuf::Empty;
using scsiplugin::PluginClientList;

namespace {

bool contains(const PluginClientList& all, const std::string& id) {
  return std::any_of(all.list().begin(), all.list().end(),
                     [&](const auto& host) { return host.plugin_id() == id; });
}

}  // namespace

void snapshot_hosts::look_before_announcement() {
  before_ = look(with_.limits().timeout);
  require_all(before_);
}

void snapshot_hosts::require_all_still_listed() {
  if (!required_.empty()) require_all(look(kLookTime));
}

std::string snapshot_hosts::listed_text() const {
  if (!before_) return "not known";
  if (before_->list().empty()) return "nobody";
  std::string text;
  for (const auto& host : before_->list()) {
    text += (text.empty() ? "" : ", ") + host.plugin_id() + " (" + host.ip() + ")";
  }
  return text;
}

void snapshot_hosts::report(SnapshotVerdict& verdict) {
  if (!before_ || before_->list().empty()) return;
  const auto now = look(kLookTime);
  for (const auto& host : before_->list()) {
    verdict.add_hosts(host.plugin_id());
    if (now && !contains(*now, host.plugin_id())) verdict.add_lost_hosts(host.plugin_id());
  }
}

std::optional<PluginClientList> snapshot_hosts::look(std::chrono::milliseconds limit) {
  call_options options = with_.limits();
  options.timeout = std::min(options.timeout, limit);
  auto list = call<Empty, PluginClientList>(with_.stub(), &service_stub::PluginConnList, Empty(),
                                            with_.stop, options);
  if (!list.answered()) return std::nullopt;
  return std::move(list.response);
}

void snapshot_hosts::require_all(const std::optional<PluginClientList>& listed) const {
  for (const auto& host : required_) {
    if (listed && contains(*listed, host)) continue;
    throw tool_error({exit_code::refused, "PluginConnList at " + with_.where.text,
                      listed ? "the host " + host + " is not listed" : "no list in time",
                      "see `plugin_ctl list` and the log of that host's plugin"});
  }
}

}  // namespace vexo::tools
