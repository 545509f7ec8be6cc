#include <unistd.h>

#include "connection.h"
#include "modes.h"
#include "subscribers.h"

namespace vexo::bench {

namespace {

struct samples {
  std::vector<double> last_us;
  std::vector<double> release_us;
};

void announce_once(subscribers* hosts, int count, useconds_t pause, samples* into) {
  hosts->delivered = 0;
  hosts->released = false;
  const auto begin = clock::now();
  hosts->announce();
  connection::run_until([&] { return hosts->delivered == count; });
  into->last_us.push_back(1e6 * seconds_since(begin));
  if (pause > 0) usleep(pause);
  const auto answered = clock::now();
  hosts->answer();
  connection::run_until([&] { return hosts->released; });
  into->release_us.push_back(1e6 * seconds_since(answered));
  hosts->finish();
}

struct side {
  explicit side(const server& at, int count) : of(at), hosts(gather(at, count)) {}

  server of;
  std::unique_ptr<subscribers> hosts;
  samples all;
  std::vector<double> last_us;  // the median of each block
  std::vector<double> release_us;
  std::vector<double> cpu_us;
};

void measure_block(side* on, int count, useconds_t pause, double seconds) {
  samples block;
  const double cpu_before = on->of.cpu_seconds();
  const auto begin = clock::now();
  while (seconds_since(begin) < seconds) announce_once(on->hosts.get(), count, pause, &block);
  const double deliveries = static_cast<double>(block.last_us.size()) * count;
  on->cpu_us.push_back(1e6 * (on->of.cpu_seconds() - cpu_before) / deliveries);
  on->last_us.push_back(percentile(block.last_us, 0.5));
  on->release_us.push_back(percentile(block.release_us, 0.5));
  on->all.last_us.insert(on->all.last_us.end(), block.last_us.begin(), block.last_us.end());
  on->all.release_us.insert(on->all.release_us.end(), block.release_us.begin(),
                            block.release_us.end());
}

std::vector<side> measure(int hosts, useconds_t pause, const blocks& how,
                          const std::vector<server>& servers) {
  std::vector<side> sides;
  sides.reserve(servers.size());
  for (const auto& at : servers) sides.emplace_back(at, hosts);
  samples warm_up;
  for (auto& on : sides) announce_once(on.hosts.get(), hosts, pause, &warm_up);
  for (int i = 0; i < how.count; ++i) {
    for (auto& on : sides) measure_block(&on, hosts, pause, how.seconds);
  }
  return sides;
}

}  // namespace

void fanout(int hosts, const blocks& how, const std::vector<server>& servers) {
  const std::string prefix = "fanout/" + std::to_string(hosts) + "/";
  for (const auto& on : measure(hosts, 0, how, servers)) {
    print({on.of.name, prefix + "last_us", on.last_us});
    print({on.of.name, prefix + "last_p99_us", {percentile(on.all.last_us, 0.99)}});
    print({on.of.name, prefix + "release_us", on.release_us});
    print({on.of.name, prefix + "release_p99_us", {percentile(on.all.release_us, 0.99)}});
    print({on.of.name, prefix + "cpu_us", on.cpu_us});
  }
}

void wake(const blocks& how, const std::vector<server>& servers) {
  constexpr useconds_t kUntilTheCallerWaits = 500;
  for (const auto& on : measure(1, kUntilTheCallerWaits, how, servers)) {
    print({on.of.name, "wake/us", on.release_us});
    print({on.of.name, "wake/p99_us", {percentile(on.all.release_us, 0.99)}});
  }
}

}  // namespace vexo::bench
