#include "subscribers.h"

#include <cstdio>

#include "grpc_subscribers.h"
#include "peers.h"

namespace vexo::bench {

std::string lun(int number) {
  char id[48];
  std::snprintf(id, sizeof id, "1a2b3c4d-%04d-7a8b-9c0d-e1f2a3b4c5d6", number);
  return id;
}

std::unique_ptr<subscribers> gather(const server& at, int hosts) {
  if (at.protocol == "grpc") return std::make_unique<grpc_subscribers>(at, hosts);
  return std::make_unique<broker_subscribers>(at, hosts);
}

}  // namespace vexo::bench
