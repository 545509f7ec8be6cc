#include "plugin_agent/quiesce.h"

#include <spdlog/fmt/fmt.h>

#include <utility>

#include "common/poll_until.h"

namespace vexo::tools {

namespace {

using std::chrono::milliseconds;

// How long after its time a freezer that says nothing counts as one that hangs.
constexpr milliseconds kGrace{400};

std::chrono::steady_clock::time_point from_ms(std::int64_t time) {
  return std::chrono::steady_clock::time_point(milliseconds(time));
}

}  // namespace

quiesce::quiesce(const FreezerPlan& plan) : plan_(plan) {
  if (plan.mount_points().empty() && plan.hooks().empty()) {
    frozen_ = true;
    deadline_ = clock::now() + milliseconds(plan.max_freeze_ms());
    return;
  }
  FreezerRequest request;
  *request.mutable_begin() = plan;
  freezer_.emplace(request);
  thread_ = std::thread(&quiesce::listen, this);
}

quiesce::~quiesce() {
  try {
    end();
  } catch (const quiesce_error&) {
    // Whoever is interested has called end().
  }
  left_.raise();
  if (thread_.joinable()) thread_.join();
}

bool quiesce::at_rest() {
  changed_.take();
  const std::lock_guard lock(mutex_);
  if (thawing_ || gone_) {
    throw quiesce_error(reason_.empty() ? "the agent was told to stop before the split was over"
                                        : reason_);
  }
  if (clock::now() >= deadline_) {
    throw quiesce_error(fmt::format("the host was thawed at the limit of {:g} s",
                                    static_cast<double>(plan_.max_freeze_ms()) / 1000));
  }
  return frozen_;
}

void quiesce::thaw_now() {
  FreezerRequest request;
  request.set_end(true);
  if (freezer_) freezer_->send(request);
}

void quiesce::end() {
  if (std::exchange(ended_, true) || !freezer_) return;
  FreezerRequest request;
  request.set_leave(plan_.member().name());
  freezer_->send(request);
  std::unique_lock lock(mutex_);
  on_thawed_.wait(lock, [&] { return thawed_; });
  if (!reason_.empty()) throw quiesce_error(reason_);
}

bool quiesce::over() {
  changed_.take();
  const std::lock_guard lock(mutex_);
  return gone_ || !freezer_;
}

quiesce::clock::time_point quiesce::deadline() {
  const std::lock_guard lock(mutex_);
  return deadline_;
}

milliseconds quiesce::frozen_for() {
  const std::lock_guard lock(mutex_);
  return frozen_for_;
}

std::vector<hook_run> quiesce::runs() {
  const std::lock_guard lock(mutex_);
  return runs_;
}

void quiesce::listen() {
  for (bool gone = false; !gone;) {
    pollfd watched[] = {{freezer_->fd(), POLLIN, 0}, {left_.fd(), POLLIN, 0}};
    if (poll_until(watched, next_report()) == 0) {
      freezer_->kill();
      const std::lock_guard lock(mutex_);
      reason_ = "the freezer did not answer";
      thawing_until_ = deadline_ = clock::time_point::max();
    }
    if (watched[1].revents != 0) return;
    while (const auto report = freezer_->receive(gone)) take(*report);
  }
  bool died = false;
  clock::time_point begun;
  {
    const std::lock_guard lock(mutex_);
    died = begun_ && !thawed_;
    gone_ = true;
    if (died && reason_.empty()) reason_ = "the freezer has died";
    changed_.raise();
    begun = begun_at_;
  }
  if (died) {
    try {
      recover(plan_.run_dir(), milliseconds(plan_.hook_timeout_ms()), -1);
    } catch (const std::runtime_error& error) {
      agent_log().error("no other freezer: {}", printable(error.what()));
    }
  }
  const std::lock_guard lock(mutex_);
  if (died) frozen_for_ = std::chrono::ceil<milliseconds>(clock::now() - begun);
  thawed_ = true;
  hold_.reset();
  no_core_dump_.reset();
  on_thawed_.notify_all();
}

void quiesce::take(const FreezerReport& report) {
  const std::lock_guard lock(mutex_);
  switch (report.kind_case()) {
    case FreezerReport::kHook:
      runs_.push_back(report.hook());
      break;
    case FreezerReport::kBegun:
      begun_ = true;
      begun_at_ = clock::now();
      deadline_ = from_ms(report.begun());
      hold_.emplace();
      no_core_dump_.emplace();
      break;
    case FreezerReport::kFrozen:
      frozen_ = true;
      break;
    case FreezerReport::kThawing:
      thawing_ = true;
      thawing_until_ = from_ms(report.thawing().until());
      reason_ = report.thawing().reason();
      break;
    case FreezerReport::kThawed:
      thawing_ = thawed_ = true;
      frozen_for_ = milliseconds(report.thawed().frozen_ms());
      reason_ = report.thawed().reason();
      hold_.reset();
      no_core_dump_.reset();
      on_thawed_.notify_all();
      break;
    default:
      break;
  }
  changed_.raise();
}

quiesce::clock::time_point quiesce::next_report() {
  const std::lock_guard lock(mutex_);
  if (!begun_ || thawed_) return clock::time_point::max();
  const auto due = thawing_ ? thawing_until_ : deadline_;
  return due == clock::time_point::max() ? due : due + kGrace;
}

}  // namespace vexo::tools
