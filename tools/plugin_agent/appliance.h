#ifndef TOOLS_PLUGIN_AGENT_APPLIANCE_H_
#define TOOLS_PLUGIN_AGENT_APPLIANCE_H_

#include <grpcpp/grpcpp.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "common/endpoint.h"
#include "common/event.h"
#include "plugin_service.grpc.pb.h"

namespace vexo::tools {

// One appliance's daemon and the connection to it, shared by the subscription, which renews it, and
// by the handshakes. Any thread may call.
class appliance {
 public:
  explicit appliance(endpoint where);
  // One that this process plays itself, for a rehearsal. It must not be asked to connect().
  appliance(std::string name, const std::shared_ptr<grpc::Channel>& channel);
  bool is_played() const { return where_.target.empty(); }

  // Looks the name up and connects anew to one of its IPv4 addresses: to the one of the last time
  // if it still answers, otherwise to the first that does. Throws std::runtime_error when none
  // does. Blocks for as long as the name service takes, and for 4 s for each address without an
  // answer; gives up when `stop` is raised.
  void connect(const event& stop);
  // To be called when the connection has ended. Until the next connect(), gRPC itself connects
  // when a call is made.
  void lost();

  std::shared_ptr<scsiplugin::PluginService::Stub> stub() const;
  // As in "10.0.0.5:3265", once connect() was called; before, as the user wrote it.
  std::string address() const;
  // As in "10.0.0.5:3265 (nas1)".
  std::string name() const;

  // How often the subscription has lost its connection so far. After a loss the daemon may be a new
  // process, which knows of no handshake.
  unsigned losses() const { return losses_; }

  struct answer {
    grpc::Status status;
    bool yes = false;  // the daemon's `success`
  };
  answer lun_op(const scsiplugin::LunCmd& request, std::chrono::milliseconds timeout) const;

 private:
  const endpoint where_;
  mutable std::mutex mutex_;
  // Both under mutex_.
  std::shared_ptr<scsiplugin::PluginService::Stub> stub_;
  std::string address_;  // with the port; empty before the first connection
  std::atomic<unsigned> losses_ = 0;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_APPLIANCE_H_
