#ifndef TESTS_SUPPORT_LOG_LINES_H_
#define TESTS_SUPPORT_LOG_LINES_H_

#include <iosfwd>
#include <string>

namespace vexo::test {

struct log_line {
  int priority;
  std::string text;

  bool operator==(const log_line& other) const = default;
};
std::ostream& operator<<(std::ostream& out, const log_line& line);

// What the daemon logs under this number, whole and with its priority; `first` and `second` stand
// for the text's arguments. One number stands in two functions: name the function if it is
// Subscribe.
log_line line(int number, const std::string& first = "", const std::string& second = "",
              const std::string& function = "");

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_LOG_LINES_H_
