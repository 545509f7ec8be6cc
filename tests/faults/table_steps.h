#ifndef TESTS_FAULTS_TABLE_STEPS_H_
#define TESTS_FAULTS_TABLE_STEPS_H_

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "history.h"

namespace vexo::test {

// The daemon's table of tasks as far as one LUN is concerned, and what each handler does to it, one
// step at a time.

inline constexpr int kNoTask = -1;

// The task that a LUN has, or had while a call still works on it.
struct task {
  int state = 0;
  std::chrono::nanoseconds created_first{};  // its creation on the wall clock lies between the two
  std::chrono::nanoseconds created_last{};
};

// How far one call has come.
struct progress {
  int step = 0;         // kDone when it has nothing more to do
  int bound = kNoTask;  // the task that it works on
};
inline constexpr int kDone = 100;

// Where one possible order of the steps has led to.
struct situation {
  std::vector<task> tasks;
  int current = kNoTask;        // the task in the table
  std::vector<progress> calls;  // in the order of their begin

  // Equal for situations that have the same future.
  std::string fingerprint() const;
};

// What is known of a call besides its record.
struct call_facts {
  bool announced;       // some host has received this very command
  bool may_have_hosts;  // the registry may have held one, or none, during the call
  bool may_have_none;
};

// The situations that can follow when `call`, at `index` of the situation's calls, takes its next
// step and can still come to the answer that it was given.
std::vector<situation> next_steps(const recorded_call& call, std::size_t index,
                                  const situation& from, const call_facts& facts);

}  // namespace vexo::test

#endif  // TESTS_FAULTS_TABLE_STEPS_H_
