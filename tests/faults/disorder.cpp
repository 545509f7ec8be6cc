// Callers that disregard each other.

#include <algorithm>
#include <array>
#include <future>
#include <random>
#include <thread>

#include "fault_row.h"

namespace vexo::test {
namespace {

using enum operation;

using Callers = fault_row;

// What the model is for: nobody keeps to the order of a hand-shake, so only a search can tell which
// answers were right.
TEST_F(Callers, Disorder) {
  constexpr seconds kBeginsFor{10};
  const std::array<std::string, 3> luns = {kLun, kReplicaLun, "none of the appliance's"};
  constexpr std::array kKinds = {lun_kind::mirrored, lun_kind::needs_no_mirror,
                                 lun_kind::unreadable};
  row("8 callers that take steps of hand-shakes of 3 LUNs for 10 s in no order at all",
      "every answer is right in some order of what went on at the time; a wait whose task another "
      "caller ended is answered no after 60 s");
  start_daemon();
  witness_host host(&record, "", kTcpTarget);
  const auto take_steps = [&](const std::vector<operation>& steps, unsigned seed) {
    witness_caller mine(&record, kTcpTarget);
    std::minstd_rand random(seed);
    const auto until = std::chrono::steady_clock::now() + kBeginsFor;
    while (std::chrono::steady_clock::now() < until) {
      const std::size_t lun = random() % luns.size();
      mine.set_lun(kKinds[lun]);
      mine.ask(steps[random() % steps.size()], luns[lun]);
      std::this_thread::sleep_for(milliseconds(random() % 40));
    }
  };
  // Few that end a task, or there would be none to work on.
  std::vector<operation> at_once = {depart_done};
  for (const operation what : {start_mirror, mirror_done, is_mirror_done, depart_relation}) {
    at_once.insert(at_once.end(), 6, what);
  }
  const std::vector<operation> waits = {init_snapshot, wait_for_depart};
  std::vector<std::future<void>> callers;
  for (unsigned seed = 1; seed <= 8; ++seed) {
    callers.push_back(
        std::async(std::launch::async, take_steps, seed % 2 == 0 ? waits : at_once, seed));
  }
  for (auto& one : callers) one.get();
  while (host.has_more()) host.next();
  const auto calls = record.events().calls;
  const auto answered = [&](operation what, answer verdict) {
    return static_cast<std::size_t>(std::count_if(calls.begin(), calls.end(), [&](const auto& it) {
      return it.what == what && it.verdict == verdict;
    }));
  };
  for (const operation what : {init_snapshot, mirror_done, start_mirror, depart_relation}) {
    EXPECT_GT(answered(what, answer::yes), 0U) << name_of(what);
    EXPECT_GT(answered(what, answer::no), 0U) << name_of(what);
  }
  observed(counted(answered(init_snapshot, answer::yes), "announcement") + " and " +
           counted(answered(wait_for_depart, answer::yes), "wait") + " for a departure succeeded");
}

}  // namespace
}  // namespace vexo::test
