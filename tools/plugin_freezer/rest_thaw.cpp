// The half of class rest that thaws.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <numeric>
#include <system_error>
#include <utility>

#include "plugin_freezer/other_freezer.h"
#include "plugin_freezer/rest.h"
#include "plugin_freezer/thaw_by_device.h"

namespace vexo::tools {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kThawTime{1000};  // then the `thaw` hooks run, thawed or not
constexpr milliseconds kDyingTime{400};  // for killed processes, until they are said to linger
constexpr milliseconds kHookTurn{1000};  // then the next `thaw` hook starts, ended or not
constexpr milliseconds kLook{100};       // between two looks at lingering processes
constexpr milliseconds kLongestPause{60000};

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
    loop_.agent.error(error.what());
  }
  FreezerReport report;
  report.mutable_thawing()->set_until(to_ms(until));
  report.mutable_thawing()->set_reason(reason_);
  loop_.agent.send(report);

  if (freezing_ != nullptr) loop_.programs.kill(*freezing_);
  for (auto& one : volumes_) {
    if (one.freezing == nullptr) continue;
    if (one.freezing->ended() && !one.freezing->killed) {
      take_freeze_result(one);
    } else {
      loop_.programs.kill(*one.freezing);
    }
  }
  if (!asked) run_commands();
  const bool was_dying = any_lingers();
  thaw_file_systems();
  await_lingering(clock::now() + kDyingTime);
  outlasts_thaw_ = any_lingers();
  if (was_dying && !outlasts_thaw_) thaw_again();

  // Also of the hooks whose `freeze` has not been run: this undoes their `prepare`.
  std::vector<int> all(record_.plan().hooks_size());
  std::iota(all.begin(), all.end(), 0);
  failed_hooks_ = run_thaw_hooks(all);
  if (!failed_hooks_.empty()) {
    loop_.agent.error("a thaw hook failed; it is run once more");
    failed_hooks_ = run_thaw_hooks(failed_hooks_);
    for (const int index : failed_hooks_) {
      loop_.agent.error("the thaw of hook " + record_.plan().hooks(index).name() +
                        " failed twice: look at its application; \"plugin_freezer --thaw\" runs "
                        "it again");
    }
  }
  thawed_at_ = clock::now();
  const auto lasted = std::chrono::floor<milliseconds>(thawed_at_ - from_ms(record_.begun()));
  if (is_ours_ && reason_.empty() && lasted > max_freeze()) {
    reason_ = "the host was at rest for " + seconds_text(lasted) + ", longer than the limit of " +
              seconds_text(max_freeze());
  }
  watch_unfinished();
  try {
    directory_.set_not_before(thawed_at_ + std::min(lasted, kLongestPause));
  } catch (const std::system_error& error) {
    loop_.agent.error(error.what());
  }
  end_record();
  directory_.unlock();
  report_thawed(is_certain());
}

bool rest::is_certain() const {
  return failed_hooks_.empty() && std::none_of(volumes_.begin(), volumes_.end(),
                                               [](const auto& one) { return one.may_be_frozen; });
}

void rest::end_record() {
  if (is_certain()) return directory_.remove_record();
  record_.clear_members();
  record_.clear_processes();
  record_.clear_file_systems();
  for (const auto& one : volumes_) {
    if (one.may_be_frozen) *record_.add_file_systems() = one.facts;
  }
  if (failed_hooks_.empty()) {
    record_.mutable_plan()->clear_hooks();
    record_.set_hooks_started(0);
  }
  try {
    write_record();
  } catch (const std::system_error& error) {
    loop_.agent.error(error.what());
  }
}

bool rest::any_lingers() { return !loop_.programs.lingering().empty(); }

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
  loop_.programs.kill_others(left);
  thaw(false);
  return is_certain();
}

void rest::run_commands() {
  std::vector<std::pair<std::string, child*>> commands;
  for (const auto& member : record_.members()) {
    if (member.command_size() == 0) continue;
    commands.emplace_back(member.name(),
                          &loop_.programs.start({member.command().begin(), member.command().end()},
                                                environment_, kCommandTime));
  }
  const auto until = std::min(clock::now() + kCommandTime, deadline());
  const auto is_running = [](const auto& one) { return one.second->is_running(); };
  while (std::any_of(commands.begin(), commands.end(), is_running) && clock::now() < until) {
    loop_.wait(until);
  }
  for (const auto& [name, command] : commands) {
    if (command->succeeded()) continue;
    loop_.agent.warn("LUN " + name + ": the command before the thaw " +
                     (command->ended() && !command->killed
                          ? "exited with " + std::to_string(*command->exit_code)
                          : std::string("took too long")) +
                     (command->output.empty() ? "" : ": " + command->output));
  }
}

void rest::thaw_file_systems() {
  for (auto& one : volumes_) start_thawing(one);
  const auto is_thawing = [](const volume& one) { return one.is_thawing(); };
  const auto until = clock::now() + kThawTime;
  while (std::any_of(volumes_.begin(), volumes_.end(), is_thawing) && clock::now() < until) {
    loop_.wait(until);
  }
  for (auto& one : volumes_) take_thaw_result(one);
}

// Each in a child of its own, so that a device that hangs does not keep the others frozen. It is
// never killed: on a host without processor time it would be killed before its call.
void rest::start_thawing(volume& one) {
  if (!one.may_be_frozen || one.thawing != nullptr) return;
  const auto call = [&] {
    return one.root ? thaw_file_system(one.root.get())
                    : thaw_by_device(one.facts, record_.plan().run_dir());
  };
  try {
    one.thawing = &loop_.programs.fork_call(call, [](pid_t) {});
  } catch (const std::system_error&) {  // no process can be started
    note_thaw(one, call());
  }
}

