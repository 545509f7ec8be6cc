// The process entry. The daemon takes no options, reads no configuration, stays in the foreground
// and handles no signal: it serves until it is killed.

#include <grpcpp/grpcpp.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>

#include "log.h"
#include "plugin_service_impl.h"
#include "runtime_tuning.h"

namespace vexo::scsiplugin {
namespace {

constexpr char kLogSource[] = "scsi_plugin_server";
constexpr rlim_t kOpenFiles = 1024;  // soft and hard limit, whether lowered or raised

// The closed library may call exit() on another thread, while the main thread waits in the server
// that the exit handlers delete. This object is destroyed before the server. Its destructor ends
// the calls under way, waits until the main thread has left the server, and keeps the main thread
// from calling exit() as well, which only one thread may do.
class exit_order {
 public:
  explicit exit_order(grpc::Server* server) : server_(server) {}
  exit_order(const exit_order&) = delete;
  exit_order& operator=(const exit_order&) = delete;

  ~exit_order() {
    if (main_thread_.exchange(has_to_stay) != waits) return;
    server_->Shutdown();
    main_thread_.wait(has_to_stay);
  }

  // Called by the main thread when it no longer uses the server. Does not return when the process
  // is ending.
  void leave() {
    if (main_thread_.exchange(has_left) != has_to_stay) return;
    main_thread_.notify_one();
    for (;;) pause();
  }

 private:
  enum place { waits, has_to_stay, has_left };

  grpc::Server* const server_;
  std::atomic<place> main_thread_ = waits;
};

// Serves both endpoints; returns only if the library stops the server, which nothing asks it to.
void run_grpc_server() {
  const std::string server_address = "0.0.0.0:3265";
  const std::string unix_address = "unix:///tmp/iscsi/plugin_server.sock";
  // Declared in this function, so that its destructor is registered after the controller's and runs
  // before it: handlers under way use the controller.
  static std::unique_ptr<grpc::Server> g_server;
  PluginServiceImpl service;
  grpc::ServerBuilder builder;
  builder.AddListeningPort(server_address, grpc::InsecureServerCredentials());
  builder.AddListeningPort(unix_address, grpc::InsecureServerCredentials());
  builder.RegisterService(&service);
  g_server = builder.BuildAndStart();
  PLUGIN_LOG(LOG_INFO, 30, "Server listening on %s", server_address.c_str());
  PLUGIN_LOG(LOG_INFO, 31, "Server listening on %s", unix_address.c_str());
  // There is no server when an endpoint could not be opened. The supervisor must then see a crash,
  // not a daemon without endpoints and not an orderly exit: the standard library's assertion, which
  // is enabled for this file, aborts here.
  static exit_order at_exit(&*g_server);
  g_server->Wait();
  PLUGIN_LOG(LOG_INFO, 34, "Server shutdown");
  at_exit.leave();
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
