#include <memory>

#include "grpc_subscribers.h"
#include "lun_cmd.pb.h"
#include "modes.h"
#include "plugin_cmd.pb.h"
#include "requests.h"

namespace vexo::bench {

namespace {

using scsiplugin::LunCmdResp;
using scsiplugin::PluginCmd;
using scsiplugin::PluginCmdResp;

// Local callers with a handshake each, over and over, and the host that takes part in all of them.
class callers_and_host {
 public:
  callers_and_host(const server& at, int at_once) : of_(at), host_(at.port) {
    for (int i = 0; i < at_once; ++i) {
      callers_.push_back(std::make_unique<grpc_connection>(at.port));
    }
    const auto take = [this](const std::string& bytes) { take_cmd(bytes); };
    host_.call("Subscribe", client(host_id(0)), take, [] {});
    wait_until_listed(1, callers_[0].get());
  }

  void measure_round(double seconds) {
    done_ = 0;
    running_ = static_cast<int>(callers_.size());
    end_ = clock::now() +
           std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(seconds));
    const auto begin = clock::now();
    const double cpu_before = of_.cpu_seconds();
    for (int i = 0; i < static_cast<int>(callers_.size()); ++i) shake_hands(i);
    connection::run_until([this] { return running_ == 0; });
    const std::string prefix = "handshakes/" + std::to_string(callers_.size()) + "/";
    print(of_, prefix + "per_second", {done_ / seconds_since(begin)});
    print(of_, prefix + "cpu_us", {1e6 * (of_.cpu_seconds() - cpu_before) / done_});
  }

 private:
  using then = std::function<void()>;

  template <typename Response>
  static void call(grpc_connection* from, const std::string& method, const std::string& request,
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

  void publish(int number, const std::string& cmd, const then& next) {
    call<PluginCmdResp>(callers_[static_cast<std::size_t>(number)].get(), "Publish", cmd, next);
  }

  void lun_op(const std::string& cmd, const then& next) {
    call<LunCmdResp>(&host_, "LunOp", cmd, next);
  }

  void take_cmd(const std::string& bytes) {
    PluginCmd cmd;
    cmd.ParseFromString(bytes);
    lun_op(start_mirror(cmd.task_id()), [] {});
  }

  void shake_hands(int number) {
    publish(number, init_snapshot(lun(number)), [=, this] {
      publish(number, mirror_done(lun(number)),
              [=, this] { lun_op(is_mirror_done(lun(number)), [=, this] { depart(number); }); });
    });
  }

  void depart(int number) {
    publish(number, wait_for_depart(lun(number)),
            [=, this] { publish(number, depart_done(lun(number)), [=, this] { end(number); }); });
    lun_op(depart_relation(lun(number)), [] {});
  }

  void end(int number) {
    ++done_;
    if (clock::now() < end_) {
      shake_hands(number);
    } else {
      --running_;
    }
  }

  const server& of_;
  grpc_connection host_;
  std::vector<std::unique_ptr<grpc_connection>> callers_;
  clock::time_point end_;
  int running_ = 0;
  int done_ = 0;
};

}  // namespace

void handshakes(int at_once, const rounds& how, const std::vector<server>& servers) {
  std::vector<std::unique_ptr<callers_and_host>> sides;
  for (const auto& at : servers) sides.push_back(std::make_unique<callers_and_host>(at, at_once));
  for (int i = 0; i < how.count; ++i) {
    for (auto& on : sides) on->measure_round(how.seconds);
  }
}

}  // namespace vexo::bench
