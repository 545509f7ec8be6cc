#include "plugin_freezer/run_directory.h"

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace vexo::tools {

void make_run_directory(const std::string& directory) {
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  if (error || access(directory.c_str(), W_OK) != 0) {
    throw std::runtime_error(
        "the directory " + directory + " cannot be used: " +
        (error ? error : std::error_code(errno, std::generic_category())).message() +
        "; run as root, or name another one with --run-dir");
  }
}

}  // namespace vexo::tools
