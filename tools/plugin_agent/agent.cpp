#include "plugin_agent/agent.h"

#include <unistd.h>

#include <exception>
#include <map>
#include <string>
#include <system_error>
#include <utility>

#include "common/command_fields.h"
#include "common/text.h"
#include "plugin_agent/agent_log.h"
#include "plugin_agent/utc_text.h"

namespace vexo::tools {

using scsiplugin::PluginClient;
using scsiplugin::PluginCmd;

namespace {
// The metrics are written at least this often: the age of their file shows that the agent lives.
constexpr std::chrono::seconds kMetricsPause{15};
}  // namespace

agent::agent(const agent_options& options) : options_(options), facts_(options) {
  PluginClient self;
  self.set_plugin_id(options.plugin_id);
  self.set_type(options.type);
  for (const auto& where : options.appliances) {
    const auto served = std::make_shared<appliance>(where);
    subscriptions_.push_back(std::make_unique<subscription>(
        served, self, [this, served](const PluginCmd& command) { on_command(served, command); }));
  }
}

agent::~agent() {
  for (const auto& one : subscriptions_) one->begin_to_leave();
}

void agent::run(interrupt& stop) {
  using std::chrono::steady_clock;
  const auto next_look = [this] {
    return options_.metrics.empty() ? steady_clock::time_point::max()
                                    : steady_clock::now() + kMetricsPause;
  };
  write_metrics();
  while (!stop.requested()) {
    stop.wait({changed_.fd()}, next_look());
    join_ended();
    write_metrics();
  }
  {
    const std::lock_guard lock(mutex_);
    leaving_ = true;
    agent_log().info("told to stop; handshakes under way: {}", running_.size());
    for (const auto& one : running_) one.shake->stop();
  }
  const int first = stop.count();
  while (!all_ended()) {
    stop.wait({changed_.fd()}, next_look(), stop.count());
    join_ended();
    write_metrics();
    if (stop.count() > first) {
      const std::lock_guard lock(mutex_);
      for (const auto& one : running_) one.shake->stop_now();
    }
  }
  write_metrics(true);
}

void agent::write_metrics(bool leaves) {
  if (options_.metrics.empty()) return;
  std::map<std::string, bool> subscribed;
  for (std::size_t i = 0; i < subscriptions_.size(); ++i) {
    subscribed[options_.appliances[i].text] =
        !leaves && subscriptions_[i]->state().get().subscribed;
  }
  std::string trouble;
  const bool was_tried = rests_.while_thawed([&] {
    try {
      metrics_.page(subscribed).write_to(options_.metrics);
    } catch (const std::system_error& error) {
      trouble = error.what();
    }
  });
  if (!was_tried) return;
  if (!trouble.empty() && trouble != metrics_trouble_) {
    agent_log().error("no metrics: {}", printable(trouble));
  }
  metrics_trouble_ = trouble;
}

void agent::on_command(const std::shared_ptr<appliance>& where, const PluginCmd& command) {
  if (command.has_init_snapshot_req()) {
    if (options_.concerns(command.init_snapshot_req())) {
      begin(where, command);
    } else {
      agent_log().info("LUN {}: not this host's, ignored",
                       printable(command.init_snapshot_req().src_lun_p80()));
    }
    return;
  }
  if (command.has_depart_done_req()) {
    const std::lock_guard lock(mutex_);
    for (const auto& one : running_) {
      if (one.where == where && one.shake->lun() == command.task_id()) {
        one.shake->departed(command.depart_done_req().result());
      }
    }
    return;
  }
  agent_log().debug("{} ignored", printable(command_name(command)));
}

void agent::begin(const std::shared_ptr<appliance>& where, const PluginCmd& command) {
  const std::lock_guard lock(mutex_);
  if (leaving_) return;
  const std::string& lun = command.init_snapshot_req().src_lun_p80();
  if (running_.size() >= kMostHandshakes) {
    agent_log().error("LUN {}: no handshake: {} are under way, as many as there may be",
                      printable(lun), running_.size());
    return;
  }
  // The daemon announces a LUN again only when its former handshake is over.
  std::shared_ptr<handshake> former;
  for (const auto& one : running_) {
    if (one.where == where && one.shake->lun() == lun) former = one.shake;
  }
  if (former) former->superseded();
  try {
    auto& next =
        running_.emplace_back(where, std::make_shared<handshake>(options_, rests_, where, command));
    next.thread = std::thread([this, shake = next.shake, former = std::move(former)] {
      if (former) former->wait_until_over();
      shake->run();
      changed_.raise();
    });
  } catch (const std::exception& error) {
    if (!running_.empty() && !running_.back().thread.joinable()) running_.pop_back();
    agent_log().error("LUN {}: no handshake: {}", printable(lun), printable(error.what()));
  }
}

agent::running::~running() {
  if (!thread.joinable()) return;
  shake->stop_now();
  thread.join();
}

void agent::join_ended() {
  changed_.take();
  std::list<running> ended;  // joined when the lock is free again
  {
    const std::lock_guard lock(mutex_);
    for (auto one = running_.begin(); one != running_.end();) {
      const auto next = std::next(one);
      const bool is_over = one->shake->over();
      auto record = one->shake->record();
      if (record && !std::exchange(one->is_counted, true)) metrics_.count(*record);
      if (is_over) {
        if (record) verdicts_.push_front(std::move(*record));
        ended.splice(ended.end(), running_, one);
      }
      one = next;
    }
    if (verdicts_.size() > kMostVerdicts) verdicts_.resize(kMostVerdicts);
  }
}

AgentStatus agent::status() {
  AgentStatus status;
  status.set_pid(getpid());
  status.set_version(VEXO_TOOLS_VERSION);
  status.set_since(utc_text(since_));
  status.set_plugin_id(options_.plugin_id);
  for (const auto& one : subscriptions_) {
    const auto view = one->state().get();
    auto& shown = *status.add_appliances();
    shown.set_appliance(one->where().name());
    shown.set_address(one->where().address());
    shown.set_subscribed(view.subscribed);
    shown.set_since(utc_text(view.since));
    shown.set_seen_as(view.seen_as);
    shown.set_reason(printable(view.reason));
  }
  *status.mutable_luns() = {options_.luns.begin(), options_.luns.end()};
  if (options_.any_lun) status.add_luns(kAnyLun);
  if (add_handshakes(status)) facts_ = host_facts(options_);
  *status.mutable_hooks() = {facts_.hooks.begin(), facts_.hooks.end()};
  status.set_hooks_problem(facts_.hooks_problem);
  *status.mutable_file_systems() = {facts_.file_systems.begin(), facts_.file_systems.end()};
  return status;
}

bool agent::add_handshakes(AgentStatus& status) {
  bool is_thawed = true;
  const std::lock_guard lock(mutex_);
  for (const auto& one : running_) {
    auto& shown = *status.add_handshakes();
    shown.set_lun(printable(one.shake->lun()));
    shown.set_appliance(one.where->name());
    shown.set_step(one.shake->step());
    shown.set_seconds(one.shake->age().count());
    is_thawed = is_thawed && !one.shake->has_rest();
    if (const auto record = one.shake->record()) *status.add_last_verdicts() = *record;
  }
  for (const auto& record : verdicts_) *status.add_last_verdicts() = record;
  return is_thawed;
}

bool agent::all_ended() {
  const std::lock_guard lock(mutex_);
  return running_.empty();
}

}  // namespace vexo::tools
