#ifndef BENCH_LOAD_CONNECTION_H_
#define BENCH_LOAD_CONNECTION_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace vexo::bench {

using clock = std::chrono::steady_clock;
inline double seconds_since(clock::time_point begin) {
  return std::chrono::duration<double>(clock::now() - begin).count();
}

// Ends the program: a figure from a run that went wrong is worth nothing.
[[noreturn]] void give_up(const std::string& why);

// One TCP connection, read by the program's only thread. A subclass knows what its protocol's bytes
// mean. The clients are this small, and none of gRPC's own, because client and server share the
// processors: what is measured must be the server.
class connection {
 public:
  explicit connection(std::uint16_t port);  // of 127.0.0.1
  virtual ~connection();
  connection(const connection&) = delete;
  connection& operator=(const connection&) = delete;

  // Reads what has come on any connection, waiting for it, and hands it over.
  static void run_once();
  template <typename Predicate>
  static void run_until(Predicate done) {
    while (!done()) run_once();
  }

 protected:
  void send(std::string_view bytes);

  // Takes whole protocol elements off the front of `bytes`; answers how many bytes it took.
  virtual std::size_t take(std::string_view bytes) = 0;

 private:
  void read();

  int socket_;
  std::string received_;
};

}  // namespace vexo::bench

#endif  // BENCH_LOAD_CONNECTION_H_
