#ifndef TOOLS_PLUGIN_CTL_GUARD_WATCH_H_
#define TOOLS_PLUGIN_CTL_GUARD_WATCH_H_

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "common/endpoint.h"
#include "common/unique_fd.h"
#include "daemon_process.h"

namespace vexo::tools {

// Whether new connections are served, on the TCP port and on the unix socket: a daemon that has run
// out of files can lose one for good and go on with the other. Makes one connection at a time, to
// each endpoint once a second, and waits for the first word of the daemon, which the server speaks
// before the client. Takes no lock of the daemon and leaves nothing behind in it.
// Never blocks: whoever owns it calls step() when fd() is readable and when next() has come.
class guard_watch {
 public:
  using clock = std::chrono::steady_clock;

  enum class condition {
    unknown,  // not looked at yet
    serving,
    silent,  // nobody accepts: no word until the deadline
    full,    // accepted and closed at once: the daemon has no file left for one more
    absent,  // nobody listens
    barred,  // this side could not try
  };
  struct view {
    endpoint where;
    condition is = condition::unknown;
    // Of `silent` and `absent`: process() does this, and was seen to serve here before.
    bool by_process = false;
    clock::time_point since;  // the begin of the first look that showed this
    clock::time_point until;  // the end of the last one
    std::string reason;       // of `absent` and `barred`, from the system
  };

  // A connection is given up after `patience`.
  explicit guard_watch(std::chrono::milliseconds patience);

  int fd() const { return socket_.get(); }
  clock::time_point next() const { return next_; }
  void step();
  // Drops the look under way and begins one at views()[at], which has ended when fd() is -1 again.
  void look_at(std::size_t at);

  const std::array<view, 2>& views() const { return views_; }
  // Who listens at the unix socket, and may have ended since.
  const std::optional<daemon_process>& process() const { return process_; }
  // Starts from `unknown` again.
  void forget();

 private:
  void begin();
  void read_first_word();
  // Of a connection, that could not be begun or that has failed, why.
  void finish_with_error(int error);
  void finish(condition is, const std::string& reason = {});
  void identify_process();
  // Whether process() is it that serves the connection under way, or does not.
  bool is_by_process(condition is) const;
  bool is_at_unix_socket() const;

  const std::chrono::milliseconds patience_;
  std::array<view, 2> views_;
  std::size_t current_ = 0;  // which of views_ is looked at, or will be next
  unique_fd socket_;         // empty between two looks
  clock::time_point begun_;
  clock::time_point next_ = clock::now();
  std::optional<daemon_process> process_;
  std::array<bool, 2> served_ = {};  // process_ was seen to serve each of views_
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_GUARD_WATCH_H_
