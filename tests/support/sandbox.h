#ifndef TESTS_SUPPORT_SANDBOX_H_
#define TESTS_SUPPORT_SANDBOX_H_

#include <gtest/gtest.h>

#include <string>

namespace vexo::test {

// Puts this process, and what it starts, into namespaces of its own: a network with a loopback
// interface only, and private /tmp, /run and /dev, so that the real daemon can have its fixed port,
// its fixed socket path and a /dev/log that nobody else reads. The source and build trees stay
// where they are. As root by unshare alone, otherwise in a user namespace.
//
// Call it first in main, before any thread. Returns why there is no sandbox; empty when there is.
std::string enter_sandbox();

// A test that needs the sandbox: skips, with the reason, where it cannot be had.
class sandboxed : public testing::Test {
 protected:
  void SetUp() override;
};

// The main function of a program with such tests.
int run_sandboxed_tests(int argc, char** argv);

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_SANDBOX_H_
