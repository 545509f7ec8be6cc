#ifndef TESTS_FAULTS_CROWD_H_
#define TESTS_FAULTS_CROWD_H_

#include <grpcpp/grpcpp.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "history.h"
#include "plugin_service.grpc.pb.h"

namespace vexo::test {

// Many host plugins, "<prefix>0" and so on, whose streams are shared out over a few connections and
// read by one thread. What they receive goes to the history.
class crowd {
 public:
  crowd(history* to, const std::string& prefix, std::size_t streams, std::size_t connections);
  ~crowd();  // leaves
  crowd(const crowd&) = delete;
  crowd& operator=(const crowd&) = delete;

  std::size_t received() const { return received_; }
  // Streams that have ended, whatever their end.
  std::size_t ended() const { return ended_; }
  // Cancels every call and closes the connections, and returns when all of that is over.
  void leave();

 private:
  struct stream {
    std::string plugin_id;
    std::unique_ptr<scsiplugin::PluginService::Stub> stub;
    grpc::ClientContext context;
    std::unique_ptr<grpc::ClientAsyncReader<scsiplugin::PluginCmd>> reader;
    scsiplugin::PluginCmd message;
    grpc::Status status;
    enum { starting, reading, ending } state = starting;
  };

  void read_all();
  void advance(stream* it, bool ok);

  history* history_;
  std::vector<std::unique_ptr<stream>> streams_;
  std::vector<std::shared_ptr<grpc::Channel>> connections_;
  grpc::CompletionQueue queue_;
  std::atomic<std::size_t> received_ = 0;
  std::atomic<std::size_t> ended_ = 0;
  std::thread reader_;
};

}  // namespace vexo::test

#endif  // TESTS_FAULTS_CROWD_H_
