#include "plugin_agent/host_rests.h"

namespace vexo::tools {

host_rests::mirror_wait::mirror_wait(host_rests& all, event& news) : all_(all), news_(news) {
  const std::lock_guard lock(all_.mutex_);
  all_.waiting_.insert(&news_);
}

host_rests::mirror_wait::~mirror_wait() {
  const std::lock_guard lock(all_.mutex_);
  all_.waiting_.erase(all_.waiting_.find(&news_));
}

bool host_rests::while_thawed(const std::function<void()>& write) {
  const std::lock_guard lock(mutex_);
  if (const auto current = current_.lock(); current && !current->thawed()) return false;
  write();
  return true;
}

void host_rests::gather() {
  const std::lock_guard lock(mutex_);
  const auto now = clock::now();
  if (now < gathered_) return;
  gathered_ = now + kGatherTime;
  for (event* const news : waiting_) news->raise();
}

bool host_rests::is_gathering() {
  const std::lock_guard lock(mutex_);
  return clock::now() < gathered_;
}

bool host_rests::has_gathered() {
  const std::lock_guard lock(mutex_);
  return waiting_.empty() || clock::now() >= gathered_;
}

std::shared_ptr<quiesce> host_rests::enter(const FreezerPlan& plan, event& news,
                                           std::chrono::milliseconds hold) {
  const std::lock_guard lock(mutex_);
  auto current = current_.lock();
  if (current && current->join(plan.member(), news, hold)) return current;
  auto begun = std::make_shared<quiesce>(plan, news);
  current_ = begun;
  return begun;
}

}  // namespace vexo::tools
