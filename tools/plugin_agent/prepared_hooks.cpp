#include "plugin_agent/prepared_hooks.h"

#include <chrono>
#include <string>

namespace vexo::tools {

namespace {

// How long the rest of another handshake may delay the `thaw` of these hooks.
constexpr std::chrono::minutes kOthersRest{2};

FreezerRequest prepare_request(const FreezerPlan& plan) {
  FreezerRequest request;
  *request.mutable_prepare() = plan;
  return request;
}

}  // namespace

prepared_hooks::prepared_hooks(const FreezerPlan& plan, handshake_news& news,
                               std::vector<hook_run>& runs)
    : plan_(plan), news_(news), runs_(runs), freezer_(prepare_request(plan)) {}

void prepared_hooks::wait() {
  int left = plan_.hooks_size();
  for (bool gone = false; left > 0;) {
    if (gone) throw given_up("the freezer has died");
    news_.wait_or_give_up(handshake_news::clock::time_point::max(), freezer_.fd());
    while (const auto report = freezer_.receive(gone)) {
      if (!report->has_hook()) continue;
      --left;
      runs_.push_back(report->hook());
      const auto& run = runs_.back();
      if (run.timed_out()) throw given_up("prepare hook " + run.name() + " took too long");
      if (run.exit_code() != 0) {
        throw given_up("prepare hook " + run.name() + " exited with " +
                       std::to_string(run.exit_code()));
      }
    }
  }
}

void prepared_hooks::release() {
  FreezerRequest request;
  request.set_leave("");
  freezer_.send(request);
}

bool prepared_hooks::undo() {
  FreezerRequest request;
  request.set_end(true);
  freezer_.send(request);
  outcome how = wait_for_thaw(freezer_);
  if (how == outcome::died) {
    *request.mutable_undo() = plan_;
    how = wait_for_thaw(freezer_process(request));
  }
  return how != outcome::late;
}

prepared_hooks::outcome prepared_hooks::wait_for_thaw(const freezer_process& freezer) {
  const std::chrono::milliseconds hook_timeout(plan_.hook_timeout_ms());
  const auto until =
      handshake_news::clock::now() + kOthersRest + 2 * hook_timeout * plan_.hooks_size();
  for (bool gone = false; handshake_news::clock::now() < until;) {
    if (gone) return outcome::died;
    news_.wait(until, freezer.fd());
    while (const auto report = freezer.receive(gone)) {
      if (report->has_hook()) runs_.push_back(report->hook());
      if (report->has_thawed()) return outcome::thawed;
    }
  }
  return outcome::late;
}

}  // namespace vexo::tools
