#include <spdlog/fmt/fmt.h>

#include <array>
#include <cstdint>
#include <iterator>

#include "plugin_agent/scsi_luns.h"
#include "plugin_agent/verbs.h"

namespace vexo::tools {

namespace {

std::string size_text(std::uint64_t bytes) {
  constexpr std::array kUnits = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
  constexpr double kStep = 1024;
  auto size = static_cast<double>(bytes);
  std::size_t unit = 0;
  for (; size >= kStep && unit + 1 < std::size(kUnits); ++unit) size /= kStep;
  return fmt::format("{:.3g} {}", size, kUnits[unit]);
}

}  // namespace

exit_code show_luns(const agent_options& options, interrupt& /*stop*/) {
  const auto luns = scsi_luns();
  table rows({"LUN (--lun)", "PAGE 83H", "DEVICE", "PATHS", "SIZE", "VENDOR", "FILE SYSTEMS"});
  shown_text json;
  for (const auto& lun : luns) {
    json += to_json(lun) + "\n";
    rows.add({cell(lun.lun()), cell(lun.page_83()), lun.device(), joined(lun.paths()),
              size_text(lun.bytes()), cell(lun.vendor()), cell(joined(lun.file_systems()))});
    if (!lun.problem().empty()) {
      say(printable(lun.device()) + ": " + printable(lun.problem()) +
          ": look at the device with \"sg_vpd\"");
    }
  }
  print(options.format == output_format::json ? json : rows.text());
  if (luns.empty()) say("this host sees no SCSI disk: log in to the appliance's target first");
  return exit_code::done;
}

}  // namespace vexo::tools
