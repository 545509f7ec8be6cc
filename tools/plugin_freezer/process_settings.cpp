#include "plugin_freezer/process_settings.h"

#include <sys/mman.h>
#include <sys/prctl.h>

#include <fstream>

namespace vexo::tools {

namespace {
constexpr char kScoreFile[] = "/proc/self/oom_score_adj";
}

int oom_score() {
  int score = 0;
  std::ifstream(kScoreFile) >> score;
  return score;
}

void set_oom_score(int score) { std::ofstream(kScoreFile) << score; }

void yield_lowest_oom_score() {
  if (oom_score() < kAgentOomScore) set_oom_score(kAgentOomScore);
}

bool lock_memory() { return mlockall(MCL_CURRENT | MCL_FUTURE) == 0; }

without_core_dump::without_core_dump() noexcept : former_(prctl(PR_GET_DUMPABLE)) {
  prctl(PR_SET_DUMPABLE, 0);
}

without_core_dump::~without_core_dump() {
  if (former_ == 1) prctl(PR_SET_DUMPABLE, 1);
}

}  // namespace vexo::tools
