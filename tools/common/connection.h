#ifndef TOOLS_COMMON_CONNECTION_H_
#define TOOLS_COMMON_CONNECTION_H_

#include <grpcpp/grpcpp.h>

#include <memory>

#include "common/endpoint.h"
#include "common/unique_fd.h"

namespace vexo::tools {

// Begins a connection to a unix socket or an IPv4 address, and never blocks. The socket becomes
// readable when the other side sends something, closes it or refuses it. Empty, with errno set,
// when that failed at once: EAGAIN when the unix socket's queue of connections to accept is full.
unique_fd begin_connection(const endpoint& where);

// Makes the kernel end this TCP connection when the other side has been silent for 25 s, whether or
// not something was sent to it: an appliance that loses power closes no connection. The kernel's
// probes do not reach the daemon's gRPC, which closes connections that ping more often than every
// 300 s.
void notice_silence(int connection);

// A channel that uses this connection only and never connects again, nor pings. Takes lists of any
// length.
std::shared_ptr<grpc::Channel> make_channel(unique_fd connection);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_CONNECTION_H_
