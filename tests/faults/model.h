#ifndef TESTS_FAULTS_MODEL_H_
#define TESTS_FAULTS_MODEL_H_

#include <string>
#include <vector>

#include "history.h"

namespace vexo::test {

// What in a daemon's history its contract does not allow, in words; empty when all of it is fine.
//
// Every handler is a few steps on one table of tasks, each step at one moment between the call and
// its answer. A history is fine when there is an order of the steps, for each LUN, in which every
// answer comes out as it was given: so no success without its cause, no refusal without its reason,
// no state that a task cannot have been in. Besides, every message has a call that caused it, and
// no stream carries one twice.
//
// A call without an answer may have taken any of its steps, at any time, or none.
std::vector<std::string> violations(const recorded_events& events);

}  // namespace vexo::test

#endif  // TESTS_FAULTS_MODEL_H_
