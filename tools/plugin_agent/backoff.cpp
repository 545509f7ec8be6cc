#include "plugin_agent/backoff.h"

#include <algorithm>

namespace vexo::tools {

using std::chrono::milliseconds;

namespace {
// A long wait is the base and a random part of up to half the base.
constexpr milliseconds kLargestBase = backoff::kLongest * 2 / 3;
}  // namespace

milliseconds backoff::next(ending how, milliseconds held) {
  const bool was_served = how == ending::disconnected && held >= kServed;
  if (was_served || held >= kHealthy) base_ = kShortest;
  if (was_served || how == ending::unreachable) return between(kSoonest, kLatest);
  const auto base = base_;
  base_ = std::min(base_ * 2, kLargestBase);
  return between(base, base * 3 / 2);
}

milliseconds backoff::between(milliseconds least, milliseconds most) {
  std::uniform_int_distribution<milliseconds::rep> range(least.count(), most.count());
  return milliseconds(range(random_));
}

}  // namespace vexo::tools
