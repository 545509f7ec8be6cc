#include "peer_address.h"

#include <cstdio>

namespace vexo::scsiplugin {

std::string peer_ipv4(const std::string& peer) {
  char ip[64] = {};
  int port = -1;
  // The port must be there; its value is not used. NOLINTNEXTLINE(cert-err34-c)
  if (std::sscanf(peer.c_str(), "ipv4:%63[^:]:%d", ip, &port) != 2) return kUnknownAddress;
  return ip;
}

}  // namespace vexo::scsiplugin
