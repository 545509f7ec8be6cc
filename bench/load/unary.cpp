#include <google/protobuf/empty.pb.h>

#include <functional>
#include <memory>

#include "grpc_subscribers.h"
#include "modes.h"

namespace vexo::bench {

namespace {

struct method {
  std::string measure;
  std::string name;
  std::unique_ptr<google::protobuf::MessageLite> request;
};

// Callers that each make the same call over and over.
class callers {
 public:
  callers(const server& at, int count) : of(at) {
    for (int i = 0; i < count; ++i) {
      connections_.push_back(std::make_unique<grpc_connection>(at.port));
    }
  }

  void measure_block(const method& what, double seconds) {
    std::vector<double> took_us;
    const double cpu_before = of.cpu_seconds();
    const auto begin = clock::now();
    running_ = static_cast<int>(connections_.size());
    for (auto& from : connections_) call(from.get(), what, begin, seconds, &took_us);
    connection::run_until([this] { return running_ == 0; });
    const auto calls = static_cast<double>(took_us.size());
    per_second.push_back(calls / seconds_since(begin));
    cpu_us.push_back(1e6 * (of.cpu_seconds() - cpu_before) / calls);
    p50_us.push_back(percentile(took_us, 0.5));
    all_us.insert(all_us.end(), took_us.begin(), took_us.end());
  }

  server of;
  std::vector<double> per_second;
  std::vector<double> cpu_us;
  std::vector<double> p50_us;
  std::vector<double> all_us;

 private:
  void call(grpc_connection* from, const method& what, clock::time_point block, double seconds,
            std::vector<double>* took_us) {
    from->call(
        what.name, *what.request, [](const std::string&) {},
        [=, this, &what, begin = clock::now()] {
          took_us->push_back(1e6 * seconds_since(begin));
          if (seconds_since(block) < seconds) {
            call(from, what, block, seconds, took_us);
          } else {
            --running_;
          }
        });
  }

  std::vector<std::unique_ptr<grpc_connection>> connections_;
  int running_ = 0;
};

void measure(const std::string& prefix, const method& what, int count, const blocks& how,
             const std::vector<server>& servers) {
  std::vector<std::unique_ptr<callers>> sides;
  for (const auto& at : servers) sides.push_back(std::make_unique<callers>(at, count));
  for (int i = 0; i < how.count; ++i) {
    for (auto& on : sides) on->measure_block(what, how.seconds);
  }
  for (const auto& on : sides) {
    print({on->of.name, prefix + "per_second", on->per_second});
    print({on->of.name, prefix + "cpu_us", on->cpu_us});
    print({on->of.name, prefix + "p50_us", on->p50_us});
    print({on->of.name, prefix + "p99_us", {percentile(on->all_us, 0.99)}});
  }
}

template <typename Message>
std::unique_ptr<Message> copy_of(const Message& message) {
  return std::make_unique<Message>(message);
}

method lun_support(int number) {
  scsiplugin::LunCmd cmd;
  cmd.mutable_is_lun_support_req()->set_type(scsiplugin::LUN_TYPE_80);
  cmd.mutable_is_lun_support_req()->set_src_lun_id(lun(number));
  return {"is_lun_support", "LunOp", copy_of(cmd)};
}

// In an order in which no call has to wait for another party.
std::vector<method> all_methods() {
  using namespace scsiplugin;
  std::vector<method> methods;
  methods.push_back(lun_support(15));
  methods.push_back({"start_mirror", "LunOp", copy_of(start_mirror(lun(0)))});
  PluginCmd publish;
  publish.set_task_id(lun(0));
  publish.mutable_mirror_done_req();
  methods.push_back({"mirror_done", "Publish", copy_of(publish)});
  LunCmd lun_op;
  lun_op.mutable_is_mirror_done_req()->set_type(LUN_TYPE_80);
  lun_op.mutable_is_mirror_done_req()->set_src_lun_id(lun(0));
  methods.push_back({"is_mirror_done", "LunOp", copy_of(lun_op)});
  lun_op.mutable_depart_relation_req()->set_src_lun_id(lun(0));
  methods.push_back({"depart_relation", "LunOp", copy_of(lun_op)});
  publish.mutable_wait_for_depart_req();
  methods.push_back({"wait_for_depart", "Publish", copy_of(publish)});
  methods.push_back({"depart_done", "Publish", copy_of(depart_done(lun(1)))});
  methods.push_back({"list", "PluginConnList", copy_of(google::protobuf::Empty())});
  return methods;
}

}  // namespace

void unary(const blocks& how, const std::vector<server>& servers) {
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
    for (const int count : {1, 4, 8, 16}) {
      if (count == 8 && what.measure != "start_mirror") continue;
      measure("unary/" + what.measure + "/" + std::to_string(count) + "/", what, count, how,
              servers);
    }
  }
}

void lookup(int luns, const blocks& how, const std::vector<server>& servers) {
  measure("lookup/" + std::to_string(luns) + "/", lun_support(luns - 1), 1, how, servers);
}

}  // namespace vexo::bench
