#ifndef TESTS_SUPPORT_CAPTURED_SYSLOG_H_
#define TESTS_SUPPORT_CAPTURED_SYSLOG_H_

#include "log_sink.h"

namespace vexo::test {

// Whatever this process passes to syslog: linking this file takes the C library's place.
log_sink& captured_syslog();

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_CAPTURED_SYSLOG_H_
