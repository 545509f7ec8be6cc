// Preloaded into the daemon: steps its wall clock, and no other's, by the nanoseconds that stand in
// /tmp/clock_step. The machine's own clock cannot be touched in a test. What is replaced is all
// that the daemon's own code uses of it: the time of day, and the timed wait on a condition
// variable. The kernel would end such a wait by itself when the clock is stepped; here the wait is
// looked at again every kSlice.

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kSlice = kSecond / 100;

const std::atomic<std::int64_t>* map_step() {
  const int fd = open("/tmp/clock_step", O_RDONLY | O_CLOEXEC);
  void* const page = mmap(nullptr, sizeof(std::int64_t), PROT_READ, MAP_SHARED, fd, 0);
  close(fd);
  return static_cast<const std::atomic<std::int64_t>*>(page);
}

std::int64_t step() {
  static const std::atomic<std::int64_t>* const it = map_step();
  return *it;
}

std::int64_t real_now() {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * kSecond + now.tv_nsec;
}

}  // namespace

// NOLINTBEGIN(cert-dcl58-cpp, readability-inconsistent-declaration-parameter-name)
namespace std::chrono {
inline namespace _V2 {
system_clock::time_point system_clock::now() noexcept {
  return time_point(duration(real_now() + step()));
}
}  // namespace _V2
}  // namespace std::chrono

extern "C" int pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                      const timespec* until) {
  using function = int (*)(pthread_cond_t*, pthread_mutex_t*, const timespec*);
  static const auto real = reinterpret_cast<function>(dlsym(RTLD_NEXT, "pthread_cond_timedwait"));
  const std::int64_t deadline = until->tv_sec * kSecond + until->tv_nsec;
  const std::int64_t slice = real_now() + kSlice;
  const timespec next = {slice / kSecond, slice % kSecond};
  const int result = real(cond, mutex, &next);
  // A wake-up without a cause is always allowed, and has the caller look at its clock.
  if (result == ETIMEDOUT && real_now() + step() < deadline) return 0;
  return result;
}
// NOLINTEND(cert-dcl58-cpp, readability-inconsistent-declaration-parameter-name)
