#include "plugin_agent/quiesce.h"

#include <spdlog/fmt/fmt.h>

#include <utility>

#include "common/poll_until.h"
#include "plugin_freezer/monotonic_ms.h"

namespace vexo::tools {

namespace {

using std::chrono::milliseconds;

// How long after its time a freezer that says nothing counts as one that hangs.
constexpr milliseconds kGrace{400};

}  // namespace

quiesce::quiesce(const FreezerPlan& plan, event& news) : plan_(plan) {
  members_[plan.member().name()] = {&news, true};
  if (plan.mount_points().empty() && plan.hooks().empty()) {
    frozen_ = true;
    frozen_at_ = clock::now();
    deadline_ = frozen_at_ + milliseconds(plan.max_freeze_ms());
    return;
  }
  FreezerRequest request;
  *request.mutable_begin() = plan;
  freezer_.emplace(request);
  thread_ = std::thread(&quiesce::listen, this);
}

quiesce::~quiesce() {
  destroyed_.raise();
  if (thread_.joinable()) thread_.join();
}

bool quiesce::join(const RestMember& who, event& news, milliseconds hold) {
  const std::lock_guard lock(mutex_);
  const bool is_over = !freezer_ || thawing_ || gone_;
  // The time that is left is known once the freezer has begun.
  if (is_over || (begun_ && deadline_ - clock::now() < hold)) return false;
  FreezerRequest request;
  *request.mutable_join() = who;
  if (members_.contains(who.name()) || !freezer_->send(request)) return false;
  members_[who.name()] = {&news, false};
  return true;
}

void quiesce::check(const member& one) const {
  if ((thawing_ || gone_) && (!one.joined || (reason_.empty() && !begun_))) throw rest_missed();
  if (thawing_ || gone_) throw quiesce_error(reason_);
  if (clock::now() >= deadline_) {
    throw quiesce_error(fmt::format("the host was thawed at the limit of {:g} s",
                                    static_cast<double>(plan_.max_freeze_ms()) / 1000));
  }
}

bool quiesce::at_rest(const std::string& who) {
  const std::lock_guard lock(mutex_);
  const member& one = members_.at(who);
  check(one);
  return frozen_ && one.joined;
}

void quiesce::thaw_now() {
  FreezerRequest request;
  request.set_end(true);
  if (freezer_) freezer_->send(request);
}

void quiesce::end(const std::string& who) {
  std::unique_lock lock(mutex_);
  member& one = members_.at(who);
  if (std::exchange(one.news, nullptr) == nullptr || !freezer_) return;
  const bool was_thawed = thawing_ || gone_;
  FreezerRequest request;
  request.set_leave(who);
  freezer_->send(request);
  on_thawed_.wait(lock, [&] { return thawed_; });
  if (was_thawed || was_asked_) {
    if (!reason_.empty()) throw quiesce_error(reason_);
  } else if (!thawed_by_other_.empty()) {
    throw quiesce_error("somebody else has thawed " + thawed_by_other_);
  }
}

bool quiesce::thawed() {
  const std::lock_guard lock(mutex_);
  return thawed_ || !freezer_;
}

bool quiesce::over() {
  const std::lock_guard lock(mutex_);
  return gone_ || !freezer_;
}

quiesce::clock::time_point quiesce::deadline() {
  const std::lock_guard lock(mutex_);
  return deadline_;
}

quiesce::clock::time_point quiesce::since() {
  const std::lock_guard lock(mutex_);
  return frozen_at_;
}

milliseconds quiesce::frozen_for() {
  const std::lock_guard lock(mutex_);
  return frozen_for_;
}

milliseconds quiesce::freeze_took() {
  const std::lock_guard lock(mutex_);
  if (!frozen_ || !begun_) return {};
  return std::chrono::ceil<milliseconds>(frozen_at_ - begun_at_);
}

std::vector<hook_run> quiesce::runs() {
  const std::lock_guard lock(mutex_);
  return runs_;
}

std::vector<file_system_freeze> quiesce::file_systems() {
  const std::lock_guard lock(mutex_);
  return file_systems_;
}

std::vector<std::string> quiesce::others(const std::string& who) {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> names;
  for (const auto& [name, one] : members_) {
    if (name != who && one.joined) names.push_back(name);
  }
  return names;
}

void quiesce::raise_all() {
  for (const auto& [name, one] : members_) {
    if (one.news != nullptr) one.news->raise();
  }
}

void quiesce::listen() {
  for (bool gone = false; !gone;) {
    pollfd watched[] = {{freezer_->fd(), POLLIN, 0}, {destroyed_.fd(), POLLIN, 0}};
    if (poll_until(watched, next_report()) == 0) {
      freezer_->kill();
      const std::lock_guard lock(mutex_);
      reason_ = "the freezer did not answer";
      thawing_ = true;
      thawing_until_ = clock::time_point::max();
      raise_all();
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
    raise_all();
    begun = begun_at_;
  }
  if (died) {
    try {
      recover(plan_.run_dir(), milliseconds(plan_.hook_timeout_ms()), -1);
    } catch (const std::runtime_error& error) {
      agent_log().error("no other freezer can be started: {}", printable(error.what()));
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
    case FreezerReport::kFileSystem: {
      const auto& one = file_systems_.emplace_back(report.file_system());
      agent_log().debug("{} was frozen within {} ms", printable(one.mount_point()), one.ms());
      break;
    }
    case FreezerReport::kBegun:
      begun_ = true;
      begun_at_ = clock::now();
      deadline_ = from_ms(report.begun());
      hold_.emplace();
      no_core_dump_.emplace();
      break;
    case FreezerReport::kFrozen:
      frozen_ = true;
      frozen_at_ = clock::now();
      break;
    case FreezerReport::kJoined:
      if (const auto one = members_.find(report.joined()); one != members_.end()) {
        one->second.joined = true;
      }
      break;
    case FreezerReport::kThawing:
      thawing_ = true;
      thawing_until_ = from_ms(report.thawing().until());
      reason_ = report.thawing().reason();
      was_asked_ = reason_.empty();
      break;
    case FreezerReport::kThawed:
      thawing_ = thawed_ = true;
      frozen_for_ = milliseconds(report.thawed().frozen_ms());
      reason_ = report.thawed().reason();
      thawed_by_other_ = report.thawed().thawed_by_other();
      hold_.reset();
      no_core_dump_.reset();
      on_thawed_.notify_all();
      break;
    default:
      break;
  }
  raise_all();
}

quiesce::clock::time_point quiesce::next_report() {
  const std::lock_guard lock(mutex_);
  if (!begun_ || thawed_) return clock::time_point::max();
  const auto due = thawing_ ? thawing_until_ : deadline_;
  return due == clock::time_point::max() ? due : due + kGrace;
}

}  // namespace vexo::tools
