#include "common/journal.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace vexo::tools {

bool stderr_is_journal() {
  static const bool is_journal = [] {
    const char* const stream = std::getenv("JOURNAL_STREAM");  // NOLINT(concurrency-mt-unsafe)
    struct stat facts = {};
    return stream != nullptr && fstat(STDERR_FILENO, &facts) == 0 &&
           stream == std::to_string(facts.st_dev) + ":" + std::to_string(facts.st_ino);
  }();
  return is_journal;
}

std::string journal_prefix(int priority) {
  if (!stderr_is_journal()) return {};
  return {'<', static_cast<char>('0' + priority), '>'};
}

}  // namespace vexo::tools
