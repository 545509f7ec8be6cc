#ifndef TOOLS_PLUGIN_FREEZER_RUN_DIRECTORY_H_
#define TOOLS_PLUGIN_FREEZER_RUN_DIRECTORY_H_

#include <string>

namespace vexo::tools {

// Creates the directory for the lock and the record if it is missing. Throws std::runtime_error
// with a sentence for the user.
void make_run_directory(const std::string& directory);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_RUN_DIRECTORY_H_
