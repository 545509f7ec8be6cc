#undef _FORTIFY_SOURCE  // its syslog is an inline function, which could not be defined here
#include "captured_syslog.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>

namespace vexo::test {

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
