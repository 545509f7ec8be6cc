#ifndef TOOLS_PLUGIN_GUARD_LOCAL_SOCKET_H_
#define TOOLS_PLUGIN_GUARD_LOCAL_SOCKET_H_

#include <grpcpp/grpcpp.h>

#include <memory>

#include "common/endpoint.h"
#include "common/unique_fd.h"

namespace vexo::tools {

// Begins a connection to a unix socket or an IPv4 address, and never blocks. The socket becomes
// readable when the other side sends something, closes it or refuses it. Empty, with errno set,
// when that failed at once: EAGAIN when the unix socket's queue of connections to accept is full.
unique_fd begin_connection(const endpoint& where);

// A channel that uses this connection only and never connects again. Takes lists of any length.
std::shared_ptr<grpc::Channel> make_channel(unique_fd connection);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_GUARD_LOCAL_SOCKET_H_
