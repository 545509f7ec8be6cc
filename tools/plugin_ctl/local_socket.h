#ifndef TOOLS_PLUGIN_CTL_LOCAL_SOCKET_H_
#define TOOLS_PLUGIN_CTL_LOCAL_SOCKET_H_

#include <grpcpp/grpcpp.h>

#include <memory>

#include "common/endpoint.h"
#include "common/unique_fd.h"

namespace vexo::tools {

// Begins a connection to a unix socket or an IPv4 address, and never blocks. The socket is readable
// once the other side has spoken, hung up or refused; nobody may have accepted it before that.
// Empty, with errno set, when it was refused at once: EAGAIN when as many wait already at the unix
// socket as it lets wait.
unique_fd begin_connection(const endpoint& where);

// A channel on this connection alone: it ends with it. Takes lists of any length.
std::shared_ptr<grpc::Channel> make_channel(unique_fd connection);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_LOCAL_SOCKET_H_
