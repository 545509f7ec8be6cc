// Replaces the C library's accept4 in this process. It keeps gRPC's endpoints alive when there are
// no file descriptors left.
//
// gRPC stops listening for the life of the process after one "too many open files" error. The
// kernel returns that error as soon as the table is full, even when no connection is waiting. So
// surplus connections are accepted and closed: their hosts learn at once that they are not served,
// and the endpoint serves again when other connections have ended. A few descriptors are left free
// for LUN lookups. One more is kept in reserve: it is given up to accept a surplus connection when
// the lookups have taken all the others.

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>

namespace {

// How many descriptors are left free for LUN lookups: eight lookups at once under the daemon's own
// limit of 1024. A lookup that gets none answers "not supported". A process that is not allowed to
// raise a much lower limit needs its descriptors for hosts.
rlim_t files_for_lookups(rlim_t limit) { return std::min<rlim_t>(8, limit / 16); }

std::mutex g_mutex;  // one endpoint at a time, so that none takes what another has freed
int g_reserve = -1;  // a descriptor that is open so that it can be given up; negative: none

int system_accept4(int listener, sockaddr* address, socklen_t* length, int flags) {
  return static_cast<int>(syscall(SYS_accept4, listener, address, length, flags));
}

// The kernel hands out the lowest free number, so a high one means that few are left.
bool is_too_many(int accepted) {
  rlimit files = {};
  return getrlimit(RLIMIT_NOFILE, &files) == 0 &&
         static_cast<rlim_t>(accepted) + files_for_lookups(files.rlim_cur) >= files.rlim_cur;
}

// Accepts and closes the first waiting connection. False when none is waiting, or when another
// thread has taken the reserve; then the next call handles the waiting connections.
bool turn_one_away(int listener) {
  if (g_reserve < 0) return false;
  close(g_reserve);
  const int surplus = system_accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (surplus >= 0) close(surplus);
  g_reserve = eventfd(0, EFD_CLOEXEC);
  return surplus >= 0;
}

}  // namespace

// Any thread may call. A blocking listener is not gRPC's: for it this is the plain system call.
extern "C" int accept4(int listener, sockaddr* address, socklen_t* length, int flags) {
  if ((fcntl(listener, F_GETFL) & O_NONBLOCK) == 0) {
    return system_accept4(listener, address, length, flags);
  }
  const std::lock_guard lock(g_mutex);
  for (;;) {
    if (g_reserve < 0) g_reserve = eventfd(0, EFD_CLOEXEC);
    const int accepted = system_accept4(listener, address, length, flags);
    if (accepted >= 0) {
      if (!is_too_many(accepted)) return accepted;
      close(accepted);
    } else if (errno != EMFILE && errno != ENFILE) {
      return accepted;
    } else if (!turn_one_away(listener)) {
      errno = EAGAIN;  // gRPC tries again when the next connection arrives
      return -1;
    }
  }
}
