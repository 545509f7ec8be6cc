#ifndef TOOLS_COMMON_INTERRUPT_H_
#define TOOLS_COMMON_INTERRUPT_H_

#include <chrono>
#include <cstddef>
#include <initializer_list>

namespace vexo::tools {

// SIGINT, SIGTERM and SIGHUP as something that a wait can watch instead of something that strikes.
// One per process, made in main before the first thread (gRPC's included): threads inherit that
// the signals are blocked, and so do children unless their spawner unblocks them.
// Used by one thread.
class interrupt {
 public:
  interrupt();  // throws std::system_error
  ~interrupt();
  interrupt(const interrupt&) = delete;
  interrupt& operator=(const interrupt&) = delete;

  // How many signals have come so far, counting those that have come together once.
  int count() noexcept;
  bool requested() noexcept { return count() > 0; }
  // Readable while a signal has come that count() has not taken yet.
  int fd() const noexcept { return fd_; }

  enum class wake { ready, interrupted, timeout };
  // Blocks until one of `fds` (at most kMostFds) is readable, more than `seen` signals have come
  // since the start, or `deadline` passes. `ready` wins when several hold. A signal is never lost
  // between two waits: it counts for every one that has not seen it. Never fails, since whoever
  // waits for a call under way cannot leave it.
  static constexpr std::size_t kMostFds = 3;
  wake wait(std::initializer_list<int> fds, std::chrono::steady_clock::time_point deadline,
            int seen = 0) noexcept;

 private:
  int fd_;
  int count_ = 0;
};

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_INTERRUPT_H_
