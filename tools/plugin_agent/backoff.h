#ifndef TOOLS_PLUGIN_AGENT_BACKOFF_H_
#define TOOLS_PLUGIN_AGENT_BACKOFF_H_

#include <chrono>
#include <random>

namespace vexo::tools {

// How long to wait before subscribing again. Always partly random: when a daemon ends, all its
// hosts lose their connection in the same instant, and must not come back in the same instant.
class backoff {
 public:
  // The wait after a lost connection, and while no connection can be made, which costs the daemon
  // nothing: a random time between these two.
  static constexpr std::chrono::milliseconds kSoonest{500};
  static constexpr std::chrono::milliseconds kLatest{4000};
  // The wait after a daemon has answered and not kept this host as a subscriber: doubled each time,
  // from 1 s to 30 s.
  static constexpr std::chrono::milliseconds kShortest = std::chrono::seconds(1);
  static constexpr std::chrono::milliseconds kLongest = std::chrono::seconds(30);
  // A subscription that held for this long was a success: the next wait is short again.
  static constexpr std::chrono::milliseconds kHealthy = std::chrono::seconds(60);
  // A connection that held for longer than this was served by the daemon.
  static constexpr std::chrono::milliseconds kServed = std::chrono::seconds(1);

  // A host that subscribes again asks at a random moment within this time whether it is listed.
  // With hundreds of hosts each answer takes the daemon milliseconds, and after a restart of the
  // daemon they all subscribe at about the same time.
  static constexpr std::chrono::milliseconds kListCheckWithin = std::chrono::seconds(60);

  // How an attempt ended.
  enum class ending {
    unreachable,   // without a connection
    disconnected,  // by the loss of the connection
    turned_away,   // by the daemon
  };

  explicit backoff(unsigned seed = std::random_device()()) : random_(seed) {}

  // The wait after an attempt, whose connection held for `held`.
  std::chrono::milliseconds next(ending how, std::chrono::milliseconds held);
  // A random time up to kListCheckWithin.
  std::chrono::milliseconds until_list_check() { return between({}, kListCheckWithin); }

 private:
  std::chrono::milliseconds between(std::chrono::milliseconds least,
                                    std::chrono::milliseconds most);

  std::mt19937 random_;
  std::chrono::milliseconds base_ = kShortest;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_BACKOFF_H_
