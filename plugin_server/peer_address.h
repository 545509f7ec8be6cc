#ifndef PLUGIN_SERVER_PEER_ADDRESS_H_
#define PLUGIN_SERVER_PEER_ADDRESS_H_

#include <string>

namespace vexo::scsiplugin {

// Stands for every peer that is not IPv4: the unix socket, IPv6.
inline constexpr char kUnknownAddress[] = "Unknown";

// The address of a call's peer, given as grpc::ServerContext::peer() prints it: "192.168.1.20" for
// "ipv4:192.168.1.20:51544", kUnknownAddress for every other form.
std::string peer_ipv4(const std::string& peer);

}  // namespace vexo::scsiplugin

#endif  // PLUGIN_SERVER_PEER_ADDRESS_H_
