// What judges the daemon's histories must be able to condemn one.

#include "model.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "gauge.h"

namespace vexo::test {
namespace {

using enum operation;

const std::string kKey = "K";
const std::string kOtherKey = "L";

moment at(double second) {
  const std::chrono::nanoseconds time(static_cast<std::int64_t>(second * 1e9));
  return {time, time};
}

recorded_call call(operation what, double begin, double end, answer verdict,
                   std::uint32_t cmd_sn = 0) {
  return {what,
          kKey,
          lun_kind::mirrored,
          cmd_sn,
          at(begin),
          at(end),
          verdict,
          verdict == answer::yes ? kKey : std::string()};
}

recorded_message message(operation what, double second, std::uint32_t cmd_sn) {
  return {"stream", what == depart_done ? "" : "host", what, kKey, cmd_sn, at(second)};
}

constexpr answer kYes = answer::yes;
constexpr answer kNo = answer::no;

// A whole hand-shake from second 1 on; calls by index below.
recorded_events good() {
  recorded_events events;
  events.subscriptions = {{at(0), at(0.5), {}}};
  events.calls = {
      call(init_snapshot, 1, 2, kYes, 1),  call(start_mirror, 1.5, 1.6, kYes),
      call(is_mirror_done, 1.7, 1.8, kNo), call(mirror_done, 3, 3.1, kYes, 2),
      call(is_mirror_done, 4, 4.1, kYes),  call(wait_for_depart, 5, 7, kYes, 3),
      call(depart_relation, 6, 6.1, kYes), call(depart_done, 8, 8.1, kYes, 4),
      call(mirror_done, 9, 9.1, kNo, 5),
  };
  events.messages = {message(init_snapshot, 1.2, 1), message(depart_done, 8.2, 4)};
  return events;
}

struct changed_history {
  const char* what;
  std::function<void(recorded_events&)> change;
};

TEST(Model, AllowsWhatTheContractAllows) {
  const std::vector<changed_history> histories = {
      {"a whole hand-shake", [](recorded_events&) {}},
      {"a start of the mirror that overlaps the poll",
       [](recorded_events& e) { e.calls[2] = call(is_mirror_done, 1.55, 3.05, kYes); }},
      {"a call without an answer that was carried out",
       [](recorded_events& e) { e.calls[1].verdict = answer::none; }},
      {"a call without an answer that was not",
       [](recorded_events& e) { e.calls.push_back(call(depart_done, 2.5, 0, answer::none, 9)); }},
      {"a call without an answer that ended the hand-shake",
       [](recorded_events& e) {
         e.calls[3].verdict = e.calls[4].verdict = e.calls[6].verdict = kNo;
         e.calls[5] = call(wait_for_depart, 5, 5.1, kNo, 3);
         e.calls.push_back(call(depart_done, 2.5, 0, answer::none, 9));
         e.messages.pop_back();
       }},
      {"an announcement that nobody answers",
       [](recorded_events& e) {
         e.calls = {call(init_snapshot, 1, 61.1, kNo, 1), call(start_mirror, 62, 63, kNo)};
         e.messages.pop_back();
       }},
      {"a second announcement while the first is alive",
       [](recorded_events& e) { e.calls.push_back(call(init_snapshot, 5, 5.1, kNo, 9)); }},
      {"an announcement to nobody",
       [](recorded_events& e) {
         e.calls = {call(init_snapshot, 0.1, 0.2, kNo, 1)};
         e.messages.clear();
       }},
      {"a task that expired",
       [](recorded_events& e) {
         e.calls.resize(2);
         e.calls.push_back(call(init_snapshot, 302, 303, kYes, 9));
         e.calls.push_back(call(start_mirror, 302.5, 302.6, kYes));
         e.messages.pop_back();
       }},
      {"a wall clock stepped into the expiry",
       [](recorded_events& e) {
         e.calls.resize(2);
         e.calls.push_back(call(init_snapshot, 3, 4, kYes, 9));
         e.calls.push_back(call(start_mirror, 3.5, 3.6, kYes));
         e.calls[2].begin.wall += std::chrono::seconds(301);
         e.calls[2].end.wall += std::chrono::seconds(301);
         e.messages.pop_back();
       }},
  };
  for (const auto& [what, change] : histories) {
    recorded_events events = good();
    change(events);
    const auto found = violations(events);
    EXPECT_TRUE(found.empty()) << what << ": " << found.front();
  }
}

TEST(Model, CondemnsWhatItDoesNot) {
  const std::vector<changed_history> histories = {
      {"success of an announcement before any host answered",
       [](recorded_events& e) {
         e.calls[1].begin = at(2.1);
         e.calls[1].end = at(2.2);
       }},
      {"success of an announcement that no host answered",
       [](recorded_events& e) { e.calls.erase(e.calls.begin() + 1); }},
      {"success without a subscriber", [](recorded_events& e) { e.subscriptions.clear(); }},
      {"success with another task's name",
       [](recorded_events& e) { e.calls[0].answered_task_id = kOtherKey; }},
      {"a mirror that is done before anybody said so",
       [](recorded_events& e) { e.calls[2].verdict = kYes; }},
      {"a mirror that was done and is not any more",
       [](recorded_events& e) { e.calls[4].verdict = kNo; }},
      {"mirror_done from a state in which it is refused",
       [](recorded_events& e) { e.calls.push_back(call(mirror_done, 4.5, 4.6, kYes, 9)); }},
      {"a departure that no host reported",
       [](recorded_events& e) { e.calls.erase(e.calls.begin() + 6); }},
      {"a wait given up before its time",
       [](recorded_events& e) { e.calls[5] = call(wait_for_depart, 5, 5.9, kNo, 3); }},
      {"an announcement given up before its time",
       [](recorded_events& e) {
         e.calls = {call(init_snapshot, 1, 60, kNo, 1)};
         e.messages.pop_back();
       }},
      {"a task that outlives its departure",
       [](recorded_events& e) { e.calls.push_back(call(start_mirror, 9.5, 9.6, kYes)); }},
      {"a task that is lost",
       [](recorded_events& e) {
         e.calls[6].verdict = kNo;
         e.calls[5].verdict = answer::none;
       }},
      {"two announcements of one LUN at once",
       [](recorded_events& e) {
         e.calls.push_back(call(init_snapshot, 5, 5.5, kYes, 9));
         e.calls.push_back(call(start_mirror, 5.1, 5.2, kYes));
       }},
      {"a refusal without a task",
       [](recorded_events& e) { e.calls.push_back(call(init_snapshot, 10, 10.1, kNo, 9)); }},
      {"a refusal for a task that has expired",
       [](recorded_events& e) {
         e.calls.resize(2);
         e.calls.push_back(call(init_snapshot, 303, 303.1, kNo, 9));
         e.messages.pop_back();
       }},
      {"an announcement refused and yet made",
       [](recorded_events& e) {
         e.calls.push_back(call(init_snapshot, 5, 5.1, kNo, 9));
         e.messages.push_back(message(init_snapshot, 5.05, 9));
       }},
      {"a message delivered twice",
       [](recorded_events& e) { e.messages.push_back(e.messages[0]); }},
      {"a message from nowhere",
       [](recorded_events& e) { e.messages.push_back(message(init_snapshot, 3, 77)); }},
      {"a message before its call", [](recorded_events& e) { e.messages[0].at = at(0.9); }},
      {"a message for another LUN", [](recorded_events& e) { e.messages[0].key = kOtherKey; }},
      {"depart_done for a host that is not the task's",
       [](recorded_events& e) { e.messages[1].plugin_id = "host"; }},
      {"depart_done of a task that was gone",
       [](recorded_events& e) {
         e.calls.push_back(call(depart_done, 10, 10.1, kYes, 9));
         e.messages.push_back(message(depart_done, 10.2, 9));
       }},
  };
  for (const auto& [what, change] : histories) {
    recorded_events events = good();
    change(events);
    EXPECT_FALSE(violations(events).empty()) << what;
  }
}

TEST(Trend, TellsALeakFromNoise) {
  std::vector<double> flat;
  std::vector<double> leaking;
  for (int hour = 0; hour < 24; ++hour) {
    const double noise = 0.3 * ((hour * 7) % 5 - 2);
    flat.push_back(30 + noise);
    leaking.push_back(30 + noise + 0.1 * hour);
  }
  EXPECT_NEAR(trend_of(flat).rise, 0, 0.3);
  EXPECT_NEAR(trend_of(leaking).rise, 2.3, 0.3);
  EXPECT_NEAR(trend_of(leaking).slope, 0.1, 0.02);
}

}  // namespace
}  // namespace vexo::test
