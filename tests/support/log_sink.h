#ifndef TESTS_SUPPORT_LOG_SINK_H_
#define TESTS_SUPPORT_LOG_SINK_H_

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vexo::test {

// How long a test waits for what is promised before it fails. Generous: machines are shared, and
// the sanitizers are slow.
inline constexpr std::chrono::seconds kPatience{30};

struct log_line {
  int priority;
  std::string text;
  pid_t thread;  // that logged it; 0 where that is not known

  bool operator==(const log_line& other) const {
    return priority == other.priority && text == other.text;
  }
};
std::ostream& operator<<(std::ostream& out, const log_line& line);

// Collects log lines from any thread, and lets a test wait for one.
class log_sink {
 public:
  log_sink() = default;
  virtual ~log_sink() = default;
  log_sink(const log_sink&) = delete;
  log_sink& operator=(const log_sink&) = delete;

  void add(log_line line);
  // Forgets, and the next two return, everything that was logged before the call.
  void clear();
  std::vector<log_line> lines() const;
  std::size_t count(std::string_view part) const;
  // The first line that contains `part`, waiting up to kPatience for it.
  std::optional<log_line> wait_for(std::string_view part) const;

 private:
  // Returns when everything that is on its way has been added.
  virtual void catch_up() const {}

  mutable std::mutex mutex_;
  mutable std::condition_variable added_;
  std::vector<log_line> lines_;
};

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_LOG_SINK_H_
