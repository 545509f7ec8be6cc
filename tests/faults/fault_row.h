#ifndef TESTS_FAULTS_FAULT_ROW_H_
#define TESTS_FAULTS_FAULT_ROW_H_

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "calls.h"
#include "daemon.h"
#include "fault_table.h"
#include "history.h"
#include "sandbox.h"
#include "witness.h"

namespace vexo::test {

using std::chrono::milliseconds;
using std::chrono::seconds;

// One row of the table: a test that says what it does and what must follow, and whose checks are
// the verdict. What every party of its hand-shakes saw is held against the model at its end.
class fault_row : public sandboxed {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The first two columns; the row fails without them.
  static void row(const std::string& fault, const std::string& expected);
  // The third column grows by one more phrase.
  static void observed(const std::string& phrase);

  // A new daemon, and callers of it; the history begins anew.
  void start_daemon(const daemon_options& how = {}, bool serves = true);
  // The one step of the supervisor that matters here.
  void restart_daemon();
  // Holds what happened since the daemon was started against the model.
  void check_history();

  // Waits until it is so, looking every few milliseconds: the seconds that it took. Fails the row
  // when it does not come.
  static double seconds_until(const std::string& what, const std::function<bool()>& reached,
                              seconds patience = kPatience);
  // Whether PluginConnList is answered within a second, which it is not while the registry is held.
  bool list_answers();

  std::unique_ptr<dev_log> log;
  history record;
  std::unique_ptr<daemon_process> daemon;
  std::unique_ptr<witness_caller> local;  // over the unix socket

 private:
  daemon_options how_;
  std::size_t calls_checked_ = 0;
  std::size_t messages_checked_ = 0;
};

// "3.14", and "1 line" or "2 lines".
std::string figure(double value, int decimals = 1);
std::string counted(std::size_t count, const std::string& what);

}  // namespace vexo::test

#endif  // TESTS_FAULTS_FAULT_ROW_H_
