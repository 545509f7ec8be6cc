#include "log_lines.h"

#include <ostream>
#include <stdexcept>
#include <string_view>

namespace vexo::test {

namespace {

// Priority (6 LOG_INFO, 3 LOG_ERR), source, number, function, text.
constexpr std::string_view kLines = R"(
6 plugin_client:31:push_cmd Unknown ip address, plugin_id=%s
6 plugin_client:37:push_cmd push command to plugin_id=%s ip=%s
6 plugin_service_impl:32:Subscribe Connected: Plugin ID=%s IP=%s
6 plugin_service_impl:37:Subscribe Disconnect: Plugin ID=%s IP=%s
3 plugin_utils:20:GetLunConfByFunc Failed to get config
3 plugin_server_ctrl:15:add_task Task [%s] has been expired! try to remove it and create a new one
6 plugin_server_ctrl:104:handle_cmd_is_lun_support Check lun support [%s]
6 plugin_server_ctrl:108:handle_cmd_is_lun_support Check lun support pass [%s]
6 plugin_server_ctrl:111:handle_cmd_is_lun_support Check lun support failed [%s]
6 plugin_server_ctrl:122:handle_cmd_start_mirror Start mirror [%s]
3 plugin_server_ctrl:125:handle_cmd_start_mirror Task not exists: [%s]
6 plugin_server_ctrl:144:handle_cmd_is_mirror_done Check mirror done [%s]
3 plugin_server_ctrl:147:handle_cmd_is_mirror_done Task not exists: [%s]
3 plugin_server_ctrl:153:handle_cmd_is_mirror_done Failed to get lun config [%s]
6 plugin_server_ctrl:160:handle_cmd_is_mirror_done Check mirror done skip (BLUN / Replication) [%s]
6 plugin_server_ctrl:166:handle_cmd_is_mirror_done Check mirror done pass [%s]
6 plugin_server_ctrl:171:handle_cmd_is_mirror_done mirroring ... [%s]
6 plugin_server_ctrl:182:handle_cmd_depart_relation Depart relation start [%s]
3 plugin_server_ctrl:185:handle_cmd_depart_relation Task not exists: [%s]
6 plugin_server_ctrl:199:handle_cmd_init_snapshot Plugin list is empty, skip notify plugin
6 plugin_server_ctrl:208:handle_cmd_init_snapshot Init snapshots broadcast [%s]
3 plugin_server_ctrl:211:handle_cmd_init_snapshot Init snasphot failed due to task is in progress: [%s]
6 plugin_server_ctrl:220:handle_cmd_init_snapshot Init snapshots success(start mirror) [%s]
3 plugin_server_ctrl:224:handle_cmd_init_snapshot Init snapshots failed [%s]
6 plugin_server_ctrl:234:handle_cmd_mirror_done Mirror done [%s]
3 plugin_server_ctrl:237:handle_cmd_mirror_done Task not exists: [%s]
6 plugin_server_ctrl:244:handle_cmd_mirror_done Mirror done success [%s]
3 plugin_server_ctrl:247:handle_cmd_mirror_done Mirror done failed [%s]
6 plugin_server_ctrl:255:handle_cmd_wait_for_depart Wait for depart relation [%s]
3 plugin_server_ctrl:258:handle_cmd_wait_for_depart Task not exists: [%s]
6 plugin_server_ctrl:264:handle_cmd_wait_for_depart Wait for depart relation success [%s]
3 plugin_server_ctrl:267:handle_cmd_wait_for_depart Wait for depart relation failed [%s]
6 plugin_server_ctrl:275:handle_cmd_depart_done Depart relation done [%s]
3 plugin_server_ctrl:278:handle_cmd_depart_done Task not exists: [%s]
)";

}  // namespace

std::ostream& operator<<(std::ostream& out, const log_line& line) {
  return out << '<' << line.priority << '>' << line.text;
}

log_line line(int number, const std::string& first, const std::string& second,
              const std::string& function) {
  const auto found = kLines.find(':' + std::to_string(number) + ':' + function);
  if (found == std::string_view::npos) throw std::invalid_argument("no such line");
  const auto begin = kLines.rfind('\n', found) + 1;
  std::string text(kLines.substr(begin + 2, kLines.find('\n', found) - begin - 2));
  std::size_t place = 0;
  for (const auto& argument : {first, second}) {
    place = text.find("%s", place);
    if (place == std::string::npos) break;
    text.replace(place, 2, argument);
    place += argument.size();
  }
  return {kLines[begin] - '0', "scsi_plugin:" + text};
}

}  // namespace vexo::test
