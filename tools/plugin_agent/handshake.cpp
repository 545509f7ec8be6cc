#include "plugin_agent/handshake.h"

#include <spdlog/fmt/fmt.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "common/channel.h"
#include "common/command_fields.h"
#include "common/errors.h"
#include "common/output.h"
#include "common/text.h"
#include "plugin_agent/agent_log.h"
#include "plugin_agent/handshake_check.h"
#include "plugin_agent/utc_text.h"
#include "plugin_agent/withdrawal.h"

namespace vexo::tools {

using scsiplugin::LunCmd;
using std::chrono::milliseconds;

namespace {

// The first pauses between two questions, about the mirror and about the split.
constexpr milliseconds kFirstMirrorPoll{50};
constexpr milliseconds kFirstDepartPoll{10};
// The pauses between two looks: whether all have gathered, and whether the freezer has ended.
constexpr milliseconds kGatherLook{5};
constexpr milliseconds kFreezerLook{200};
// How often to ask whether the appliance still has the handshake. Each question occupies a thread
// of the daemon for a minute.
constexpr int kCheckPolls = 45;
constexpr milliseconds kLeastCheck{5000};
constexpr milliseconds kMostCheck{45000};
// Between the daemon's no to a departed host and the result of the split, which it sends first, but
// on another stream.
constexpr milliseconds kResultTime{1000};
constexpr char kOf[] = " of ";  // in the name of a member of a rest: the LUN, then the appliance
constexpr int kMostTries = 3;   // to come to rest, each with a freezer of its own

// A tenth of the time so far, so that the end is noticed late by a tenth of it at most.
milliseconds growing_pause(std::chrono::steady_clock::duration so_far, milliseconds first,
                           milliseconds most) {
  return std::clamp(std::chrono::duration_cast<milliseconds>(so_far / 10), std::min(first, most),
                    most);
}

std::vector<std::string> hook_environment(const agent_options& options, const appliance& where,
                                          const scsiplugin::PluginCmd& command) {
  auto environment = command_environment(command);
  environment.push_back("VEXO_PLUGIN_ID=" + options.plugin_id);
  environment.push_back("VEXO_APPLIANCE=" + where.name());
  return environment;
}

template <class Body>
void name_task(Body& body, const scsiplugin::PluginCmd& command) {
  body.set_task_id(command.task_id());
  body.set_type(scsiplugin::LUN_TYPE_80);
  body.set_src_lun_id(command.init_snapshot_req().src_lun_p80());
}

std::uint32_t count_of(milliseconds time) { return static_cast<std::uint32_t>(time.count()); }

}  // namespace

handshake::handshake(const agent_options& options, host_rests& rests,
                     std::shared_ptr<const appliance> where, scsiplugin::PluginCmd command)
    : options_(options),
      rests_(rests),
      appliance_(std::move(where)),
      command_(std::move(command)) {}

void handshake::run() {
  try {
    if (appliance_->is_played()) {
      agent_log().info("rehearsal begins");
    } else {
      agent_log().info("LUN {}: snapshot announced by {}", printable(lun()),
                       printable(appliance_->name()));
    }
    news_.wait_or_give_up(clock::now());
    take_part();
  } catch (const std::exception& error) {
    verdict_ = "failed";
    reason_ = error.what();
  }
  try {
    undo_prepare();
  } catch (const std::exception& error) {
    agent_log().error("LUN {}: the `thaw` of the prepared hooks cannot be run: {}",
                      printable(lun()), printable(error.what()));
  }
  try {
    write_record();
  } catch (const std::exception& error) {
    agent_log().error("LUN {}: {}, and no record: {}", printable(lun()), printable(verdict_),
                      printable(error.what()));
  }
  await_freezer_end();
  over_ = true;
  over_.notify_all();
}

void handshake::take_part() {
  if (!options_.hooks_dir.empty()) hooks_ = list_hooks(options_.hooks_dir);
  for (const auto& refusal : refusals(hooks_)) {
    if (!options_.tolerates_refused_hooks) throw given_up(refusal);
    agent_log().warn("{}", printable(refusal));
  }
  make_plan();
  prepare();
  start_mirror();
  wait_for_mirror();

  gather();
  enter_rest();
  const std::string& name = plan_.member().name();
  const auto take_figures = [&] {
    frozen_for_ = rest_->frozen_for();
    freeze_took_ = rest_->freeze_took();
    file_systems_ = rest_->file_systems();
    for (auto& run : rest_->runs()) runs_.push_back(std::move(run));
  };
  try {
    come_to_rest();
    depart();
    hold();
    step_ = "thaw";
    rest_->end(name);
    take_figures();
  } catch (const std::runtime_error&) {
    step_ = "thaw";
    if (may_count_on_rest_) withdraw(*appliance_->stub(), lun(), options_.plugin_id);
    try {
      rest_->end(name);
    } catch (const quiesce_error&) {
      // The verdict has the first reason.
    }
    take_figures();
    throw;
  }
  if (options_.plugin_id.empty()) hear_result();
  verdict_ = verdict();
}

void handshake::make_plan() {
  plan_.set_run_dir(options_.run_dir);
  *plan_.mutable_mount_points() = {options_.mount_points.begin(), options_.mount_points.end()};
  for (const auto& [name, path] : hooks_.usable) {
    auto& hook = *plan_.add_hooks();
    hook.set_name(name);
    hook.set_path(path);
  }
  for (auto& variable : hook_environment(options_, *appliance_, command_)) {
    plan_.add_environment(std::move(variable));
  }
  plan_.set_max_freeze_ms(options_.max_freeze.count());
  plan_.set_hook_timeout_ms(options_.hook_timeout.count());
  auto& member = *plan_.mutable_member();
  member.set_name(lun() + kOf + appliance_->name());
  if (!appliance_->is_played()) {
    for (const auto& word : withdrawal_command(lun(), appliance_->address(), options_.plugin_id)) {
      member.add_command(word);
    }
  }
}

void handshake::prepare() {
  if (hooks_.usable.empty()) return;
  prepared_.emplace(plan_, news_, runs_);
  prepared_->wait();
}

void handshake::release_prepared() {
  if (prepared_) prepared_->release();
  prepared_.reset();
}

void handshake::undo_prepare() {
  const bool is_undone = std::any_of(runs_.begin(), runs_.end(),
                                     [](const auto& run) { return run.phase() == "thaw"; });
  if (is_undone) release_prepared();
  if (!prepared_) return;
  step_ = "thaw";
  if (!prepared_->undo()) {
    agent_log().error("LUN {}: the `thaw` of the prepared hooks is delayed; it follows",
                      printable(lun()));
  }
}

void handshake::start_mirror() {
  // The appliance waits for this long.
  const auto deadline = start_ + kHostWait;
  for (;;) {
    const auto answer = ask_start_mirror();
    if (answer.yes) return;
    if (answer.status.ok()) throw given_up("the appliance no longer waits for this host");
    if (clock::now() >= deadline) {
      throw given_up("the mirror could not be started: " + status_text(answer.status));
    }
    news_.wait_or_give_up(clock::now() + options_.poll);
  }
}

void handshake::wait_for_mirror() {
  step_ = "mirror";
  LunCmd is_done = question();
  name_task(*is_done.mutable_is_mirror_done_req(), command_);
  const auto start = clock::now();
  const auto check_pause = std::clamp(kCheckPolls * options_.poll, kLeastCheck, kMostCheck);
  auto next_check = start + check_pause;
  std::optional<handshake_check> check;
  const host_rests::mirror_wait waiting(rests_, news_.wake());
  // Not at once: for a LUN that needs no mirror the daemon's yes changes the state of the task, and
  // the local caller has to see first that the mirror may start.
  while (clock::now() < start + kFirstMirrorPoll) news_.wait_or_give_up(start + kFirstMirrorPoll);
  for (;;) {
    const auto answer = appliance_->lun_op(is_done, kCallTimeout);
    if (answer.yes) return;
    const auto now = clock::now();
    if (now >= start + options_.max_mirror) {
      throw given_up("the mirror was not done in time (--max-mirror)");
    }
    if (check && check->is_over()) {
      throw given_up(
          "the appliance no longer has the handshake: it was given up there, or the daemon was "
          "started anew");
    }
    if (answer.status.ok() && connection_was_lost()) next_check = now;
    if (now >= next_check) {
      next_check = now + check_pause;
      try {
        check.emplace(appliance_->stub(), lun(), news_.wake());
      } catch (const std::system_error&) {
        check.reset();  // no thread to be had, perhaps there is one the next time
      }
    }
    const auto pause = rests_.is_gathering()
                           ? host_rests::kGatherPoll
                           : growing_pause(now - start, kFirstMirrorPoll, options_.poll);
    news_.wait_or_give_up(std::min(now + pause, next_check));
  }
}

void handshake::gather() {
  step_ = "gather";
  rests_.gather();
  while (!rests_.has_gathered()) news_.wait_or_give_up(clock::now() + kGatherLook);
}

void handshake::enter_rest() {
  auto rest = rests_.enter(plan_, news_.wake(), options_.hold);
  const std::lock_guard lock(mutex_);
  rest_ = std::move(rest);
}

bool handshake::is_at_rest() { return rest_->at_rest(plan_.member().name()); }

void handshake::come_to_rest() {
  for (int tries = 1;; ++tries) {
    try {
      while (!is_at_rest()) {
        const auto deadline = rest_->deadline();
        step_ = deadline == clock::time_point::max() ? "turn" : "freeze";
        news_.wait_or_give_up(deadline);
      }
      release_prepared();
      return;
    } catch (const rest_missed&) {
      if (tries == kMostTries) throw;
      rest_->end(plan_.member().name());
      enter_rest();
    }
  }
}

void handshake::depart() {
  step_ = "depart";
  connection_was_lost();  // ignore earlier losses
  for (;;) {
    const auto news = news_.wait(clock::now());
    if (news.stop) throw given_up("the agent was told to stop");
    if (news.superseded || news.departed) throw given_up("the appliance has given up");
    is_at_rest();
    const auto left = std::chrono::duration<double>(rest_->deadline() - clock::now());
    const auto hold = std::chrono::duration<double>(options_.hold);
    if (left < hold) {
      throw given_up(
          fmt::format("the freeze took so long that {:.1f} s of --max-freeze were left, less than "
                      "--hold {:g} s; "
                      "make the freeze shorter, --max-freeze longer or --hold shorter",
                      left.count(), hold.count()));
    }
    may_count_on_rest_ = true;
    const auto answer = ask_depart();
    if (answer.yes) return;
    if (answer.status.ok()) {
      may_count_on_rest_ = false;
      throw given_up("the appliance no longer waits for the frozen host");
    }
    news_.wait(std::min(clock::now() + options_.poll, rest_->deadline()));
  }
}

// With these pauses the appliance gets fewer than 80 questions in 30 s. Each is a line of its log.
void handshake::hold() {
  step_ = "hold";
  for (;;) {
    const auto now = clock::now();
    const auto pause = growing_pause(now - rest_->since(), kFirstDepartPoll, options_.poll);
    const auto news = news_.wait(std::min(now + pause, rest_->deadline()));
    is_at_rest();
    if (news.departed || news.superseded) break;
    if (news.stop_now) throw given_up("the agent was told to stop before the split was over");
    const auto answer = ask_depart();
    if (answer.status.ok() && !answer.yes) break;
  }
  may_count_on_rest_ = false;
  is_at_rest();
  if (connection_was_lost()) {
    throw given_up(
        "the connection to the appliance was lost while the host was frozen, so it is "
        "not certain that the split was over before the thaw");
  }
}

void handshake::hear_result() {
  const auto until = clock::now() + kResultTime;
  auto news = news_.wait(clock::now());
  while (!news.departed && !news.superseded && !news.stop && clock::now() < until) {
    news = news_.wait(until);
  }
  if (news.departed.value_or(0) == 0) return;
  throw given_up("the appliance reports result " + std::to_string(*news.departed) +
                 " of the split");
}

std::string handshake::verdict() const {
  const bool hooks_ran = std::any_of(runs_.begin(), runs_.end(),
                                     [](const auto& run) { return run.phase() == "freeze"; });
  if (hooks_ran && hooks_.refused.empty()) return "application-consistent";
  return plan_.mount_points().empty() ? "crash-consistent" : "filesystem-consistent";
}

void handshake::write_record() {
  for (const auto& run : runs_) {
    std::istringstream output(run.output());
    for (std::string line; std::getline(output, line);) {
      agent_log().info("hook {} {}: {}", printable(run.name()), printable(run.phase()),
                       printable(line));
    }
  }
  HandshakeRecord record;
  record.set_time(utc_text(std::chrono::system_clock::now()));
  record.set_appliance(appliance_->name());
  record.set_qel_sn(command_.qel_sn());
  record.set_lun(lun());
  record.set_task_id(command_.task_id());
  record.set_cmd_sn(command_.cmd_sn());
  record.set_verdict(verdict_);
  record.set_reason(printable(reason_));
  record.set_frozen_ms(count_of(frozen_for_));
  record.set_freeze_ms(count_of(freeze_took_));
  record.set_total_ms(count_of(std::chrono::duration_cast<milliseconds>(clock::now() - start_)));
  for (const auto& mount_point : options_.mount_points) {
    record.add_file_systems(printable(mount_point));
  }
  for (const auto& run : runs_) {
    auto& hook = *record.add_hooks();
    hook.set_name(printable(run.name()));
    hook.set_phase(run.phase());
    hook.set_exit_code(run.exit_code());
    hook.set_timed_out(run.timed_out());
    hook.set_ms(static_cast<std::uint32_t>(run.ms()));
  }
  if (rest_) {
    for (const auto& other : rest_->others(plan_.member().name())) {
      record.add_shared_with(other.substr(0, other.find(kOf)));
    }
  }
  for (const auto& refusal : hooks_.refused) record.add_refused_hooks(printable(refusal.name));
  log_record(to_json(record), verdict_ == "failed" ? spdlog::level::err : spdlog::level::info);
  const std::lock_guard lock(mutex_);
  record_ = std::move(record);
}

bool handshake::has_rest() {
  const std::lock_guard lock(mutex_);
  return rest_ && !over_;
}

std::optional<HandshakeRecord> handshake::record() {
  const std::lock_guard lock(mutex_);
  return record_;
}

LunCmd handshake::question() const {
  LunCmd command;
  command.set_plugin_id(options_.plugin_id);
  return command;
}

appliance::answer handshake::ask_start_mirror() {
  LunCmd start = question();
  name_task(*start.mutable_start_mirror_req(), command_);
  return appliance_->lun_op(start, kCallTimeout);
}

appliance::answer handshake::ask_depart() {
  LunCmd departure = question();
  name_task(*departure.mutable_depart_relation_req(), command_);
  // The call ends at the thaw at the latest: an agent that was stopped meanwhile must not tell the
  // daemon then that the host is at rest.
  const auto left = std::chrono::ceil<milliseconds>(rest_->deadline() - clock::now());
  return appliance_->lun_op(departure, std::min(kCallTimeout, left));
}

bool handshake::connection_was_lost() {
  const unsigned losses = appliance_->losses();
  return std::exchange(losses_seen_, losses) != losses;
}

void handshake::stop_now() {
  news_.stop_now();
  // From this thread, because the handshake's own may be waiting for an answer of the appliance.
  std::shared_ptr<quiesce> rest;
  {
    const std::lock_guard lock(mutex_);
    rest = rest_;
  }
  if (rest) rest->thaw_now();
}

void handshake::await_freezer_end() {
  if (!rest_) return;
  step_ = "watch";
  while (!rest_->over()) {
    const auto news = news_.wait(clock::now() + kFreezerLook);
    if (news.stop || news.superseded) break;
  }
}

}  // namespace vexo::tools
