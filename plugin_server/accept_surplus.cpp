// The accept4 of this process, in the C library's place: it keeps gRPC's endpoints alive when there
// are no file descriptors left.
//
// gRPC stops listening for the life of the process after one "too many open files", which the
// kernel answers as soon as the table is full, also when nobody waits to be accepted. So
// connections that are too many are accepted and closed: their hosts learn at once that they are
// not served, and the endpoint serves again when others have gone. A few files are left to LUN
// lookups, and one is kept in reserve to accept with when these have taken all the others.

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

// How many files are kept for lookups; one that cannot read the configuration answers "not
// supported". As many lookups at once find one under the daemon's own limit of 1024 files. A
// process that may not raise a much lower limit needs its files for hosts.
rlim_t files_for_lookups(rlim_t limit) { return std::min<rlim_t>(8, limit / 16); }

std::mutex g_mutex;  // one endpoint at a time, so that none takes what another one has just freed
int g_reserve = -1;  // open only to be closed; negative while there is none to be had

int system_accept4(int listener, sockaddr* address, socklen_t* length, int flags) {
  return static_cast<int>(syscall(SYS_accept4, listener, address, length, flags));
}

// The kernel hands out the lowest number that is free.
bool is_too_many(int accepted) {
  rlimit files = {};
  return getrlimit(RLIMIT_NOFILE, &files) == 0 &&
         static_cast<rlim_t>(accepted) + files_for_lookups(files.rlim_cur) >= files.rlim_cur;
}

// Closes the first connection that waits. False when none does, and when the reserve was lost to
// another user of files: then those that wait are seen to at the next call.
bool turn_one_away(int listener) {
  if (g_reserve < 0) return false;
  close(g_reserve);
  const int surplus = system_accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (surplus >= 0) close(surplus);
  g_reserve = eventfd(0, EFD_CLOEXEC);
  return surplus >= 0;
}

}  // namespace

// Any thread may call. A listener that blocks is not gRPC's, and gets what the C library gives.
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
      errno = EAGAIN;  // to gRPC: come back when the next one has arrived
      return -1;
    }
  }
}
