#ifndef TOOLS_COMMON_WHOLE_FILE_H_
#define TOOLS_COMMON_WHOLE_FILE_H_

#include <string>
#include <string_view>

namespace vexo::tools {

// All that a file holds. Throws std::system_error, also for a directory; its code() is the reason.
std::string read_file(const std::string& path);

// Replaces the file as a whole, so that no reader sees half of it: writes PATH.tmp, of mode 0644,
// and renames it. Blocks while the file system is frozen. Throws std::system_error.
void replace_file(const std::string& path, std::string_view content);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_WHOLE_FILE_H_
