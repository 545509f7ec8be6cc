#ifndef TOOLS_PLUGIN_AGENT_HANDSHAKE_NEWS_H_
#define TOOLS_PLUGIN_AGENT_HANDSHAKE_NEWS_H_

#include <chrono>
#include <mutex>
#include <optional>
#include <stdexcept>

#include "common/event.h"

namespace vexo::tools {

// Thrown to end a handshake. what() is the reason in its verdict.
class given_up : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What other threads tell a handshake, and the wait of its own thread for that.
class handshake_news {
 public:
  using clock = std::chrono::steady_clock;

  struct facts {
    bool stop = false;
    bool stop_now = false;
    bool superseded = false;
    std::optional<int> departed;  // the result of the split
  };

  // Any thread may call these; see class handshake for what they mean.
  void stop();
  void stop_now();
  void superseded();
  void departed(int result);

  // Raised by the above, and by others who want the handshake's thread to look again.
  event& wake() { return wake_; }

  // The following are for the handshake's thread. Blocks until wake() is raised, `fd` is readable,
  // or `until`; then all that it was told.
  facts wait(clock::time_point until, int fd = -1);
  // As wait(), while nothing is frozen yet: throws given_up when the handshake is to end.
  void wait_or_give_up(clock::time_point until, int fd = -1);

 private:
  template <class Change>
  void tell(Change change);

  event wake_;
  std::mutex mutex_;
  facts facts_;  // under mutex_
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_HANDSHAKE_NEWS_H_
