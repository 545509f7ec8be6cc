#ifndef TOOLS_PLUGIN_GUARD_WATCH_H_
#define TOOLS_PLUGIN_GUARD_WATCH_H_

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "common/endpoint.h"
#include "common/unique_fd.h"
#include "plugin_guard/daemon_process.h"

namespace vexo::tools {

// Whether new connections are served, on the TCP port and on the unix socket: a daemon can lose one
// endpoint for good and go on serving the other. Connects to each of them once a second, to one at
// a time, and waits for the daemon's first bytes: in HTTP/2 the server need not wait for the
// client's. Takes no lock of the daemon and leaves nothing behind in it. Never blocks: its owner
// calls step() when fd() is readable and when next() has come.
class watch {
 public:
  using clock = std::chrono::steady_clock;

  enum class condition {
    not_looked_at,
    serving,
    silent,       // the daemon sent nothing until the deadline: nobody accepts
    closed,       // accepted and closed at once: the daemon has no file left for one more
    refused,      // nobody listens
    local_error,  // this side could not try to connect
  };
  struct view {
    endpoint where;
    condition is = condition::not_looked_at;
    // True for `silent` and `refused` when process() is the cause, and was seen to serve here
    // before.
    bool by_process = false;
    clock::time_point since;  // when the first look that found this began
    clock::time_point until;  // when the last look ended
    std::string reason;       // the system's text for `refused` and `local_error`
  };

  // A look that takes longer than `patience` has found `silent`.
  explicit watch(std::chrono::milliseconds patience);

  int fd() const { return socket_.get(); }
  clock::time_point next() const { return next_; }
  void step();
  // Drops the look under way and begins one at views()[at]. It has ended when fd() is -1 again.
  void look_at(std::size_t at);

  const std::array<view, 2>& views() const { return views_; }
  // The process that listened at the unix socket at the last look; it may have ended since.
  const std::optional<daemon_process>& process() const { return process_; }
  // Starts again from `not_looked_at`.
  void forget();

 private:
  void begin();
  void read_first_byte();
  // Ends the look with what errno says of a connection that could not be begun or has failed.
  void finish_with_error(int error);
  void finish(condition is, const std::string& reason = {});
  void identify_process();
  // Whether process() is the cause that the connection under way ends as `is`.
  bool is_by_process(condition is) const;
  bool is_at_unix_socket() const;

  const std::chrono::milliseconds patience_;
  std::array<view, 2> views_;
  std::size_t current_ = 0;  // the index in views_ of this look, or between two looks of the next
  unique_fd socket_;         // empty between two looks
  clock::time_point begun_;
  clock::time_point next_ = clock::now();
  std::optional<daemon_process> process_;
  std::array<bool, 2> served_ = {};  // process_ was seen to serve each of views_
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_GUARD_WATCH_H_
