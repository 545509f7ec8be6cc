#include "common/channel.h"

namespace vexo::tools {

namespace {
// The server ends connections that ping more often than this.
constexpr std::chrono::milliseconds kKeepalive = std::chrono::seconds(300);
}  // namespace

std::shared_ptr<grpc::Channel> make_channel(const endpoint& where) {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  // The daemon is in the same storage network: a web proxy of the environment must not be used.
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  // The name service of that network has no records about balancing or service configuration.
  arguments.SetInt(GRPC_ARG_SERVICE_CONFIG_DISABLE_RESOLUTION, 1);
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, static_cast<int>(kKeepalive.count()));
  // No data may be sent on a subscription for days; a broken connection is noticed even then.
  arguments.SetInt(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0);
  arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 1000);
  arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 30000);
  return grpc::CreateCustomChannel(where.target, grpc::InsecureChannelCredentials(), arguments);
}

void set_timeout(grpc::ClientContext& context, std::chrono::milliseconds timeout) {
  context.set_deadline(std::chrono::system_clock::now() + timeout);
}

}  // namespace vexo::tools
