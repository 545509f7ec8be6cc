#ifndef TOOLS_PLUGIN_AGENT_HANDSHAKE_CHECK_H_
#define TOOLS_PLUGIN_AGENT_HANDSHAKE_CHECK_H_

#include <grpcpp/grpcpp.h>

#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "common/event.h"
#include "plugin_service.grpc.pb.h"

namespace vexo::tools {

// Asks once, on a thread of its own, whether the appliance still has a handshake whose mirror is
// not done. The questions of a host do not tell: is_mirror_done is answered as for a mirror under
// way, and start_mirror would undo a "mirror done" that comes in between. So this asks as a local
// caller does, with wait_for_depart. Without the handshake the daemon says no at once; otherwise it
// does not answer for a minute, and keeps a thread waiting.
class handshake_check {
 public:
  // `news` is raised when the handshake is over. Throws std::system_error when there is no thread.
  handshake_check(std::shared_ptr<scsiplugin::PluginService::Stub> daemon, const std::string& lun,
                  event& news);
  ~handshake_check();  // ends the question
  handshake_check(const handshake_check&) = delete;
  handshake_check& operator=(const handshake_check&) = delete;

  bool is_over() const { return over_; }

 private:
  const std::shared_ptr<scsiplugin::PluginService::Stub> daemon_;
  // Two, because a step of the daemon's clock also ends the wait with a no.
  std::array<grpc::ClientContext, 2> calls_;
  std::atomic<bool> over_ = false;
  std::jthread thread_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_HANDSHAKE_CHECK_H_
