#include "plugin_agent/withdrawal.h"

#include <chrono>
#include <filesystem>
#include <thread>

#include "lun_cmd.pb.h"

namespace vexo::tools {

bool withdraw(service_stub& daemon, const std::string& lun, const std::string& plugin_id) {
  constexpr std::chrono::milliseconds kPause{100};
  constexpr std::chrono::milliseconds kAnswerTime{400};
  scsiplugin::LunCmd command;
  command.set_plugin_id(plugin_id);
  auto& body = *command.mutable_start_mirror_req();
  body.set_task_id(lun);
  body.set_type(scsiplugin::LUN_TYPE_80);
  body.set_src_lun_id(lun);
  bool answered = false;
  for (const bool is_first : {true, false}) {
    if (!is_first) std::this_thread::sleep_for(kPause);
    grpc::ClientContext context;
    set_timeout(context, kAnswerTime);
    scsiplugin::LunCmdResp response;
    answered = daemon.LunOp(&context, command, &response).ok() || answered;
  }
  return answered;
}

std::vector<std::string> withdrawal_command(const std::string& lun, const std::string& appliance,
                                            const std::string& plugin_id) {
  return {std::filesystem::read_symlink("/proc/self/exe").string(), "--withdraw=" + lun,
          "--appliance=" + appliance, "--plugin-id=" + plugin_id};
}

}  // namespace vexo::tools
