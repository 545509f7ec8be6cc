#ifndef PLUGIN_SERVER_PLUGIN_CLIENT_H_
#define PLUGIN_SERVER_PLUGIN_CLIENT_H_

#include <grpcpp/server_context.h>
#include <grpcpp/support/sync_stream.h>

#include <condition_variable>
#include <string>

#include "mutex.h"
#include "plugin_cmd.pb.h"

namespace vexo::scsiplugin {

// One subscriber: an open Subscribe call and the way to push commands down its stream.
// Borrows the call's context, request and writer. All three are valid for as long as the record is:
// the Subscribe handler does not return before the last pointer to its record is gone.
// Shared by the handler, the registry and whoever works on the subscriber; any thread may call.
class plugin_client {
 public:
  plugin_client(grpc::ServerContext* context, const PluginClient* request,
                grpc::ServerWriter<PluginCmd>* writer);

  // Writes `cmd` to the stream if the peer is IPv4; logs either way. Holds `write_mutex`, and
  // blocks while the transport takes no more data: about 20 s when the host has stalled.
  // A failed write is not noticed.
  void push_cmd(const PluginCmd& cmd) PLUGIN_EXCLUDES(write_mutex);

  // Wakes the waiting Subscribe handler. Takes `write_mutex`, so it waits for a write under way.
  // The handler waits under `wait_mutex`: a release before that wait begins is lost.
  void release() PLUGIN_EXCLUDES(write_mutex);

  grpc::ServerContext* const context;
  const PluginClient* const request;
  // The peer's IPv4 address, or "Unknown". A call's peer never changes.
  const std::string peer;
  grpc::ServerWriter<PluginCmd>* const writer PLUGIN_PT_GUARDED_BY(write_mutex);
  mutex write_mutex;  // one write to the stream at a time; also held by every release
  mutex wait_mutex;   // held by the Subscribe handler, except while it waits on `cond`
  std::condition_variable cond;
  bool running PLUGIN_GUARDED_BY(write_mutex) = true;  // false from the first release on
};

}  // namespace vexo::scsiplugin

#endif  // PLUGIN_SERVER_PLUGIN_CLIENT_H_
