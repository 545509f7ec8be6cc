#include "plugin_agent/quiesce.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace vexo::tools {

namespace {

using std::chrono::milliseconds;

// The guardian's deadline lies behind the agent's own, which is to come first in all good order.
constexpr milliseconds kGuardianGrace{300};

std::string errno_text(int error) { return std::generic_category().message(error); }

std::string seconds_text(milliseconds time) {
  return fmt::format("{:g} s", std::chrono::duration<double>(time).count());
}

}  // namespace

quiesce::quiesce(const quiesce_plan& plan, std::optional<freeze_turn> turn, hook_runner& runner,
                 std::vector<hook_run>& runs)
    : plan_(plan),
      turn_(std::move(turn)),
      runner_(runner),
      runs_(runs),
      start_(clock::now()),
      deadline_(start_ + plan.max_freeze) {}

quiesce::~quiesce() {
  try {
    end();
  } catch (const quiesce_error&) {
    // Whoever is interested has called end().
  }
}

void quiesce::begin() {
  if (plan_.empty()) return;
  try {
    file_systems_ = open_file_systems(plan_.mount_points);
    freeze_record record;
    for (const auto& one : file_systems_) {
      record.file_systems.push_back({one.mount_point, one.device});
      guardian_plan_.file_systems.push_back(one.root.get());
    }
    for (const auto& one : plan_.hooks) {
      record.hooks.push_back(one.path);
      guardian_plan_.thaw_hooks.emplace_back(std::vector<std::string>{one.path, "thaw"},
                                             runner_.environment());
    }
    hold_.emplace();
    turn_->write(record);
    start_ = clock::now();
    deadline_ = start_ + plan_.max_freeze;
    guardian_plan_.hook_timeout = plan_.hook_timeout;
    guardian_plan_.deadline = deadline_ + kGuardianGrace;
    guardian_plan_.turn_fd = turn_->fd();
    watcher_.emplace(guardian_plan_);
    no_core_dump_.emplace();
  } catch (const std::runtime_error& error) {
    throw quiesce_error(error.what());
  }
  if (!watcher_->memory_locked()) {
    agent_log().warn(
        "the guardian's memory could not be locked (needs CAP_IPC_LOCK or a higher "
        "LimitMEMLOCK); going on");
  }
  freeze_hooks();
  freeze_file_systems();
  check();
}

void quiesce::freeze_hooks() {
  for (std::size_t i = 0; i < plan_.hooks.size(); ++i) {
    check();
    if (!watcher_->will_run_freeze_hook(i)) check();
    hooks_started_ = i + 1;
    const auto left = std::chrono::ceil<milliseconds>(deadline_ - clock::now());
    const auto timeout = std::min(plan_.hook_timeout, left);
    runs_.push_back(runner_.run(plan_.hooks[i], "freeze", timeout, &*watcher_));
    const hook_run& run = runs_.back();
    if (run.timed_out) {
      throw quiesce_error("freeze hook " + run.name + " took longer than " + seconds_text(timeout));
    }
    if (!run.ok()) {
      throw quiesce_error("freeze hook " + run.name + " exited with " +
                          std::to_string(run.exit_code));
    }
  }
}

void quiesce::freeze_file_systems() {
  for (std::size_t i = 0; i < file_systems_.size(); ++i) {
    check();
    if (!watcher_->will_freeze_file_system(i)) check();
    const file_system& one = file_systems_[i];
    if (const int error = freeze_file_system(one.root.get()); error != 0) {
      watcher_->file_system_is_not_ours(i);
      throw quiesce_error(one.mount_point + " cannot be frozen: " +
                          (error == EBUSY
                               ? "somebody else has frozen it (see \"fsfreeze --unfreeze\")"
                               : errno_text(error)) +
                          (error == EPERM ? " (the agent needs CAP_SYS_ADMIN)" : ""));
    }
    frozen_.push_back(&one);
  }
}

void quiesce::check() {
  if (watcher_ && !watcher_->watching()) {
    throw quiesce_error(watcher_->has_thawed() ? "the guardian has thawed the host"
                                               : "the guardian has died");
  }
  if (clock::now() >= deadline_) {
    throw quiesce_error("the host was thawed at the limit of " + seconds_text(plan_.max_freeze));
  }
}

void quiesce::end() {
  if (std::exchange(ended_, true) || !watcher_) return;
  const thaw_outcome outcome = thaw_file_systems();
  const bool hooks_thawed = thaw_hooks();
  // What is left of a killed freeze hook may freeze something yet: the guardian waits for its end.
  const bool hook_killed = std::any_of(runs_.begin(), runs_.end(), [](const auto& run) {
    return run.phase == "freeze" && run.timed_out;
  });
  const bool sure = outcome.sure && hooks_thawed && !hook_killed;
  const bool guardian_thawed = !watcher_->watching() && watcher_->has_thawed();
  watcher_->dismiss(sure);
  frozen_for_ = std::chrono::ceil<milliseconds>(clock::now() - start_);
  if (sure) turn_->remove_record();
  no_core_dump_.reset();
  turn_.reset();
  hold_.reset();
  if (guardian_thawed) throw quiesce_error("the guardian has thawed the host");
  if (!outcome.already_thawed.empty()) {
    throw quiesce_error("somebody else has thawed " + outcome.already_thawed);
  }
}

quiesce::thaw_outcome quiesce::thaw_file_systems() {
  thaw_outcome outcome;
  for (std::size_t i = frozen_.size(); i-- > 0;) {
    const file_system& one = *frozen_[i];
    const int error = thaw_file_system(one.root.get());
    if (error == EINVAL) {
      outcome.already_thawed = one.mount_point;
    } else if (error != 0) {
      outcome.sure = false;
      agent_log().error("{0} cannot be thawed: {1}; try \"fsfreeze --unfreeze {0}\"",
                        printable(one.mount_point), printable(errno_text(error)));
    }
  }
  return outcome;
}

bool quiesce::thaw_hooks() {
  bool all_ok = true;
  watcher_->running_thaw_hooks();
  for (std::size_t i = hooks_started_; i-- > 0;) {
    try {
      runs_.push_back(runner_.run(plan_.hooks[i], "thaw", plan_.hook_timeout, nullptr));
      all_ok = all_ok && runs_.back().ok();
    } catch (const std::system_error& error) {
      agent_log().error("thaw hook {}: {}", printable(plan_.hooks[i].name),
                        printable(error.what()));
      all_ok = false;
    }
  }
  if (!all_ok) agent_log().error("a thaw hook failed; the guardian runs the thaw hooks once more");
  return all_ok;
}

}  // namespace vexo::tools
