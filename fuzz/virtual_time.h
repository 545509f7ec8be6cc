#ifndef FUZZ_VIRTUAL_TIME_H_
#define FUZZ_VIRTUAL_TIME_H_

#include <chrono>
#include <functional>

namespace vexo::fuzz {

// The time that the daemon's code lives in: its clock, and its timed waits. A minute costs
// nothing, what happens during a wait is the target's choice, and one thread is enough: while a
// handler waits, with its mutex free, the target may call any other.
class virtual_time {
 public:
  // Back to the beginning, with nothing going on during a wait.
  void reset();
  std::chrono::system_clock::time_point now() const { return now_; }
  // Moves the clock, also back.
  void pass(std::chrono::seconds duration) { now_ += duration; }

  // Called by each wait, with its deadline; the wait then looks again at what it waits for. False
  // when nothing more will happen: the wait then lasts to its end.
  std::function<bool(std::chrono::system_clock::time_point)> meanwhile;

  // A wait as the daemon makes it, to `deadline`.
  void wait_until(std::chrono::system_clock::time_point deadline);

 private:
  std::chrono::system_clock::time_point now_;
};

virtual_time& the_time();

}  // namespace vexo::fuzz

#endif  // FUZZ_VIRTUAL_TIME_H_
