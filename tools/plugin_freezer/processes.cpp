#include "plugin_freezer/processes.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

namespace vexo::tools {

std::vector<process> running_processes() {
  std::vector<process> found;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const process one = look_at(std::stoi(name));
    if (one.state != 0 && one.state != 'Z' && one.state != 'X') found.push_back(one);
  }
  return found;
}

std::vector<process> descendants(const std::vector<process>& all, pid_t ancestor) {
  std::vector<process> found;
  const auto add_children = [&](pid_t parent) {
    std::copy_if(all.begin(), all.end(), std::back_inserter(found),
                 [&](const process& one) { return one.parent == parent; });
  };
  add_children(ancestor);
  // `found` grows meanwhile. NOLINTNEXTLINE(modernize-loop-convert)
  for (std::size_t i = 0; i < found.size(); ++i) add_children(found[i].pid);
  return found;
}

process look_at(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(file, line);
  // "PID (NAME) STATE PPID PGRP SESSION ...", the start time being the 22nd. A name may hold
  // anything.
  const auto end_of_name = line.rfind(')');
  if (end_of_name == std::string::npos) return {};
  std::istringstream fields(line.substr(end_of_name + 1));
  process found;
  found.pid = pid;
  fields >> found.state >> found.parent >> found.group;
  std::string skipped;
  for (int field = 6; field < 22; ++field) fields >> skipped;
  fields >> found.start;
  return found;
}

}  // namespace vexo::tools
