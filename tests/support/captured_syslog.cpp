#undef _FORTIFY_SOURCE  // its syslog is an inline function, which could not be defined here
#include "captured_syslog.h"

#include <syslog.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <utility>

namespace vexo::test {

void log_sink::add(const log_line& line) {
  {
    const std::lock_guard lock(mutex_);
    lines_.push_back(line);
  }
  const std::lock_guard looking(look_mutex_);
  if (look_) look_(line);
}

std::shared_ptr<void> log_sink::watch(std::function<void(const log_line&)> look) {
  const std::lock_guard lock(look_mutex_);
  look_ = std::move(look);
  return {this, [this](void*) {
            const std::lock_guard unset(look_mutex_);
            look_ = nullptr;
          }};
}

void log_sink::clear() {
  const std::lock_guard lock(mutex_);
  lines_.clear();
}

std::vector<log_line> log_sink::lines() const {
  const std::lock_guard lock(mutex_);
  return lines_;
}

std::size_t log_sink::count(const log_line& line) const {
  const auto all = lines();
  return static_cast<std::size_t>(std::count(all.begin(), all.end(), line));
}

log_sink& captured_syslog() {
  static log_sink sink;
  return sink;
}

namespace {
void capture(int priority, const char* format, va_list arguments) {
  char text[8192];
  std::vsnprintf(text, sizeof text, format, arguments);
  captured_syslog().add({priority, text});
}
}  // namespace

}  // namespace vexo::test

extern "C" {
// NOLINTBEGIN(cert-dcl50-cpp): the C library's own signatures
void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vexo::test::capture(priority, format, arguments);
  va_end(arguments);
}

// What syslog is called in code compiled with _FORTIFY_SOURCE. NOLINTNEXTLINE
void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vexo::test::capture(priority, format, arguments);
  va_end(arguments);
}
// NOLINTEND(cert-dcl50-cpp)
}
