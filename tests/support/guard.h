#ifndef TESTS_SUPPORT_GUARD_H_
#define TESTS_SUPPORT_GUARD_H_

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "plugin_agent.h"
#include "supervisor.h"

namespace vexo::test {

// The daemon under a supervisor, with a guard and host agents beside it.
class Guard : public PluginAgent {
 protected:
  static constexpr char kStatusFile[] = "/tmp/guard_status.json";

  void TearDown() override;

  void start_supervisor(const daemon_options& how = {});
  // Waits until it has found the daemon in order, unless `serves` is false.
  void start_guard(words options = {}, bool serves = true);
  // plugin_ctl guard-status, as JSON.
  static ended_program guard_status();
  static bool has_status(const std::string& part) {
    return guard_status().out.find(part) != std::string::npos;
  }
  static words ctl(words arguments);
  // The guard has asked for its supervisor's help `times` times.
  void expect_restarts(int times) const;

  std::unique_ptr<supervisor> supervised;
  std::unique_ptr<program> guard;
};

bool wait_until(const std::function<bool()>& reached, std::chrono::seconds patience = kPatience);
// What the group of a pattern matches in a text, in order of size, and that in a few words.
std::vector<double> numbers_in(const std::string& text, const std::string& pattern);
std::string spread(const std::vector<double>& sorted);
double seconds_since(std::chrono::steady_clock::time_point then);

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_GUARD_H_
