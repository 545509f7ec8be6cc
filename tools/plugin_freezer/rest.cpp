#include "plugin_freezer/rest.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#include "plugin_freezer/hook_runs.h"
#include "plugin_freezer/other_freezer.h"

namespace vexo::tools {

using std::chrono::milliseconds;

rest::rest(event_loop& loop, run_directory& directory, const FreezerPlan& plan)
    : loop_(loop), directory_(directory), is_ours_(true), environment_(hook_environment(plan)) {
  std::vector<mount_entry> mounts;
  for (auto& opened : open_file_systems({plan.mount_points().begin(), plan.mount_points().end()})) {
    mounts.push_back(opened.mount);
    RestRecord::FileSystem facts;
    facts.set_mount_point(opened.mount.mount_point);
    facts.set_device(opened.mount.device);
    facts.set_type(opened.mount.type);
    facts.set_source(opened.mount.source);
    *record_.add_file_systems() = facts;
    volumes_.push_back({facts, std::move(opened.root)});
  }
  is_stacked_ = are_stacked(mounts);
  // What earlier rests could not thaw stays on record, and this rest tries again when it ends.
  const auto left = directory.record().value_or(RestRecord());
  for (const auto& facts : left.file_systems()) {
    if (std::any_of(mounts.begin(), mounts.end(),
                    [&](const auto& mount) { return mount.device == facts.device(); })) {
      continue;
    }
    *record_.add_file_systems() = facts;
    volumes_.push_back({facts, unique_fd(), true});
  }
  record_.set_boot_id(boot_id());
  *record_.mutable_plan() = plan;
  *record_.add_members() = plan.member();
}

rest::rest(event_loop& loop, run_directory& directory, RestRecord left)
    : loop_(loop),
      directory_(directory),
      is_ours_(false),
      record_(std::move(left)),
      environment_(hook_environment(record_.plan())) {
  if (!is_of_this_boot(record_.boot_id(), record_.plan().run_dir())) {
    // Nothing is frozen any more, and these numbers now stand for other devices and processes.
    record_.clear_file_systems();
    record_.clear_processes();
    record_.clear_members();
    record_.set_begun(to_ms(clock::now()));
  }
  record_.set_hooks_started(std::clamp(record_.hooks_started(), 0, record_.plan().hooks_size()));
  for (const auto& facts : record_.file_systems()) {
    volumes_.push_back({facts, unique_fd(), true});
  }
}

void rest::run() {
  const auto begun = clock::now();
  record_.set_begun(to_ms(begun));
  record_.set_until(to_ms(deadline()));
  bool asked = true;
  try {
    write_record();
    FreezerReport report;
    report.set_begun(to_ms(deadline()));
    loop_.agent.send(report);
    run_freeze_hooks();
    freeze_file_systems();
    throw_if_over();
    report.set_frozen(true);
    loop_.agent.send(report);
    for (;; throw_if_over()) loop_.wait(forced_thaw_time());
  } catch (const end_of_rest& why) {
    reason_ = why.what();
    asked = why.asked;
  } catch (const std::exception& error) {
    reason_ = error.what();
  }
  thaw(asked);
}

rest::clock::time_point rest::forced_thaw_time() const {
  const bool any_command =
      std::any_of(record_.members().begin(), record_.members().end(),
                  [](const auto& member) { return member.command_size() > 0; });
  return deadline() - (any_command ? std::min(kCommandTime, max_freeze() / 4) : milliseconds(0));
}

bool rest::answer_requests(bool at_rest) {
  bool end = false;
  for (; !loop_.requests.empty(); loop_.requests.pop_front()) {
    const auto& request = loop_.requests.front();
    FreezerReport answer;
    auto& members = *record_.mutable_members();
    switch (request.kind_case()) {
      case FreezerRequest::kJoin:
        if (at_rest && !end) {
          *members.Add() = request.join();
          write_record();
          answer.set_joined(request.join().name());
        } else {
          answer.mutable_refused()->set_name(request.join().name());
          answer.mutable_refused()->set_reason("the rest is over");
        }
        loop_.agent.send(answer);
        break;
      case FreezerRequest::kLeave: {
        const auto gone = std::remove_if(members.begin(), members.end(), [&](const auto& member) {
          return member.name() == request.leave();
        });
        members.erase(gone, members.end());
        end = end || members.empty();
        if (at_rest && !end) write_record();
        break;
      }
      default:
        is_told_to_thaw_ = is_told_to_thaw_ || request.kind_case() == FreezerRequest::kEnd;
    }
  }
  return end;
}

void rest::throw_if_over() {
  if (answer_requests(true)) throw end_of_rest("", true);
  if (is_told_to_thaw_) {
    throw end_of_rest("the agent was told to stop before the split was over", false);
  }
  if (loop_.terminated) throw end_of_rest("the freezer was told to thaw by a signal", false);
  if (loop_.agent_gone) throw end_of_rest("the agent has gone", false);
  if (clock::now() >= forced_thaw_time()) {
    throw end_of_rest("the host was thawed at the limit of " + seconds_text(max_freeze()), false);
  }
}

void rest::await_freezing(const child& step) {
  while (step.is_running()) {
    loop_.wait(forced_thaw_time());
    if (step.is_running()) throw_if_over();
  }
}

child& rest::start_hook(int index, const std::string& phase, clock::duration timeout) {
  return loop_.programs.start({record_.plan().hooks(index).path(), phase}, environment_, timeout);
}

void rest::report_hook(int index, const std::string& phase, const child& run) {
  const auto& hook = record_.plan().hooks(index);
  if (!is_ours_) {
    loop_.agent.warn("ran hook " + hook.name() + " " + phase +
                     " after an earlier agent: exit code " +
                     std::to_string(run.killed ? 128 + SIGKILL : *run.exit_code));
    return;
  }
  loop_.agent.send(hook_report(hook, phase, run));
}

void rest::run_freeze_hooks() {
  for (int i = 0; i < record_.plan().hooks_size(); ++i) {
    throw_if_over();
    record_.set_hooks_started(i + 1);
    write_record();
    const auto timeout = std::min<clock::duration>(milliseconds(record_.plan().hook_timeout_ms()),
                                                   deadline() - clock::now());
    child& run = start_hook(i, "freeze", timeout);
    freezing_ = &run;
    try {
      if (run.pid > 0) write_processes({look_at(run.pid)});
      await_freezing(run);
    } catch (const std::runtime_error&) {
      loop_.programs.kill(run);
      report_hook(i, "freeze", run);
      throw;
    }
    freezing_ = nullptr;
    report_hook(i, "freeze", run);
    if (run.killed) {
      throw end_of_rest("freeze hook " + record_.plan().hooks(i).name() + " took longer than " +
                            seconds_text(std::chrono::ceil<milliseconds>(timeout)),
                        true);
    }
    if (!run.succeeded()) {
      throw end_of_rest("freeze hook " + record_.plan().hooks(i).name() + " exited with " +
                            std::to_string(*run.exit_code),
                        true);
    }
    write_processes({});
  }
}

// All at the same time where that is possible, since most of a freeze is waiting in the kernel.
void rest::freeze_file_systems() {
  const auto count = static_cast<std::size_t>(std::count_if(
      volumes_.begin(), volumes_.end(), [](const volume& one) { return !!one.root; }));
  const std::size_t at_once = is_stacked_ ? 1 : std::max<std::size_t>(count, 1);
  for (std::size_t begin = 0; begin < count; begin += at_once) {
    throw_if_over();
    std::vector<process> under_way;
    for (std::size_t i = begin; i < begin + at_once; ++i) {
      volume& one = volumes_[i];
      one.freezing = &loop_.programs.fork_call([&] { return freeze_file_system(one.root.get()); },
                                               [&](pid_t pid) {
                                                 under_way.push_back(look_at(pid));
                                                 write_processes(under_way);
                                               });
      one.may_be_frozen = true;
    }
    for (std::size_t i = begin; i < begin + at_once; ++i) await_freezing(*volumes_[i].freezing);
    write_processes({});
    std::string refusal;
    for (std::size_t i = begin; i < begin + at_once; ++i) {
      const child& step = *volumes_[i].freezing;
      const int error = take_freeze_result(volumes_[i]);
      if (error == 0) {
        FreezerReport report;
        auto& done = *report.mutable_file_system();
        done.set_mount_point(volumes_[i].facts.mount_point());
        done.set_ms(std::chrono::ceil<milliseconds>(step.end - step.start).count());
        loop_.agent.send(report);
        continue;
      }
      refusal = volumes_[i].facts.mount_point() + " cannot be frozen: " +
                (error == EBUSY     ? "somebody else has frozen it (see \"fsfreeze --unfreeze\")"
                 : is_signal(error) ? "somebody killed the process that froze it"
                                    : std::generic_category().message(error)) +
                (error == EPERM ? " (the agent needs CAP_SYS_ADMIN)" : "");
    }
    if (!refusal.empty()) throw end_of_rest(refusal, true);
  }
}

int rest::take_freeze_result(volume& one) {
  const int error = *std::exchange(one.freezing, nullptr)->exit_code;
  if (error != 0 && !is_signal(error)) one.may_be_frozen = false;
  return error;
}

void rest::write_record() { directory_.write_record(record_); }

void rest::write_processes(const std::vector<process>& all) {
  record_.clear_processes();
  for (const auto& one : all) {
    auto& written = *record_.add_processes();
    written.set_pid(one.pid);
    written.set_start(one.start);
  }
  write_record();
}

}  // namespace vexo::tools
