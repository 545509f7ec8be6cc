#include "virtual_time.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace vexo::fuzz {

using std::chrono::system_clock;

virtual_time& the_time() {
  static virtual_time time;
  return time;
}

void virtual_time::reset() {
  now_ = system_clock::time_point(std::chrono::hours(24) * 365 * 50);
  meanwhile = nullptr;
}

void virtual_time::wait_until(system_clock::time_point deadline) {
  if (!meanwhile || !meanwhile(deadline)) now_ = std::max(now_, deadline);
}

// In the daemon's objects these take the place of what seams.txt names.

system_clock::time_point now() asm("fuzz_now");
system_clock::time_point now() { return the_time().now(); }

int timed_wait(pthread_cond_t* cond, pthread_mutex_t* mutex,
               const timespec* deadline) asm("fuzz_timed_wait");
int timed_wait(pthread_cond_t* /*cond*/, pthread_mutex_t* mutex, const timespec* deadline) {
  const auto end = system_clock::time_point(std::chrono::seconds(deadline->tv_sec) +
                                            std::chrono::nanoseconds(deadline->tv_nsec));
  pthread_mutex_unlock(mutex);
  the_time().wait_until(end);
  pthread_mutex_lock(mutex);
  return the_time().now() < end ? 0 : ETIMEDOUT;
}

}  // namespace vexo::fuzz
