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
  const auto cut_from = start + options.undisturbed;
  const int seen = stop.count();
  bool cancelled = false;
  for (;;) {
    const auto now = clock::now();
    if (!cancelled && stop.count() > seen && now >= cut_from) {
      context.TryCancel();
      cancelled = true;
    }
    auto next_look = clock::time_point::max();
    if (options.on_tick) next_look = now + kTick;
    if (!cancelled && stop.count() > seen) next_look = std::min(next_look, cut_from);
    if (stop.wait({done.fd()}, next_look) == interrupt::wake::ready) break;
    if (options.on_tick && !cancelled) {
      options.on_tick(std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - start));
    }
  }
  return stop.count() > seen;
}

}  // namespace vexo::tools::detail