void rest::take_thaw_result(volume& one) {
  if (one.thawing == nullptr || !one.thawing->ended()) return;
  const int result = *std::exchange(one.thawing, nullptr)->exit_code;
  note_thaw(one, is_signal(result) ? EINTR : result);
}

void rest::note_thaw(volume& one, int error) {
  const std::string& mount_point = one.facts.mount_point();
  if (error == 0 || error == EINVAL) one.may_be_frozen = false;
  if (error == 0) {
    if (!one.root) {
      loop_.agent.warn(mount_point + " was left frozen by an earlier agent; thawed");
    }
  } else if (error == EINVAL) {
    if (one.root) thawed_by_other_ = mount_point;
    if (one.root && reason_.empty()) reason_ = "somebody else has thawed " + mount_point;
  } else if (error == ENODEV) {
    loop_.agent.error("the file system on " + one.facts.source() + " that was mounted at " +
                      mount_point +
                      " may be frozen, and is mounted nowhere; mount it anywhere, then run "
                      "\"plugin_freezer --thaw\"");
  } else {
    loop_.agent.error(mount_point + " cannot be thawed: " + std::generic_category().message(error) +
                      "; try \"fsfreeze --unfreeze " + mount_point + "\"");
  }
}

std::vector<int> rest::run_thaw_hooks(const std::vector<int>& which) {
  const milliseconds timeout(record_.plan().hook_timeout_ms());
  std::vector<std::pair<int, child*>> runs;
  const auto is_running = [](const auto& one) { return one.second->is_running(); };
  for (const int index : std::vector<int>(which.rbegin(), which.rend())) {
    const auto& path = record_.plan().hooks(index).path();
    if (access(path.c_str(), X_OK) != 0 && !is_ours_) {
      loop_.agent.warn("hook " + path + " of an earlier agent is missing: its `thaw` is not run");
      continue;
    }
    runs.emplace_back(index, &start_hook(index, "thaw", timeout));
    const auto next = std::min(clock::now() + kHookTurn, deadline());
    while (is_running(runs.back()) && clock::now() < next) loop_.wait(next);
  }
  while (std::any_of(runs.begin(), runs.end(), is_running)) loop_.wait(clock::time_point::max());
  std::vector<int> failed;
  for (const auto& [index, run] : runs) {
    report_hook(index, "thaw", *run);
    if (!run->succeeded()) failed.insert(failed.begin(), index);
  }
  return failed;
}

void rest::await_lingering(clock::time_point until) {
  constexpr milliseconds kShortLook{5};
  while (any_lingers() && clock::now() < until) {
    loop_.wait(clock::now() + kShortLook);
  }
}

std::vector<process> rest::unfinished() {
  auto all = loop_.programs.lingering();
  for (const auto& one : volumes_) {
    if (one.is_thawing()) all.push_back(look_at(one.thawing->pid));
  }
  return all;
}

void rest::watch_unfinished() {
  auto left = unfinished();
  if (!left.empty()) {
    std::string ids;
    for (const auto& one : left) ids.append(" ").append(std::to_string(one.pid));
    loop_.agent.warn(
        "waiting for processes that may still freeze or thaw something; no other rest of this host "
        "begins before (process" +
        ids + ")");
    record_.set_phase(RestRecord::WATCHING);
    record_.set_until(0);
    write_processes(left);  // before anybody believes that the host is thawed
    report_thawed(false);
  }
  for (std::size_t written = left.size();; left = unfinished()) {
    if (left.empty()) {
      if (!std::exchange(outlasts_thaw_, false)) return;
      thaw_again();
      thaw_last_hook();
      thawed_at_ = clock::now();
      loop_.agent.warn("these processes have ended; thawed again");
      continue;
    }
    if (written != left.size()) {
      write_processes(left);
      written = left.size();
    }
    loop_.wait(clock::now() + kLook);
    answer_requests(false);
    for (auto& one : volumes_) {
      if (one.freezing != nullptr && one.freezing->ended()) {
        one.freezing = nullptr;
        one.may_be_frozen = true;
        start_thawing(one);
      }
      take_thaw_result(one);
    }
  }
}

// Also runs the `thaw` hooks that have failed.
void rest::thaw_last_hook() {
  const int last = record_.hooks_started() - 1;
  if (last >= 0 && std::count(failed_hooks_.begin(), failed_hooks_.end(), last) == 0) {
    failed_hooks_.push_back(last);
    std::sort(failed_hooks_.begin(), failed_hooks_.end());
  }
  failed_hooks_ = run_thaw_hooks(failed_hooks_);
}

// For a freeze that was under way at the first thaw and may have completed after it.
void rest::thaw_again() {
  for (auto& one : volumes_) {
    const bool was_freezing = std::exchange(one.freezing, nullptr) != nullptr;
    one.may_be_frozen = one.may_be_frozen || was_freezing || !one.root;
  }
  thaw_file_systems();
}

void rest::report_thawed(bool certain) {
  if (std::exchange(is_reported_, true)) return;
  answer_requests(false);
  FreezerReport report;
  report.mutable_thawed()->set_frozen_ms(
      std::chrono::ceil<milliseconds>(thawed_at_ - from_ms(record_.begun())).count());
  report.mutable_thawed()->set_reason(reason_);
  report.mutable_thawed()->set_certain(certain);
  report.mutable_thawed()->set_thawed_by_other(thawed_by_other_);
  loop_.agent.send(report);
}

}  // namespace vexo::tools
