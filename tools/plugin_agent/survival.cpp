#include "plugin_agent/survival.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace vexo::tools {

namespace {
constexpr char kScoreFile[] = "/proc/self/oom_score_adj";
}

int oom_score() {
  int score = 0;
  std::ifstream(kScoreFile) >> score;
  return score;
}

void set_oom_score(int score) noexcept {
  char text[16];
  char* digit = std::end(text);
  for (int rest = std::abs(score); rest > 0 || digit == std::end(text); rest /= 10) {
    *--digit = static_cast<char>('0' + rest % 10);
  }
  if (score < 0) *--digit = '-';
  const int fd = open(kScoreFile, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return;
  [[maybe_unused]] const ssize_t written =
      write(fd, digit, static_cast<std::size_t>(std::end(text) - digit));
  close(fd);
}

void yield_lowest_oom_score() {
  if (oom_score() < kAgentOomScore) set_oom_score(kAgentOomScore);
}

without_core_dump::without_core_dump() noexcept : former_(prctl(PR_GET_DUMPABLE)) {
  prctl(PR_SET_DUMPABLE, 0);
}

without_core_dump::~without_core_dump() {
  if (former_ == 1) prctl(PR_SET_DUMPABLE, 1);
}

}  // namespace vexo::tools
