#include <unistd.h>

#include "connection.h"
#include "grpc_subscribers.h"
#include "modes.h"

namespace vexo::bench {

namespace {

constexpr unsigned kUntilItIsQuiet = 1;  // seconds

void print_memory(const server& of, const std::string& prefix) {
  print(of, prefix + "rss_kib", {static_cast<double>(of.status_kib("VmRSS"))});
  print(of, prefix + "virtual_kib", {static_cast<double>(of.status_kib("VmSize"))});
}

}  // namespace

void hold(int hosts, const rounds& /*how*/, const std::vector<server>& servers) {
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
    print(of, prefix + "threads", {static_cast<double>(of.entries("task"))});
    print(of, prefix + "files", {static_cast<double>(of.entries("fd"))});
    print(of, prefix + "idle_cpu_percent", {idle});
  }
}

void reconnects(int hosts, const rounds& how, const std::vector<server>& servers) {
  for (const auto& of : servers) {
    for (int i = 0; i < how.count; ++i) grpc_subscribers(of, hosts).leave();
    sleep(kUntilItIsQuiet);
    print_memory(of, "reconnects/" + std::to_string(how.count * hosts) + "/");
  }
}

}  // namespace vexo::bench
