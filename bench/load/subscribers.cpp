#include "subscribers.h"

#include "brokers.h"
#include "grpc_subscribers.h"

namespace vexo::bench {

std::unique_ptr<subscribers> gather(const server& at, int hosts) {
  if (at.protocol == "grpc") return std::make_unique<grpc_subscribers>(at, hosts);
  return std::make_unique<broker_subscribers>(at, hosts);
}

}  // namespace vexo::bench
