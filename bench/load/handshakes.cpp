#include <memory>

#include "grpc_subscribers.h"
#include "modes.h"

namespace vexo::bench {

namespace {

using scsiplugin::LunCmd;
using scsiplugin::LunCmdResp;
using scsiplugin::PluginClient;
using scsiplugin::PluginCmd;
using scsiplugin::PluginCmdResp;

// Local callers with a handshake each, over and over, and the host that takes part in all of them.
class callers_and_host {
 public:
  callers_and_host(const server& at, int at_once) : of(at), host_(at.port) {
    for (int i = 0; i < at_once; ++i) {
      callers_.push_back(std::make_unique<grpc_connection>(at.port));
    }
    PluginClient self;
    self.set_plugin_id("host-0");
    const auto take = [this](const std::string& bytes) { take_cmd(bytes); };
    host_.call("Subscribe", self, take, [] {});
    wait_until_listed(1, callers_[0].get());
  }

  void measure_block(double seconds) {
    done_ = 0;
    running_ = static_cast<int>(callers_.size());
    end_ = clock::now() +
           std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(seconds));
    const auto begin = clock::now();
    const double cpu_before = of.cpu_seconds();
    for (int i = 0; i < static_cast<int>(callers_.size()); ++i) shake_hands(i);
    connection::run_until([this] { return running_ == 0; });
    per_second.push_back(done_ / seconds_since(begin));
    cpu_us.push_back(1e6 * (of.cpu_seconds() - cpu_before) / done_);
  }

  server of;
  std::vector<double> per_second;
  std::vector<double> cpu_us;

 private:
  using then = std::function<void()>;

  template <typename Response, typename Request>
  static void call(grpc_connection* from, const std::string& method, const Request& request,
                   const then& next) {
    from->call(
        method, request,
        [method](const std::string& bytes) {
          Response response;
          if (!response.ParseFromString(bytes) || !response.success()) {
            give_up(method + " was answered with no: " + response.ShortDebugString());
          }
        },
        next);
  }

  void publish(int number, const PluginCmd& cmd, const then& next) {
    call<PluginCmdResp>(callers_[static_cast<std::size_t>(number)].get(), "Publish", cmd, next);
  }

  void lun_op(const LunCmd& cmd, const then& next) { call<LunCmdResp>(&host_, "LunOp", cmd, next); }

  void take_cmd(const std::string& bytes) {
    PluginCmd cmd;
    cmd.ParseFromString(bytes);
    lun_op(start_mirror(cmd.task_id()), [] {});
  }

  void shake_hands(int number) {
    publish(number, init_snapshot(lun(number)), [=, this] {
      PluginCmd cmd;
      cmd.set_task_id(lun(number));
      cmd.mutable_mirror_done_req();
      publish(number, cmd, [=, this] { poll(number); });
    });
  }

  void poll(int number) {
    LunCmd cmd;
    cmd.mutable_is_mirror_done_req()->set_type(scsiplugin::LUN_TYPE_80);
    cmd.mutable_is_mirror_done_req()->set_src_lun_id(lun(number));
    lun_op(cmd, [=, this] { depart(number); });
  }

  void depart(int number) {
    PluginCmd cmd;
    cmd.set_task_id(lun(number));
    cmd.mutable_wait_for_depart_req();
    publish(number, cmd,
            [=, this] { publish(number, depart_done(lun(number)), [=, this] { end(number); }); });
    LunCmd quiet;
    quiet.mutable_depart_relation_req()->set_src_lun_id(lun(number));
    lun_op(quiet, [] {});
  }

  void end(int number) {
    ++done_;
    if (clock::now() < end_) {
      shake_hands(number);
    } else {
      --running_;
    }
  }

  grpc_connection host_;
  std::vector<std::unique_ptr<grpc_connection>> callers_;
  clock::time_point end_;
  int running_ = 0;
  int done_ = 0;
};

}  // namespace

void handshakes(int at_once, const blocks& how, const std::vector<server>& servers) {
  std::vector<std::unique_ptr<callers_and_host>> sides;
  for (const auto& at : servers) sides.push_back(std::make_unique<callers_and_host>(at, at_once));
  for (int i = 0; i < how.count; ++i) {
    for (auto& on : sides) on->measure_block(how.seconds);
  }
  for (const auto& on : sides) {
    const std::string prefix = "handshakes/" + std::to_string(at_once) + "/";
    print({on->of.name, prefix + "per_second", on->per_second});
    print({on->of.name, prefix + "cpu_us", on->cpu_us});
  }
}

}  // namespace vexo::bench
