#ifndef TOOLS_COMMON_CHANNEL_H_
#define TOOLS_COMMON_CHANNEL_H_

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <memory>

#include "common/endpoint.h"
#include "plugin_service.grpc.pb.h"

namespace vexo::tools {

using service_stub = scsiplugin::PluginService::StubInterface;

// Deadline of a call that the daemon answers at once.
inline constexpr std::chrono::milliseconds kCallTimeout = std::chrono::seconds(5);
// How long the daemon itself waits for a host in init_snapshot and wait_for_depart, and the
// deadline of those two calls: longer, so that the daemon's own "no" arrives first.
inline constexpr std::chrono::milliseconds kHostWait = std::chrono::seconds(60);
inline constexpr std::chrono::milliseconds kHostWaitTimeout = std::chrono::seconds(65);

// A channel with a connection of its own, so that its state is that of this endpoint now. Returns
// at once; the first call connects.
std::shared_ptr<grpc::Channel> make_channel(const endpoint& where);

// Gives the call made with `context` its deadline, counted from now.
void set_timeout(grpc::ClientContext& context, std::chrono::milliseconds timeout);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_CHANNEL_H_
