#ifndef TOOLS_PLUGIN_AGENT_SUBSCRIPTION_STATE_H_
#define TOOLS_PLUGIN_AGENT_SUBSCRIPTION_STATE_H_

#include <chrono>
#include <mutex>
#include <string>
#include <utility>

namespace vexo::tools {

// Whether a subscription stands. Any thread may call.
class subscription_state {
 public:
  struct view {
    bool subscribed = false;  // and was listed
    std::chrono::system_clock::time_point since = std::chrono::system_clock::now();
    std::string seen_as;                                    // when it stands
    std::string reason = "it has not been subscribed yet";  // when it does not
  };

  void stands(const std::string& seen_as) { change(true, seen_as, ""); }
  void fails(const std::string& reason) { change(false, "", reason); }
  view get() const {
    const std::lock_guard lock(mutex_);
    return view_;
  }

 private:
  void change(bool subscribed, const std::string& seen_as, const std::string& reason) {
    const std::lock_guard lock(mutex_);
    if (view_.subscribed != subscribed) view_.since = std::chrono::system_clock::now();
    view_.subscribed = subscribed;
    view_.seen_as = seen_as;
    view_.reason = reason;
  }

  mutable std::mutex mutex_;
  view view_;  // under mutex_
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_SUBSCRIPTION_STATE_H_
