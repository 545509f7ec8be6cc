#ifndef TESTS_SUPPORT_LOG_SINK_H_
#define TESTS_SUPPORT_LOG_SINK_H_

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vexo::test {

// How long a test waits for what is promised before it fails. Generous: machines are shared, and
// the sanitizers are slow.
inline constexpr std::chrono::seconds kPatience{30};

struct log_line {
  int priority;
  std::string text;

  bool operator==(const log_line& other) const = default;
};
std::ostream& operator<<(std::ostream& out, const log_line& line);

// Collects log lines from any thread, and lets a test wait for one.
class log_sink {
 public:
  void add(const log_line& line);
  void clear();
  std::vector<log_line> lines() const;
  std::size_t count(const log_line& line) const;
  // Whether it came, waiting up to kPatience for it.
  bool wait_for(const log_line& line) const;

  // Calls `look` with each line, one at a time, on the thread that logs it and before that goes
  // on, until the result is destroyed. `look` must not log. One watch at a time.
  std::shared_ptr<void> watch(std::function<void(const log_line&)> look);

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable added_;
  std::vector<log_line> lines_;
  std::mutex look_mutex_;  // held while looking, so that a watch ends after that
  std::function<void(const log_line&)> look_;
};

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_LOG_SINK_H_
