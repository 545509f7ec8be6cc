#include "common/call.h"

#include <algorithm>

namespace vexo::tools::detail {

namespace {
constexpr std::chrono::milliseconds kTick{200};
}

void wait_for_calls(event& news, interrupt& stop, const call_options& options,
                    const std::function<progress()>& look,
                    const std::function<void(cause)>& cut_short) {
  using clock = std::chrono::steady_clock;
  const auto start = clock::now();
  const bool can_be_cut = options.undisturbed < options.timeout;
  const auto cut_from = can_be_cut ? start + options.undisturbed : clock::time_point::max();
  bool cut = false;
  for (;;) {
    news.take();
    const progress found = look();
    if (found == progress::all_ended) return;
    const auto now = clock::now();
    if (!cut && now >= cut_from && (found == progress::one_failed || stop.requested())) {
      cut_short(found == progress::one_failed ? cause::failure : cause::signal);
      cut = true;
    }
    auto next_look = clock::time_point::max();
    if (now < cut_from) next_look = cut_from;
    if (options.on_tick) next_look = std::min(next_look, now + kTick);
    // Signals that have come do not end this wait.
    const int seen = cut || now < cut_from ? stop.count() : 0;
    const auto woken_by = stop.wait({news.fd()}, next_look, seen);
    if (woken_by != interrupt::wake::ready && options.on_tick && !cut) {
      options.on_tick(std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - start));
    }
  }
}

}  // namespace vexo::tools::detail
