// A host's plugin: subscribes to appliances and brings this host to rest for their snapshots.

#include <grpc/grpc.h>
#include <spdlog/fmt/fmt.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "common/channel.h"
#include "common/errors.h"
#include "common/exit_codes.h"
#include "common/interrupt.h"
#include "plugin_agent/agent.h"
#include "plugin_agent/agent_log.h"
#include "plugin_agent/freezer_process.h"
#include "plugin_agent/hooks.h"
#include "plugin_agent/options.h"
#include "plugin_agent/status_socket.h"
#include "plugin_agent/verbs.h"
#include "plugin_agent/withdrawal.h"
#include "plugin_freezer/file_system.h"
#include "plugin_freezer/process_settings.h"
#include "plugin_freezer/run_directory.h"

namespace vexo::tools {
namespace {

// Replaces this process by the freezer with --thaw.
[[noreturn]] void become_freezer(const agent_options& options) {
  std::string arguments[] = {
      freezer_path(),
      "--thaw",
      "--run-dir",
      options.run_dir,
      "--hook-timeout",
      fmt::format("{:g}", std::chrono::duration<double>(options.hook_timeout).count())};
  std::vector<char*> pointers;
  for (auto& text : arguments) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  execv(pointers.front(), pointers.data());
  throw std::system_error(errno, std::generic_category(), arguments[0]);
}

exit_code run(const agent_options& options, interrupt& stop) {
  if (options.verbose) agent_log().set_level(spdlog::level::debug);
  if (options.verb) return options.verb(options, stop);
  if (!options.withdraw.empty()) {
    const auto daemon =
        scsiplugin::PluginService::NewStub(make_channel(options.appliances.front()));
    return withdraw(*daemon, options.withdraw, options.plugin_id) ? exit_code::done
                                                                  : exit_code::unreachable;
  }
  if (options.freezes()) {
    freezer_path();
    recover(options.run_dir, options.hook_timeout, stop.fd());
    std::vector<std::string> remarks;
    open_file_systems(options.mount_points, &remarks);
    for (const auto& remark : remarks) agent_log().warn("--fs {}", printable(remark));
    if (!options.hooks_dir.empty()) {
      for (const auto& refusal : refusals(list_hooks(options.hooks_dir))) {
        if (options.tolerates_refused_hooks) {
          agent_log().warn("{}", printable(refusal));
        } else {
          agent_log().error("{}; until that is changed every snapshot fails", printable(refusal));
        }
      }
    }
  }
  // Without grpc_shutdown(), which would wait for threads that could not be started.
  grpc_init();
  agent serving(options);
  std::optional<status_socket> status;
  try {
    make_run_directory(options.run_dir);
    status.emplace(options.run_dir, [&serving] { return serving.status(); });
  } catch (const std::runtime_error& error) {
    agent_log().warn("\"plugin_agent status\" finds no agent: {}", printable(error.what()));
  }
  serving.run(stop);
  return exit_code::done;
}

}  // namespace
}  // namespace vexo::tools

int main(int argc, char** argv) {
  using namespace vexo::tools;
  // Freezers are started while gRPC is at work, and never use it themselves.
  setenv("GRPC_ENABLE_FORK_SUPPORT", "0", 1);  // NOLINT(concurrency-mt-unsafe): no threads yet
  // A write to a closed stderr must not end the agent.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGCHLD, SIG_IGN);  // a freezer may outlive the rest that it was started for
  yield_lowest_oom_score();
  try {
    exit_code end = exit_code::done;
    if (const auto options = parse_agent_options(argc, argv, end)) {
      if (options->thaw_and_exit) become_freezer(*options);
      interrupt stop;
      end = run(*options, stop);
    }
    return static_cast<int>(end);
  } catch (const tool_error& error) {
    say(error.text);
    return static_cast<int>(error.code);
  } catch (const std::exception& error) {
    agent_log().critical("{}", printable(error.what()));
    return static_cast<int>(exit_code::failed);
  }
}
