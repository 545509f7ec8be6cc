#include "plugin_agent/memory_lock.h"

#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

namespace vexo::tools {

namespace {

constexpr std::size_t kStack = 65536;

void for_each_segment(const dl_phdr_info& object, auto&& take) {
  for (ElfW(Half) i = 0; i < object.dlpi_phnum; ++i) {
    const auto& segment = object.dlpi_phdr[i];
    if (segment.p_type == PT_LOAD) take(object.dlpi_addr + segment.p_vaddr, segment.p_memsz);
  }
}

int add_if_ours(dl_phdr_info* object, std::size_t /*size*/, void* out) {
  const auto libc = reinterpret_cast<std::uintptr_t>(&_exit);
  const bool is_program = object->dlpi_name == nullptr || *object->dlpi_name == '\0';
  bool is_libc = false;
  for_each_segment(*object, [&](std::uintptr_t begin, std::size_t size) {
    is_libc = is_libc || (libc >= begin && libc < begin + size);
  });
  if (!is_program && !is_libc) return 0;
  for_each_segment(*object, [&](std::uintptr_t begin, std::size_t size) {
    static_cast<std::vector<memory_range>*>(out)->push_back(
        {reinterpret_cast<const void*>(begin), size});  // NOLINT(performance-no-int-to-ptr)
  });
  return 0;
}

bool lock_stack() noexcept {
  char room[kStack] = {};
  // Below this frame is where the caller's further calls will stand.
  return mlock(room, sizeof room) == 0;
}

}  // namespace

std::vector<memory_range> loaded_code() {
  std::vector<memory_range> found;
  dl_iterate_phdr(add_if_ours, &found);
  return found;
}

bool lock_memory(const std::vector<memory_range>& code) noexcept {
  // Not simply all of it at once: that would make each of the agent's thread stacks real.
  bool locked = mlockall(MCL_CURRENT | MCL_FUTURE | MCL_ONFAULT) == 0;
  for (const auto& range : code) locked = mlock(range.begin, range.size) == 0 && locked;
  return lock_stack() && locked;
}

}  // namespace vexo::tools
