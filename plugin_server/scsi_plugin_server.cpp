// The process entry. The daemon takes no options, reads no configuration, detaches from nothing and
// handles no signal: it serves until it is killed.

#include <grpcpp/grpcpp.h>
#include <sys/resource.h>

#include <memory>
#include <string>

#include "log.h"
#include "plugin_service_impl.h"
#include "runtime_tuning.h"

namespace vexo::scsiplugin {
namespace {

constexpr char kLogSource[] = "scsi_plugin_server";
constexpr rlim_t kOpenFiles = 1024;  // the hard limit too, be it lowered or raised

// Serves both endpoints; returns only if the library stops the server, which nothing asks it to.
void run_grpc_server() {
  const std::string server_address = "0.0.0.0:3265";
  const std::string unix_address = "unix:///tmp/iscsi/plugin_server.sock";
  // In here, so that its destructor is registered after the controller's and runs before it: should
  // the closed library call exit(), the handlers under way end before the controller does.
  static std::unique_ptr<grpc::Server> g_server;
  PluginServiceImpl service;
  grpc::ServerBuilder builder;
  builder.AddListeningPort(server_address, grpc::InsecureServerCredentials());
  builder.AddListeningPort(unix_address, grpc::InsecureServerCredentials());
  builder.RegisterService(&service);
  g_server = builder.BuildAndStart();
  PLUGIN_LOG(LOG_INFO, 30, "Server listening on %s", server_address.c_str());
  PLUGIN_LOG(LOG_INFO, 31, "Server listening on %s", unix_address.c_str());
  // There is no server when an endpoint could not be had. A supervisor must then see a crash, not a
  // daemon without endpoints nor an orderly exit: the standard library's own assertion, on in this
  // file, aborts here.
  (*g_server).Wait();
  PLUGIN_LOG(LOG_INFO, 34, "Server shutdown");
}

}  // namespace
}  // namespace vexo::scsiplugin

int main() {
  using namespace vexo::scsiplugin;
  tune_runtime();
  const rlimit limit = {kOpenFiles, kOpenFiles};
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
    PLUGIN_LOG(LOG_ERR, 46, "Failed to set RLIMIT_NOFILE");
  }
  run_grpc_server();
  return 0;
}
