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

void measure(const std::string& prefix, int hosts, useconds_t pause, const rounds& how,
             const std::vector<server>& servers) {
  std::vector<std::unique_ptr<subscribers>> of_each;
  samples warm_up;
  for (const auto& at : servers) of_each.push_back(gather(at, hosts));
  for (const auto& its : of_each) announce_once(its.get(), hosts, pause, &warm_up);
  for (int round = 0; round < how.count; ++round) {
    for (std::size_t i = 0; i < servers.size(); ++i) {
      samples taken;
      const double cpu_before = servers[i].cpu_seconds();
      const auto begin = clock::now();
      while (seconds_since(begin) < how.seconds) {
        announce_once(of_each[i].get(), hosts, pause, &taken);
      }
      const double deliveries = static_cast<double>(taken.last_us.size()) * hosts;
      const double cpu_us = 1e6 * (servers[i].cpu_seconds() - cpu_before) / deliveries;
      print(servers[i], prefix + "last_us", taken.last_us);
      print(servers[i], prefix + "release_us", taken.release_us);
      print(servers[i], prefix + "cpu_us", {cpu_us});
    }
  }
}

}  // namespace

void fanout(int hosts, const rounds& how, const std::vector<server>& servers) {
  measure("fanout/" + std::to_string(hosts) + "/", hosts, 0, how, servers);
}

void wake(int hosts, const rounds& how, const std::vector<server>& servers) {
  constexpr useconds_t kUntilTheCallerWaits = 500;
  measure("wake/", hosts, kUntilTheCallerWaits, how, servers);
}

}  // namespace vexo::bench
