// How a rest is undone.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <numeric>
#include <system_error>
#include <utility>

#include "plugin_freezer/rest.h"
#include "plugin_freezer/thaw_by_device.h"

namespace vexo::tools {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kThawTime{1000};  // until the `thaw` hooks are run all the same
constexpr milliseconds kDyingTime{400};  // until a killed step counts as one that outlasts the thaw
constexpr milliseconds kHookTurn{1000};  // until the next `thaw` hook starts all the same
constexpr milliseconds kLook{100};
constexpr milliseconds kLongestRest{60000};

bool is_running(const child* call) { return call != nullptr && !call->ended(); }

}  // namespace

void rest::thaw(bool asked) {
  const milliseconds hook_timeout(record_.plan().hook_timeout_ms());
  const auto hooks_time = record_.plan().hooks_size() * kHookTurn + hook_timeout;
  const auto until = clock::now() + kCommandTime + kThawTime + kDyingTime + 2 * hooks_time;
  record_.set_phase(RestRecord::THAWING);
  record_.set_until(to_ms(until));
  try {
    write_record();
  } catch (const std::system_error& error) {
    world_.report.error(error.what());
  }
  FreezerReport report;
  report.mutable_thawing()->set_until(to_ms(until));
  report.mutable_thawing()->set_reason(reason_);
  world_.report.send(report);

  if (freezing_ != nullptr) world_.programs.kill(*freezing_);
  for (auto& one : volumes_) {
    if (one.freezing == nullptr) continue;
    if (one.freezing->ended() && !one.freezing->killed) {
      frozen(one);
    } else {
      world_.programs.kill(*one.freezing);
    }
  }
  if (!asked) run_commands();
  const bool was_dying = !world_.programs.lingering().empty();
  thaw_file_systems();
  await_lingering(clock::now() + kDyingTime);
  is_late_ = !world_.programs.lingering().empty();
  if (was_dying && !is_late_) thaw_again();

  // Also of those that were not to freeze yet: their `prepare` is undone by it.
  std::vector<int> all(record_.plan().hooks_size());
  std::iota(all.begin(), all.end(), 0);
  const auto failed = thaw_hooks(all);
  if (!failed.empty()) {
    world_.report.error("a thaw hook failed; it is run once more");
    if (!thaw_hooks(failed).empty() && is_ours_) certain_ = false;
  }
  thawed_at_ = clock::now();
  const auto lasted = std::chrono::floor<milliseconds>(thawed_at_ - from_ms(record_.begun()));
  if (is_ours_ && reason_.empty() && lasted > max_freeze()) {
    reason_ = "the host was at rest for " + seconds_text(lasted) + ", longer than the limit of " +
              seconds_text(max_freeze());
  }
  watch();
  try {
    turn_.set_not_before(thawed_at_ + std::min(lasted, kLongestRest));
  } catch (const std::system_error& error) {
    world_.report.error(error.what());
  }
  if (certain_) turn_.remove_record();
  turn_.give_back();
  tell_thawed();
}

void rest::undo_prepare() {
  record_.set_begun(to_ms(clock::now()));
  record_.set_hooks_started(record_.plan().hooks_size());
  thaw(true);
}

bool rest::recover() {
  std::vector<process> left;
  for (const auto& one : record_.processes()) {
    left.push_back({.pid = one.pid(), .start = one.start()});
  }
  world_.programs.watch(left);
  thaw(false);
  return certain_;
}

void rest::run_commands() {
  std::vector<std::pair<std::string, child*>> commands;
  for (const auto& member : record_.members()) {
    if (member.command_size() == 0) continue;
    commands.emplace_back(member.name(),
                          &world_.programs.start({member.command().begin(), member.command().end()},
                                                 environment_, kCommandTime));
  }
  const auto until = std::min(clock::now() + kCommandTime, deadline());
  const auto is_running = [](const auto& one) {
    return !one.second->ended() && !one.second->killed;
  };
  while (std::any_of(commands.begin(), commands.end(), is_running) && clock::now() < until) {
    world_.wait(until);
  }
  for (const auto& [name, command] : commands) {
    if (command->succeeded()) continue;
    world_.report.warn("LUN " + name + ": the command before the thaw " +
                       (command->ended() && !command->killed
                            ? "exited with " + std::to_string(*command->exit_code)
                            : std::string("took too long")) +
                       (command->output.empty() ? "" : ": " + command->output));
  }
}

void rest::thaw_file_systems() {
  for (auto& one : volumes_) start_thawing(one);
  const auto is_thawing = [](const volume& one) { return is_running(one.thawing); };
  const auto until = clock::now() + kThawTime;
  while (std::any_of(volumes_.begin(), volumes_.end(), is_thawing) && clock::now() < until) {
    world_.wait(until);
  }
  for (auto& one : volumes_) settle(one);
}

// In a child of its own, so that one whose device hangs does not keep the others frozen. It is
// never killed: on a host without processor time it would be killed before its call.
void rest::start_thawing(volume& one) {
  if (!one.may_be_frozen || one.thawing != nullptr) return;
  const auto call = [&] {
    return one.root ? thaw_file_system(one.root.get())
                    : thaw_by_device(one.facts, record_.plan().run_dir());
  };
  try {
    one.thawing = &world_.programs.fork_call(call, [](pid_t) {});
  } catch (const std::system_error&) {  // no process to be had
    if (call() == 0) one.may_be_frozen = false;
  }
}

