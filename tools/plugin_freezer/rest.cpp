#include "plugin_freezer/rest.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <sstream>
#include <system_error>
#include <utility>

#include "common/child_process.h"

namespace vexo::tools {

namespace {

using std::chrono::milliseconds;

std::vector<std::string> environment_of(const FreezerPlan& plan) {
  return merged_environment({plan.environment().begin(), plan.environment().end()});
}

FreezerReport::HookRun report_of(const FreezerPlan::Hook& hook, const std::string& phase,
                                 const child& run) {
  FreezerReport::HookRun said;
  said.set_name(hook.name());
  said.set_phase(phase);
  said.set_exit_code(run.killed ? 128 + SIGKILL : run.exit_code.value_or(0));
  said.set_timed_out(run.killed);
  const auto end = run.ended() ? run.end : child::clock::now();
  said.set_ms(std::chrono::duration_cast<milliseconds>(end - run.start).count());
  said.set_output(run.output);
  return said;
}

}  // namespace

std::string failure_text(int error) {
  return error < kKilled ? std::generic_category().message(error) : "the call was killed";
}

std::string seconds_text(milliseconds time) {
  std::ostringstream text;
  text << std::chrono::duration<double>(time).count() << " s";
  return text.str();
}

int run_prepare_hooks(outside& world, const FreezerPlan& plan) {
  const auto environment = environment_of(plan);
  int begun = 0;
  for (const auto& hook : plan.hooks()) {
    child& run = world.programs.start({hook.path(), "prepare"}, environment,
                                      milliseconds(plan.hook_timeout_ms()));
    ++begun;
    while (!run.ended() && !run.killed) {
      world.wait(child::clock::time_point::max());
      if (world.agent_gone || world.terminated || !world.requests.empty()) {
        world.programs.kill(run);
        return begun;
      }
    }
    FreezerReport report;
    *report.mutable_hook() = report_of(hook, "prepare", run);
    world.report.send(report);
    if (!run.succeeded()) break;
  }
  return begun;
}

rest::rest(outside& world, turn& right, const FreezerPlan& plan)
    : world_(world), turn_(right), is_ours_(true), environment_(environment_of(plan)) {
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
  record_.set_boot_id(boot_id());
  *record_.mutable_plan() = plan;
  *record_.add_members() = plan.member();
}

rest::rest(outside& world, turn& right, RestRecord left)
    : world_(world),
      turn_(right),
      is_ours_(false),
      record_(std::move(left)),
      environment_(environment_of(record_.plan())) {
  if (!is_of_this_boot(record_.boot_id(), record_.plan().run_dir())) {
    // Nothing is frozen any more, and what has these numbers now is something else.
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
    world_.report.send(report);
    freeze_hooks();
    freeze_file_systems();
    check();
    report.set_frozen(true);
    world_.report.send(report);
    for (;; check()) world_.wait(limit());
  } catch (const over& why) {
    reason_ = why.what();
    asked = why.asked;
  } catch (const std::exception& error) {
    reason_ = error.what();
  }
  thaw(asked);
}

rest::clock::time_point rest::limit() const {
  const bool any_command =
      std::any_of(record_.members().begin(), record_.members().end(),
                  [](const auto& member) { return member.command_size() > 0; });
  return deadline() - (any_command ? std::min(kCommandTime, max_freeze() / 4) : milliseconds(0));
}

bool rest::answer_requests(bool at_rest) {
  bool end = false;
  for (; !world_.requests.empty(); world_.requests.pop_front()) {
    const auto& request = world_.requests.front();
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
        world_.report.send(answer);
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

void rest::check() {
  if (answer_requests(true)) throw over("", true);
  if (is_told_to_thaw_) {
    throw over("the agent was told to stop before the split was over", false);
  }
  if (world_.terminated) throw over("the freezer was told to thaw by a signal", false);
  if (world_.agent_gone) throw over("the agent has gone", false);
  if (clock::now() >= limit()) {
    throw over("the host was thawed at the limit of " + seconds_text(max_freeze()), false);
  }
}

void rest::await_freezing(const child& step) {
  while (!step.ended() && !step.killed) {
    world_.wait(limit());
    if (!step.ended() && !step.killed) check();
  }
}

child& rest::start_hook(int index, const std::string& phase, clock::duration timeout) {
  return world_.programs.start({record_.plan().hooks(index).path(), phase}, environment_, timeout);
}

void rest::report_hook(int index, const std::string& phase, const child& run) {
  const auto& hook = record_.plan().hooks(index);
  if (!is_ours_) {
    world_.report.warn("ran hook " + hook.name() + " " + phase +
                       " after an earlier agent: exit code " +
                       std::to_string(run.killed ? 128 + SIGKILL : *run.exit_code));
    return;
  }
  FreezerReport report;
  *report.mutable_hook() = report_of(hook, phase, run);
  world_.report.send(report);
}

void rest::freeze_hooks() {
  for (int i = 0; i < record_.plan().hooks_size(); ++i) {
    check();
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
      world_.programs.kill(run);
      report_hook(i, "freeze", run);
      throw;
    }
    freezing_ = nullptr;
    report_hook(i, "freeze", run);
    if (run.killed) {
      throw over("freeze hook " + record_.plan().hooks(i).name() + " took longer than " +
                     seconds_text(std::chrono::ceil<milliseconds>(timeout)),
                 true);
    }
    if (!run.succeeded()) {
      throw over("freeze hook " + record_.plan().hooks(i).name() + " exited with " +
                     std::to_string(*run.exit_code),
                 true);
    }
    write_processes({});
  }
}

// Side by side where that is possible: most of a freeze is waiting in the kernel.
void rest::freeze_file_systems() {
  const std::size_t at_once = is_stacked_ ? 1 : std::max<std::size_t>(volumes_.size(), 1);
  for (std::size_t begin = 0; begin < volumes_.size(); begin += at_once) {
    check();
    std::vector<process> under_way;
    for (std::size_t i = begin; i < begin + at_once; ++i) {
      volume& one = volumes_[i];
      one.freezing = &world_.programs.fork_call([&] { return freeze_file_system(one.root.get()); },
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
      const int error = frozen(volumes_[i]);
      if (error == 0) continue;
      refusal = volumes_[i].facts.mount_point() + " cannot be frozen: " +
                (error == EBUSY ? "somebody else has frozen it (see \"fsfreeze --unfreeze\")"
                                : failure_text(error)) +
                (error == EPERM ? " (the agent needs CAP_SYS_ADMIN)" : "");
    }
    if (!refusal.empty()) throw over(refusal, true);
  }
}

int rest::frozen(volume& one) {
  const int error = *std::exchange(one.freezing, nullptr)->exit_code;
  if (error != 0 && error < kKilled) one.may_be_frozen = false;
  return error;
}

void rest::write_record() { turn_.write(record_); }

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
