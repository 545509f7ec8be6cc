#ifndef TOOLS_PLUGIN_AGENT_MEMORY_LOCK_H_
#define TOOLS_PLUGIN_AGENT_MEMORY_LOCK_H_

#include <cstddef>
#include <vector>

namespace vexo::tools {

struct memory_range {
  const void* begin = nullptr;
  std::size_t size = 0;
};

// Where the program's own code and data lie, and the C library's. Not async-signal-safe: to be
// asked for before a fork.
std::vector<memory_range> loaded_code();

// Locks what is resident, what will become so, all of `code` and some stack: nothing of it is ever
// read from a disk again. Whether all of that was granted. Async-signal-safe.
bool lock_memory(const std::vector<memory_range>& code) noexcept;

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_MEMORY_LOCK_H_
