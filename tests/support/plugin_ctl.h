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

// Of the sample inventory.
inline constexpr char kLun[] = "1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6";
inline constexpr char kLunNaa[] = "60014051a2b3c4dd5e6fd7a8bd9c0dde";
inline constexpr char kReplicaLun[] = "c3d9e8b1-2f64-4b7a-9e05-7714aa0c6f2e";
inline constexpr char kUnsupportedLun[] = "0e984725-c51c-4bf4-9960-e1c80e27aba0";

using words = std::vector<std::string>;

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
    while (!is_listed(plugin_id)) std::this_thread::yield();
    return host;
  }

  bool is_listed(const std::string& plugin_id) {
    const auto plugins = call->list();
    for (const auto& entry : plugins.list()) {
      if (entry.plugin_id() == plugin_id) return true;
    }
    return false;
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
