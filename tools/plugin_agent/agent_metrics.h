#ifndef TOOLS_PLUGIN_AGENT_AGENT_METRICS_H_
#define TOOLS_PLUGIN_AGENT_AGENT_METRICS_H_

#include <map>
#include <optional>
#include <string>

#include "common/metrics.h"
#include "handshake_record.pb.h"

namespace vexo::tools {

// Counts the handshakes of one agent, for --metrics. To be used by one thread.
class agent_metrics {
 public:
  // To be called for each handshake, when it has its verdict.
  void count(const HandshakeRecord& record);

  // All metrics. `subscribed`: for each appliance, named as the user wrote it, whether it lists
  // this host.
  metrics_page page(const std::map<std::string, bool>& subscribed) const;

 private:
  std::map<std::string, unsigned> verdicts_ = {{"application-consistent", 0},
                                               {"filesystem-consistent", 0},
                                               {"crash-consistent", 0},
                                               {"failed", 0}};
  histogram frozen_seconds_{{0.1, 0.25, 0.5, 1, 2, 5, 10, 20, 30, 60}};
  std::optional<double> last_success_;  // seconds since 1970
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_AGENT_METRICS_H_
