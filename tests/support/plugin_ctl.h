#ifndef TESTS_SUPPORT_PLUGIN_CTL_H_
#define TESTS_SUPPORT_PLUGIN_CTL_H_

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "calls.h"
#include "daemon.h"
#include "program.h"
#include "sandbox.h"
#include "subscriber.h"

namespace vexo::test {

// The command line tool beside a real daemon, which is started with the first call of start().
class PluginCtl : public sandboxed {
 protected:
  void SetUp() override {
    sandboxed::SetUp();
    if (!IsSkipped()) log = std::make_unique<dev_log>();
  }

  void start() {
    daemon = std::make_unique<daemon_process>(log.get());
    call = std::make_unique<caller>(connect(kUnixTarget));
  }

  // A host, over IPv4 and listed.
  std::unique_ptr<subscriber> subscribe(const std::string& plugin_id) {
    auto host = std::make_unique<subscriber>(connect(kTcpTarget), plugin_id);
    while (!call->is_listed(plugin_id)) std::this_thread::yield();
    return host;
  }

  static words command_line(words arguments) {
    arguments.insert(arguments.begin(), PLUGIN_CTL);
    return arguments;
  }
  static ended_program ctl(words arguments) { return run(command_line(std::move(arguments))); }

  std::unique_ptr<dev_log> log;
  std::unique_ptr<daemon_process> daemon;
  std::unique_ptr<caller> call;
};

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_PLUGIN_CTL_H_
