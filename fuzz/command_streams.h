#ifndef FUZZ_COMMAND_STREAMS_H_
#define FUZZ_COMMAND_STREAMS_H_

#include <grpcpp/grpcpp.h>

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "plugin_service.grpc.pb.h"

namespace vexo::fuzz {

// Real Subscribe streams, opened once and held open, for subscriber records whose calls are fake:
// what is written to one comes out at its other end. For one thread.
class command_streams {
 public:
  explicit command_streams(std::size_t count);
  ~command_streams();
  command_streams(const command_streams&) = delete;
  command_streams& operator=(const command_streams&) = delete;

  grpc::ServerWriter<scsiplugin::PluginCmd>* writer(std::size_t i) { return streams_[i]->writer; }
  // The next command from stream `i`; blocks until there is one.
  scsiplugin::PluginCmd read(std::size_t i);

 private:
  struct stream {
    grpc::ServerWriter<scsiplugin::PluginCmd>* writer = nullptr;
    grpc::ClientContext context;
    std::unique_ptr<grpc::ClientReader<scsiplugin::PluginCmd>> reader;
  };

  // Lends the writer of each Subscribe call, and keeps the calls open until the end.
  class lender : public scsiplugin::PluginService::Service {
   public:
    grpc::Status Subscribe(grpc::ServerContext* context, const scsiplugin::PluginClient* request,
                           grpc::ServerWriter<scsiplugin::PluginCmd>* writer) override;
    // The writer of the call that is being opened; waits for it.
    grpc::ServerWriter<scsiplugin::PluginCmd>* borrow();
    void end();

   private:
    std::mutex mutex_;
    std::condition_variable changed_;
    grpc::ServerWriter<scsiplugin::PluginCmd>* lent_ = nullptr;
    bool ended_ = false;
  };

  lender lender_;
  std::unique_ptr<grpc::Server> server_;
  std::unique_ptr<scsiplugin::PluginService::Stub> stub_;
  std::vector<std::unique_ptr<stream>> streams_;
};

}  // namespace vexo::fuzz

#endif  // FUZZ_COMMAND_STREAMS_H_
