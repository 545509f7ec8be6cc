#include "plugin_agent/backoff.h"

#include <algorithm>

namespace vexo::tools {

namespace {
// A wait is the base and a random part of up to half the base.
constexpr std::chrono::milliseconds kLargestBase = backoff::kLongest * 2 / 3;
}  // namespace

std::chrono::milliseconds backoff::next(std::chrono::milliseconds held) {
  if (held >= kHealthy) base_ = kShortest;
  std::uniform_int_distribution<std::chrono::milliseconds::rep> extra(0, base_.count() / 2);
  const auto wait = base_ + std::chrono::milliseconds(extra(random_));
  base_ = std::min(base_ * 2, kLargestBase);
  return wait;
}

}  // namespace vexo::tools