void rest::settle(volume& one) {
  if (one.thawing == nullptr || !one.thawing->ended()) return;
  const int error = *std::exchange(one.thawing, nullptr)->exit_code;
  const std::string& mount_point = one.facts.mount_point();
  if (error == 0 || error == EINVAL) one.may_be_frozen = false;
  if (error == 0) {
    if (!is_ours_) {
      world_.report.warn(mount_point + " was left frozen by an earlier agent; thawed");
    }
  } else if (error == EINVAL) {
    if (is_ours_) disturbed_ = mount_point;
    if (is_ours_ && reason_.empty()) reason_ = "somebody else has thawed " + mount_point;
  } else if (error == ENODEV) {
    certain_ = false;
    world_.report.error("the file system on " + one.facts.source() + " that was mounted at " +
                        mount_point +
                        " may be frozen, and is mounted nowhere; mount it anywhere, then run "
                        "\"plugin_freezer --thaw\"");
  } else {
    certain_ = false;
    world_.report.error(mount_point + " cannot be thawed: " + failure_text(error) +
                        "; try \"fsfreeze --unfreeze " + mount_point + "\"");
  }
}

std::vector<int> rest::thaw_hooks(const std::vector<int>& which) {
  const milliseconds timeout(record_.plan().hook_timeout_ms());
  std::vector<std::pair<int, child*>> runs;
  const auto is_running = [](const auto& one) {
    return !one.second->ended() && !one.second->killed;
  };
  for (const int index : std::vector<int>(which.rbegin(), which.rend())) {
    const auto& path = record_.plan().hooks(index).path();
    if (access(path.c_str(), X_OK) != 0 && !is_ours_) {
      world_.report.warn("hook " + path + " of an earlier agent is not there to thaw");
      continue;
    }
    runs.emplace_back(index, &start_hook(index, "thaw", timeout));
    const auto next = std::min(clock::now() + kHookTurn, deadline());
    while (is_running(runs.back()) && clock::now() < next) world_.wait(next);
  }
  while (std::any_of(runs.begin(), runs.end(), is_running)) world_.wait(clock::time_point::max());
  std::vector<int> failed;
  for (const auto& [index, run] : runs) {
    report_hook(index, "thaw", *run);
    if (!run->succeeded()) failed.insert(failed.begin(), index);
  }
  return failed;
}

void rest::await_lingering(clock::time_point until) {
  constexpr milliseconds kShortLook{5};
  while (!world_.programs.lingering().empty() && clock::now() < until) {
    world_.wait(clock::now() + kShortLook);
  }
}

std::vector<process> rest::unfinished() {
  auto all = world_.programs.lingering();
  for (const auto& one : volumes_) {
    if (is_running(one.thawing)) all.push_back(look_at(one.thawing->pid));
  }
  return all;
}

void rest::watch() {
  auto left = unfinished();
  if (!left.empty()) {
    std::string ids;
    for (const auto& one : left) ids.append(" ").append(std::to_string(one.pid));
    world_.report.warn(
        "waiting for what may freeze or thaw something yet; no other rest of this host begins "
        "before (process" +
        ids + ")");
    record_.set_phase(RestRecord::WATCHING);
    record_.set_until(0);
    write_processes(left);  // before anybody believes that the host is thawed
    certain_ = false;
    tell_thawed();
    certain_ = true;
  }
  for (std::size_t written = left.size();; left = unfinished()) {
    if (left.empty()) {
      if (!std::exchange(is_late_, false)) return;
      thaw_again();
      if (record_.hooks_started() > 0) thaw_hooks({record_.hooks_started() - 1});
      thawed_at_ = clock::now();
      world_.report.warn("what was waited for is gone; thawed again");
      continue;
    }
    if (written != left.size()) {
      write_processes(left);
      written = left.size();
    }
    world_.wait(clock::now() + kLook);
    answer_requests(false);
    for (auto& one : volumes_) {
      if (one.freezing != nullptr && one.freezing->ended()) {
        one.freezing = nullptr;
        one.may_be_frozen = true;
        start_thawing(one);
      }
      settle(one);
    }
  }
}

// A freeze that was under way at the first thaw may have completed after it.
void rest::thaw_again() {
  for (auto& one : volumes_) {
    const bool was_freezing = std::exchange(one.freezing, nullptr) != nullptr;
    one.may_be_frozen = one.may_be_frozen || was_freezing || !is_ours_;
  }
  thaw_file_systems();
}

void rest::tell_thawed() {
  if (std::exchange(is_told_, true)) return;
  answer_requests(false);
  FreezerReport report;
  report.mutable_thawed()->set_frozen_ms(
      std::chrono::ceil<milliseconds>(thawed_at_ - from_ms(record_.begun())).count());
  report.mutable_thawed()->set_reason(reason_);
  report.mutable_thawed()->set_certain(certain_);
  report.mutable_thawed()->set_disturbed(disturbed_);
  world_.report.send(report);
}

}  // namespace vexo::tools
