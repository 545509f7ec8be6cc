#ifndef TOOLS_PLUGIN_AGENT_CHECKS_H_
#define TOOLS_PLUGIN_AGENT_CHECKS_H_

#include <string>
#include <vector>

#include "agent_report.pb.h"
#include "common/event.h"
#include "plugin_agent/options.h"

namespace vexo::tools {

// What a check has found, line by line. One thread at a time.
class findings {
 public:
  void ok(const std::string& what, const std::string& found);
  // `next`: what to do.
  void warn(const std::string& what, const std::string& found, const std::string& next);
  void fail(const std::string& what, const std::string& found, const std::string& next);
  void add(const findings& more) { all_.insert(all_.end(), more.all_.begin(), more.all_.end()); }
  const std::vector<CheckReport::Check>& all() const { return all_; }

 private:
  void note(CheckReport::Check::Result result, const std::string& what, const std::string& found,
            const std::string& next);

  std::vector<CheckReport::Check> all_;
};

// What can be found out on this host. Creates the run directory, as the agent does.
void check_host(const agent_options& options, findings& found);

// What one appliance says; `stop` ends the attempt to connect.
struct appliance_findings {
  findings found;
  std::string name;
  bool answers = false;
  std::vector<std::string> supported;  // of options.luns
};
appliance_findings check_appliance(const agent_options& options, const endpoint& where,
                                   const event& stop);

// Of each LUN, whether an appliance knows it and whether it is a disk of this host.
void check_luns(const agent_options& options, const std::vector<appliance_findings>& appliances,
                findings& found);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_CHECKS_H_
