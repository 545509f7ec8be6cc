#include "common/call.h"

#include <algorithm>

namespace vexo::tools::detail {

namespace {
constexpr std::chrono::milliseconds kTick{200};
}

bool wait_for_call(grpc::ClientContext& context, const event& done, interrupt& stop,
                   const call_options& options) noexcept {
  using clock = std::chrono::steady_clock;
  const auto start = clock::now();
  const bool can_be_cut = options.undisturbed < options.timeout;
  const auto cut_from = can_be_cut ? start + options.undisturbed : clock::time_point::max();
  bool cut = false;
  for (;;) {
    const auto now = clock::now();
    if (!cut && now >= cut_from && stop.requested()) {
      context.TryCancel();
      cut = true;
    }
    auto next_look = clock::time_point::max();
    if (now < cut_from) next_look = cut_from;
    if (options.on_tick) next_look = std::min(next_look, now + kTick);
    // Signals that have come do not end this wait.
    const int seen = cut || now < cut_from ? stop.count() : 0;
    if (stop.wait({done.fd()}, next_look, seen) == interrupt::wake::ready) return cut;
    if (options.on_tick && !cut) {
      options.on_tick(std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - start));
    }
  }
}

}  // namespace vexo::tools::detail
