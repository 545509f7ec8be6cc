#ifndef TOOLS_PLUGIN_FREEZER_PROCESS_SETTINGS_H_
#define TOOLS_PLUGIN_FREEZER_PROCESS_SETTINGS_H_

namespace vexo::tools {

// What the kernel is told about this process, so that it can thaw when memory runs out, when no
// disk can be read, and when it crashes.

// The OOM score decides which process is killed when memory runs out: the lower, the later. A
// process may go down to the score that the service manager gave it, and further only with
// CAP_SYS_RESOURCE; where that is not allowed the score stays as it is.
inline constexpr int kAgentOomScore = -500;
inline constexpr int kFreezerOomScore = -1000;  // the kernel does not kill it

int oom_score();  // 0 when it cannot be read
void set_oom_score(int score);
// Leaves the lowest scores to freezers: gives this process kAgentOomScore if its own is lower.
void yield_lowest_oom_score();

// Locks all memory, present and future, so that no page has to be read from a disk again. Whether
// that was granted.
bool lock_memory();

// While it lives, a crash of this process leaves no core dump: the dump would be written to a file
// system that may be frozen, and the process would not end before that is done. One at a time.
class without_core_dump {
 public:
  without_core_dump() noexcept;
  ~without_core_dump();
  without_core_dump(const without_core_dump&) = delete;
  without_core_dump& operator=(const without_core_dump&) = delete;

 private:
  const int former_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_PROCESS_SETTINGS_H_
