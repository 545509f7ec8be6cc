#ifndef TOOLS_PLUGIN_FREEZER_SURVIVAL_H_
#define TOOLS_PLUGIN_FREEZER_SURVIVAL_H_

namespace vexo::tools {

// Who is killed when memory runs out: the lower the score, the later. A process may go down to the
// score that the service manager gave it, further only with CAP_SYS_RESOURCE; where that is not
// allowed the score stays as it is.
inline constexpr int kAgentOomScore = -500;
inline constexpr int kFreezerOomScore = -1000;  // never, while there is anybody else

int oom_score();  // 0 when it cannot be read
void set_oom_score(int score);
// Leaves the lowest scores to freezers: gives this process kAgentOomScore if its own is lower.
void yield_lowest_oom_score();

// Locks all memory, present and future: nothing is read from a disk again. Whether that was
// granted.
bool lock_memory();

// While it lives, a crash of this process leaves no core dump: that would be written to a file
// system that may be frozen, and until it is written nobody can see that the process is gone. One
// at a time.
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

#endif  // TOOLS_PLUGIN_FREEZER_SURVIVAL_H_
