#include "common/poll_until.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <thread>

namespace vexo::tools {

int poll_until(std::span<pollfd> watched, std::chrono::steady_clock::time_point deadline) {
  using std::chrono::milliseconds;
  constexpr milliseconds kNap{10};
  for (;;) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
    const auto patience =
        std::clamp<milliseconds::rep>(left.count(), 0, std::numeric_limits<int>::max());
    const int ready = poll(watched.data(), watched.size(), static_cast<int>(patience));
    if (ready > 0 || (ready == 0 && patience == left.count()) || left.count() <= 0) {
      return std::max(ready, 0);
    }
    if (ready < 0 && errno != EINTR) std::this_thread::sleep_for(kNap);
  }
}

}  // namespace vexo::tools
