#ifndef TOOLS_PLUGIN_GUARD_BACK_OFF_H_
#define TOOLS_PLUGIN_GUARD_BACK_OFF_H_

#include <algorithm>
#include <chrono>

namespace vexo::tools {

// When a daemon may be ended again. The first two times there is no pause. A third failure within
// ten minutes is likely to be one that no restart cures: from then on there is a pause, which
// doubles each time, until no daemon was ended for ten minutes more than the pause.
class back_off {
 public:
  using clock = std::chrono::steady_clock;

  static constexpr std::chrono::minutes kWindow{10};
  static constexpr std::chrono::minutes kFirstPause{1};
  static constexpr std::chrono::minutes kLongestPause{10};

  // A daemon was ended.
  void note(clock::time_point when) {
    if (when - last_ > kWindow + pause()) count_ = 0;
    last_ = when;
    ++count_;
  }
  // The earliest time at which the next may be ended.
  clock::time_point next() const { return last_ + pause(); }
  // How many were ended since that last happened.
  int count() const { return count_; }

 private:
  std::chrono::minutes pause() const {
    if (count_ < 2) return std::chrono::minutes::zero();
    return std::min(kFirstPause * (1 << std::min(count_ - 2, 4)), kLongestPause);
  }

  int count_ = 0;
  clock::time_point last_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_GUARD_BACK_OFF_H_
