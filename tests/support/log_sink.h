#ifndef TESTS_SUPPORT_LOG_SINK_H_
#define TESTS_SUPPORT_LOG_SINK_H_

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
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

  bool operator==(const log_line& other) const = default;
};
std::ostream& operator<<(std::ostream& out, const log_line& line);

// Collects log lines from any thread, and lets a test wait for one.
class log_sink {
 public:
  log_sink() = default;
  virtual ~log_sink() = default;
  log_sink(const log_sink&) = delete;
  log_sink& operator=(const log_sink&) = delete;

  void add(const log_line& line);
  // Forgets, and the next three return, everything that was logged before the call.
  void clear();
  std::vector<log_line> lines() const;
  std::size_t count(const log_line& line) const;
  std::size_t count(std::string_view part) const;
  // The first line that contains `part`, waiting up to kPatience for it.
  std::optional<log_line> wait_for(std::string_view part) const;
  bool wait_for(const log_line& line) const { return wait_for(line.text) == line; }

  // Has `look` called by whoever logs a line, with the line, before the call that logs it goes on.
  // Until the result is gone, which must not be before those calls are.
  std::shared_ptr<void> watch(std::function<void(const log_line&)> look);

 private:
  // Returns when everything that is on its way has been added.
  virtual void catch_up() const {}

  mutable std::mutex mutex_;
  mutable std::condition_variable added_;
  std::vector<log_line> lines_;
  std::function<void(const log_line&)> look_;
};

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_LOG_SINK_H_
