#ifndef TESTS_SUPPORT_CAPTURED_SYSLOG_H_
#define TESTS_SUPPORT_CAPTURED_SYSLOG_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "log_lines.h"

namespace vexo::test {

// Log lines from any thread.
class log_sink {
 public:
  void add(const log_line& line);
  void clear();
  std::vector<log_line> lines() const;
  std::size_t count(const log_line& line) const;

  // Calls `look` with each line, one at a time, on the thread that logs it, until the result is
  // destroyed. That thread continues after `look`. `look` must not log. One watch at a time.
  std::shared_ptr<void> watch(std::function<void(const log_line&)> look);

 private:
  mutable std::mutex mutex_;
  std::vector<log_line> lines_;
  std::mutex look_mutex_;  // held during `look_`: a watch does not end during it
  std::function<void(const log_line&)> look_;
};

// Everything that this process passes to syslog: this file replaces the C library's function.
log_sink& captured_syslog();

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_CAPTURED_SYSLOG_H_
