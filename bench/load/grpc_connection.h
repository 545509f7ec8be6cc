#ifndef BENCH_LOAD_GRPC_CONNECTION_H_
#define BENCH_LOAD_GRPC_CONNECTION_H_

#include <deque>
#include <string>
#include <unordered_map>

#include "connection.h"

namespace vexo::bench {

// The part of HTTP/2 that gRPC calls to a server on the same machine need. It reads no headers: a
// call has succeeded when its message has come.
class grpc_connection : public connection {
 public:
  explicit grpc_connection(std::uint16_t port);

  using on_message = std::function<void(const std::string&)>;  // its bytes
  using on_end = std::function<void()>;

  // Calls a method of PluginService. `request`: its bytes. `message` is called with every message
  // that comes, `end` at the end. Both may make calls.
  void call(const std::string& method, const std::string& request, on_message message, on_end end);
  // The same, waiting for the end; the last message.
  std::string ask(const std::string& method, const std::string& request);

 private:
  struct stream {
    on_message message;
    on_end end;
    std::string data;
  };

  std::size_t take(std::string_view bytes) override;
  void take_frame(int type, int flags, std::uint32_t id, std::string_view payload);
  void take_data(stream* of, std::string_view payload);
  std::string header(const std::string& name, const std::string& value);

  std::uint32_t next_id_ = 1;
  std::unordered_map<std::uint32_t, stream> streams_;
  std::deque<std::string> header_table_;  // what the server has in its table, newest first
};

}  // namespace vexo::bench

#endif  // BENCH_LOAD_GRPC_CONNECTION_H_
