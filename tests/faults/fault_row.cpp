#include "fault_row.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <thread>

#include "model.h"

namespace vexo::test {

void fault_row::SetUp() {
  current_row() = {};
  sandboxed::SetUp();
  if (IsSkipped()) return;
  log = std::make_unique<dev_log>();
}

void fault_row::TearDown() {
  if (IsSkipped()) return;
  EXPECT_FALSE(current_row().fault.empty() || current_row().expected.empty());
  if (daemon) {
    EXPECT_TRUE(daemon->alive());
    check_history();
  }
  if (calls_checked_ > 0) {
    observed("history of " + counted(calls_checked_, "call") + " and " +
             counted(messages_checked_, "message") + " fits the model");
  }
  local.reset();
  daemon.reset();
  log.reset();
}

void fault_row::row(const std::string& fault, const std::string& expected) {
  current_row().fault = fault;
  current_row().expected = expected;
}

void fault_row::observed(const std::string& phrase) {
  std::string& text = current_row().observed;
  if (!text.empty()) text += "; ";
  text += phrase;
}

void fault_row::start_daemon(const daemon_options& how, bool serves) {
  how_ = how;
  daemon = std::make_unique<daemon_process>(log.get(), how, serves);
  local = std::make_unique<witness_caller>(&record, kUnixTarget);
}

void fault_row::restart_daemon() {
  check_history();
  record.clear();
  local.reset();
  daemon.reset();
  start_daemon(how_);
}

void fault_row::check_history() {
  const recorded_events events = record.events();
  for (const auto& violation : violations(events)) ADD_FAILURE() << violation;
  calls_checked_ += events.calls.size();
  messages_checked_ += events.messages.size();
  record.drop_past();
}

double fault_row::seconds_until(const std::string& what, const std::function<bool()>& reached,
                                seconds patience) {
  const auto begin = std::chrono::steady_clock::now();
  const auto passed = [begin] { return std::chrono::steady_clock::now() - begin; };
  while (!reached()) {
    if (passed() > patience) {
      ADD_FAILURE() << "did not come within " << patience.count() << " s: " << what;
      break;
    }
    std::this_thread::sleep_for(milliseconds(5));
  }
  return std::chrono::duration<double>(passed()).count();
}

bool fault_row::list_answers() {
  scsiplugin::PluginClientList list;
  return local->plain().list_status(seconds(1), &list).ok();
}

std::string figure(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

std::string counted(std::size_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

}  // namespace vexo::test
