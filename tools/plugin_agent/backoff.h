#ifndef TOOLS_PLUGIN_AGENT_BACKOFF_H_
#define TOOLS_PLUGIN_AGENT_BACKOFF_H_

#include <chrono>
#include <random>

namespace vexo::tools {

// How long to wait before subscribing again. Always partly random: when a daemon ends, all its
// hosts lose their connection in the same instant, and must not come back in the same instant.
class backoff {
 public:
  // After a lost connection, and while there is none to be had, which costs the daemon nothing:
  // anything between these two.
  static constexpr std::chrono::milliseconds kSoonest{500};
  static constexpr std::chrono::milliseconds kLatest{4000};
  // After each time that a daemon is there and does not keep this host as a subscriber: from 1 s,
  // doubled, to 30 s.
  static constexpr std::chrono::milliseconds kShortest = std::chrono::seconds(1);
  static constexpr std::chrono::milliseconds kLongest = std::chrono::seconds(30);
  // A subscription that held for this long was a success: the next wait is short again.
  static constexpr std::chrono::milliseconds kHealthy = std::chrono::seconds(60);
  // A connection that was lost later than this was served until then.
  static constexpr std::chrono::milliseconds kServed = std::chrono::seconds(1);

  // How long a host that has come back leaves the daemon alone before it asks whether it is listed.
  // To answer takes the daemon milliseconds when there are hundreds of hosts, which come back
  // together.
  static constexpr std::chrono::milliseconds kLook = std::chrono::seconds(60);

  // How an attempt ended.
  enum class ending {
    unreachable,   // without a connection
    disconnected,  // by the loss of the connection
    turned_away,   // by the daemon
  };

  explicit backoff(unsigned seed = std::random_device()()) : random_(seed) {}

  // The wait after an attempt, whose connection held for `held`.
  std::chrono::milliseconds next(ending how, std::chrono::milliseconds held);
  // Anything up to kLook.
  std::chrono::milliseconds until_look() { return between({}, kLook); }

 private:
  std::chrono::milliseconds between(std::chrono::milliseconds least,
                                    std::chrono::milliseconds most);

  std::mt19937 random_;
  std::chrono::milliseconds base_ = kShortest;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_BACKOFF_H_
