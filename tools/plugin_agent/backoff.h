#ifndef TOOLS_PLUGIN_AGENT_BACKOFF_H_
#define TOOLS_PLUGIN_AGENT_BACKOFF_H_

#include <chrono>
#include <random>

namespace vexo::tools {

// How long to wait before trying again: from 1 s to 30 s, doubled with each failure, and partly
// random, so that many hosts do not come back at the same time.
class backoff {
 public:
  static constexpr std::chrono::milliseconds kShortest = std::chrono::seconds(1);
  static constexpr std::chrono::milliseconds kLongest = std::chrono::seconds(30);
  // An attempt that held for this long was a success: the next wait is short again.
  static constexpr std::chrono::milliseconds kHealthy = std::chrono::seconds(60);

  explicit backoff(unsigned seed = std::random_device()()) : random_(seed) {}

  // The wait after an attempt that held for `held`.
  std::chrono::milliseconds next(std::chrono::milliseconds held);

 private:
  std::mt19937 random_;
  std::chrono::milliseconds base_ = kShortest;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_BACKOFF_H_
