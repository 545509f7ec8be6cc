#ifndef TOOLS_PLUGIN_CTL_SNAPSHOT_HOSTS_H_
#define TOOLS_PLUGIN_CTL_SNAPSHOT_HOSTS_H_

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "report.pb.h"
#include "session.h"

namespace vexo::tools {

// Which hosts the daemon lists during one snapshot: whether those that the user requires (--host)
// are among them, and which of them are lost before its end.
class snapshot_hosts {
 public:
  snapshot_hosts(session& with, std::vector<std::string> required)
      : with_(with), required_(std::move(required)) {}

  // Asks which hosts are listed, just before the announcement. A daemon that does not answer in
  // time leaves that unknown. Throws tool_error when a required host is not known to be listed.
  void look_before_announcement();
  // Asks again, at most for kLookTime, because the hosts are at rest meanwhile. Throws as above.
  void require_all_still_listed();

  // Of the first look:
  bool nobody_was_listed() const { return before_ && before_->list().empty(); }
  // "esx-7 (10.0.0.7), esx-8 (10.0.0.8)", "nobody" or "not known".
  std::string listed_text() const;

  // Fills in the hosts of the first look, and those of them that a third look no longer finds.
  void report(SnapshotVerdict& verdict);

 private:
  static constexpr std::chrono::milliseconds kLookTime{2000};

  // Empty when there is no answer within `limit` or within a call's usual time.
  std::optional<scsiplugin::PluginClientList> look(std::chrono::milliseconds limit);
  void require_all(const std::optional<scsiplugin::PluginClientList>& listed) const;

  session& with_;
  const std::vector<std::string> required_;
  std::optional<scsiplugin::PluginClientList> before_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_SNAPSHOT_HOSTS_H_
