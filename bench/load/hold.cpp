#include <unistd.h>

#include "connection.h"
#include "grpc_subscribers.h"
#include "modes.h"

namespace vexo::bench {

namespace {

void print_memory(const server& of, const std::string& prefix) {
  print({of.name, prefix + "rss_kib", {static_cast<double>(of.status_kib("VmRSS"))}});
  print({of.name, prefix + "virtual_kib", {static_cast<double>(of.status_kib("VmSize"))}});
}

}  // namespace

void hold(int hosts, const std::vector<server>& servers) {
  constexpr unsigned kUntilItIsQuiet = 1;
  constexpr unsigned kIdleSeconds = 2;
  std::vector<std::unique_ptr<subscribers>> all;
  for (const auto& at : servers) {
    if (hosts > 0) all.push_back(gather(at, hosts));
  }
  sleep(kUntilItIsQuiet);
  std::vector<double> cpu_before;
  for (const auto& of : servers) cpu_before.push_back(of.cpu_seconds());
  const auto begin = clock::now();
  sleep(kIdleSeconds);
  const double seconds = seconds_since(begin);

  const std::string prefix = "hold/" + std::to_string(hosts) + "/";
  for (std::size_t i = 0; i < servers.size(); ++i) {
    const server& of = servers[i];
    const double idle = 100 * (of.cpu_seconds() - cpu_before[i]) / seconds;
    print_memory(of, prefix);
    print({of.name, prefix + "threads", {static_cast<double>(of.entries("task"))}});
    print({of.name, prefix + "files", {static_cast<double>(of.entries("fd"))}});
    print({of.name, prefix + "idle_cpu_percent", {idle}});
  }
}

void reconnects(const std::vector<server>& servers) {
  constexpr int kHosts = 800;
  constexpr int kTimes = 3;
  constexpr unsigned kUntilItIsQuiet = 1;
  for (const auto& of : servers) {
    for (int i = 0; i < kTimes; ++i) grpc_subscribers(of, kHosts).leave();
    sleep(kUntilItIsQuiet);
    print_memory(of, "reconnects/" + std::to_string(kTimes * kHosts) + "/");
  }
}

}  // namespace vexo::bench
