#include "simulation.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace vexo::fuzz {

virtual_time& the_time() {
  static virtual_time time;
  return time;
}

time_point now() asm("fuzz_now");
time_point now() { return the_time().now; }

int timed_wait(pthread_cond_t* cond, pthread_mutex_t* mutex,
               const timespec* deadline) asm("fuzz_timed_wait");
int timed_wait(pthread_cond_t* /*cond*/, pthread_mutex_t* mutex, const timespec* deadline) {
  const time_point end(std::chrono::seconds(deadline->tv_sec) +
                       std::chrono::nanoseconds(deadline->tv_nsec));
  virtual_time& time = the_time();
  pthread_mutex_unlock(mutex);
  if (!time.meanwhile(end)) time.now = std::max(time.now, end);
  pthread_mutex_lock(mutex);
  return time.now < end ? 0 : ETIMEDOUT;
}

std::string peer(const grpc::ServerContextBase* context) asm("fuzz_peer");
std::string peer(const grpc::ServerContextBase* context) {
  return static_cast<const fake_call*>(context)->from;
}

bool is_cancelled(grpc::ServerContextBase* context) asm("fuzz_is_cancelled");
bool is_cancelled(grpc::ServerContextBase* context) {
  auto& call = static_cast<fake_call&>(*context);
  if (call.cancelled && ++call.told == fake_call::enough) throw never_returns();
  return call.cancelled;
}

}  // namespace vexo::fuzz
