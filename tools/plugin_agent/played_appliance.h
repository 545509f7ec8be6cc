#ifndef TOOLS_PLUGIN_AGENT_PLAYED_APPLIANCE_H_
#define TOOLS_PLUGIN_AGENT_PLAYED_APPLIANCE_H_

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>

#include "common/event.h"
#include "plugin_service.grpc.pb.h"

namespace vexo::tools {

// A daemon in this process, which nobody else can reach. It says yes to every question of a
// handshake, and notes when the first of each kind was asked.
class played_appliance : private scsiplugin::PluginService::Service {
 public:
  using clock = std::chrono::steady_clock;

  played_appliance();  // throws std::runtime_error
  ~played_appliance() override;
  played_appliance(const played_appliance&) = delete;
  played_appliance& operator=(const played_appliance&) = delete;

  std::shared_ptr<grpc::Channel> channel();

  // Raised when the host has reported that it is at rest.
  const event& departed() const { return departed_; }

  struct moments {
    std::optional<clock::time_point> prepared;  // the first question for the mirror
    std::optional<clock::time_point> mirrored;  // the answer that it is done
    std::optional<clock::time_point> departed;  // the first report that the host is at rest
  };
  moments seen() const;

 private:
  grpc::Status LunOp(grpc::ServerContext* context, const scsiplugin::LunCmd* request,
                     scsiplugin::LunCmdResp* response) override;

  event departed_;
  mutable std::mutex mutex_;
  moments seen_;  // under mutex_
  std::unique_ptr<grpc::Server> server_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_PLAYED_APPLIANCE_H_
