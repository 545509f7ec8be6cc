#ifndef TOOLS_COMMON_INTERRUPT_H_
#define TOOLS_COMMON_INTERRUPT_H_

#include <chrono>
#include <cstddef>
#include <initializer_list>

namespace vexo::tools {

// SIGINT, SIGTERM and SIGHUP, delivered through a signalfd instead of a handler, so that a wait can
// watch them. One per process, made in main before the first thread, gRPC's included: the signals
// are blocked, which threads inherit, and children too unless whoever starts them unblocks them.
// Used by one thread.
class interrupt {
 public:
  interrupt();  // throws std::system_error
  ~interrupt();
  interrupt(const interrupt&) = delete;
  interrupt& operator=(const interrupt&) = delete;

  // How many signals have come so far. Signals of the same kind that come together count once.
  int count() noexcept;
  bool requested() noexcept { return count() > 0; }
  // Readable while a signal has come that count() has not taken yet.
  int fd() const noexcept { return fd_; }

  enum class wake { ready, interrupted, timeout };
  // Blocks until one of `fds` (at most kMostFds) is readable, until more than `seen` signals have
  // come since the start, or until `deadline`. `ready` when several are true. A signal that comes
  // between two waits ends the next one. Never fails: a caller with a call under way has to wait.
  static constexpr std::size_t kMostFds = 3;
  wake wait(std::initializer_list<int> fds, std::chrono::steady_clock::time_point deadline,
            int seen = 0) noexcept;

 private:
  int fd_;
  int count_ = 0;
};

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_INTERRUPT_H_
