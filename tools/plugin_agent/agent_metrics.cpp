#include "plugin_agent/agent_metrics.h"

#include <chrono>
#include <ctime>

namespace vexo::tools {

void agent_metrics::count(const HandshakeRecord& record) {
  ++verdicts_[record.verdict()];
  if (record.verdict() != "failed") last_success_ = static_cast<double>(std::time(nullptr));
  if (record.frozen_ms() == 0) return;
  const std::chrono::milliseconds frozen(record.frozen_ms());
  frozen_seconds_.observe(std::chrono::duration<double>(frozen).count());
}

metrics_page agent_metrics::page(const std::map<std::string, bool>& subscribed) const {
  using type = metrics_page::type;
  metrics_page page;
  page.family("scsi_plugin_agent_subscribed", type::gauge,
              "Whether the appliance lists this host.");
  for (const auto& [appliance, listed] : subscribed) {
    page.sample(listed ? 1 : 0, {{"appliance", appliance}});
  }
  page.family("scsi_plugin_agent_handshakes_total", type::counter,
              "Handshakes of snapshots that are over, by verdict.");
  for (const auto& [verdict, count] : verdicts_) page.sample(count, {{"verdict", verdict}});
  page.family("scsi_plugin_agent_frozen_seconds", type::histogram,
              "How long this host was at rest for each handshake.");
  page.samples(frozen_seconds_);
  if (last_success_) {
    page.family("scsi_plugin_agent_last_success_timestamp_seconds", type::gauge,
                "When a handshake has last ended with another verdict than failed.");
    page.sample(*last_success_);
  }
  return page;
}

}  // namespace vexo::tools
