#include <functional>
#include <memory>

#include "grpc_subscribers.h"
#include "modes.h"
#include "requests.h"

namespace vexo::bench {

namespace {

struct method {
  std::string measure;
  std::string name;
  std::string request;
};

// Callers that each make the same call over and over.
class callers {
 public:
  callers(const server& at, int count) : of_(at) {
    for (int i = 0; i < count; ++i) {
      connections_.push_back(std::make_unique<grpc_connection>(at.port));
    }
  }

  void measure_round(const std::string& prefix, const method& what, double seconds) {
    std::vector<double> took_us;
    const double cpu_before = of_.cpu_seconds();
    const auto begin = clock::now();
    running_ = static_cast<int>(connections_.size());
    for (auto& from : connections_) call(from.get(), what, begin, seconds, &took_us);
    connection::run_until([this] { return running_ == 0; });
    const auto calls = static_cast<double>(took_us.size());
    print(of_, prefix + "per_second", {calls / seconds_since(begin)});
    print(of_, prefix + "cpu_us", {1e6 * (of_.cpu_seconds() - cpu_before) / calls});
    print(of_, prefix + "us", took_us);
  }

 private:
  void call(grpc_connection* from, const method& what, clock::time_point start, double seconds,
            std::vector<double>* took_us) {
    from->call(
        what.name, what.request, [](const std::string&) {},
        [=, this, &what, begin = clock::now()] {
          took_us->push_back(1e6 * seconds_since(begin));
          if (seconds_since(start) < seconds) {
            call(from, what, start, seconds, took_us);
          } else {
            --running_;
          }
        });
  }

  const server& of_;
  std::vector<std::unique_ptr<grpc_connection>> connections_;
  int running_ = 0;
};

void measure(const std::string& prefix, const method& what, int count, const rounds& how,
             const std::vector<server>& servers) {
  std::vector<std::unique_ptr<callers>> sides;
  for (const auto& at : servers) sides.push_back(std::make_unique<callers>(at, count));
  for (int i = 0; i < how.count; ++i) {
    for (auto& on : sides) on->measure_round(prefix, what, how.seconds);
  }
}

// In an order in which no call has to wait for another party.
std::vector<method> all_methods() {
  return {
      {"is_lun_support", "LunOp", is_lun_support(lun(15))},
      {"start_mirror", "LunOp", start_mirror(lun(0))},
      {"mirror_done", "Publish", mirror_done(lun(0))},
      {"is_mirror_done", "LunOp", is_mirror_done(lun(0))},
      {"depart_relation", "LunOp", depart_relation(lun(0))},
      {"wait_for_depart", "Publish", wait_for_depart(lun(0))},
      {"depart_done", "Publish", depart_done(lun(1))},
      {"list", "PluginConnList", {}},
  };
}

}  // namespace

void unary(int at_once, const rounds& how, const std::vector<server>& servers) {
  // A handshake for the calls to find.
  std::vector<std::unique_ptr<grpc_subscribers>> hosts;
  for (const auto& at : servers) {
    hosts.push_back(std::make_unique<grpc_subscribers>(at, 1));
    hosts.back()->announce();
    connection::run_until([&] { return hosts.back()->delivered == 1; });
    hosts.back()->answer();
    connection::run_until([&] { return hosts.back()->released; });
  }
  for (const auto& what : all_methods()) {
    measure("unary/" + what.measure + "/" + std::to_string(at_once) + "/", what, at_once, how,
            servers);
  }
}

void lookup(int luns, const rounds& how, const std::vector<server>& servers) {
  measure("lookup/" + std::to_string(luns) + "/",
          {"is_lun_support", "LunOp", is_lun_support(lun(luns - 1))}, 1, how, servers);
}

}  // namespace vexo::bench
