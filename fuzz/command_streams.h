#ifndef FUZZ_COMMAND_STREAMS_H_
#define FUZZ_COMMAND_STREAMS_H_

#include <grpcpp/grpcpp.h>

#include <cstddef>
#include <deque>
#include <future>
#include <memory>

#include "plugin_service.grpc.pb.h"

namespace vexo::fuzz {

// Real Subscribe streams, opened once and never ended, for subscriber records whose calls are fake:
// what is written to one comes out at its other end. For one thread, and until the process ends.
class command_streams : scsiplugin::PluginService::Service {
 public:
  explicit command_streams(std::size_t count);

  grpc::ServerWriter<scsiplugin::PluginCmd>* writer(std::size_t i) { return streams_[i].writer; }
  // The next command from stream `i`; blocks until there is one.
  scsiplugin::PluginCmd read(std::size_t i);

 private:
  struct stream {
    std::promise<grpc::ServerWriter<scsiplugin::PluginCmd>*> lent;
    grpc::ServerWriter<scsiplugin::PluginCmd>* writer = nullptr;
    grpc::ClientContext context;
    std::unique_ptr<grpc::ClientReader<scsiplugin::PluginCmd>> reader;
  };

  // Lends its writer, and stays open. The request's type is the number of the stream.
  grpc::Status Subscribe(grpc::ServerContext* context, const scsiplugin::PluginClient* request,
                         grpc::ServerWriter<scsiplugin::PluginCmd>* writer) override;

  std::deque<stream> streams_;
  std::unique_ptr<grpc::Server> server_;
  std::unique_ptr<scsiplugin::PluginService::Stub> stub_;
};

}  // namespace vexo::fuzz

#endif  // FUZZ_COMMAND_STREAMS_H_
